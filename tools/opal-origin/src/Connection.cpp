#include "opal-origin/src/Connection.h"

#include <linux/sockios.h>
#include <sys/ioctl.h>
#include <sys/socket.h>

#include <algorithm>
#include <boost/asio/buffer.hpp>
#include <boost/asio/write.hpp>
#include <boost/beast/http/read.hpp>
#include <limits>
#include <utility>

#include "opal-origin/src/ByteRanges.h"
#include "opal-origin/src/Server.h"

namespace opal::origin {
namespace {

namespace asio = boost::asio;
namespace http = boost::beast::http;

constexpr uint32_t kMaxHead = 64 * 1024;
constexpr int64_t kLingerMs = 1000;
constexpr int kDeliveryChecks = 2000;  // of 1 ms

std::string Text(boost::beast::string_view view) {
    return std::string(view.data(), view.size());
}

}  // namespace

Connection::Connection(Server& server, asio::ip::tcp::socket socket, uint64_t id)
    : m_server(server), m_socket(std::move(socket)), m_timer(m_socket.get_executor()), m_id(id) {}

void Connection::Start() {
    Error ignored;
    m_socket.set_option(asio::ip::tcp::no_delay(true), ignored);
    ReadRequest();
}

void Connection::After(int64_t milliseconds, std::function<void()> action) {
    m_timer.expires_after(std::chrono::milliseconds(milliseconds));
    m_timer.async_wait([self = shared_from_this(), action = std::move(action)](Error error) {
        if (!error && !self->m_closed)
            action();
    });
}

void Connection::ReadRequest() {
    m_parser.emplace();
    m_parser->header_limit(kMaxHead);
    After(m_server.Options().idleTimeoutMs, [this] { Abort(); });
    http::async_read(m_socket, m_buffer, *m_parser,
                     [self = shared_from_this()](Error error, size_t) { self->OnRead(error); });
}

void Connection::OnRead(const Error& error) {
    if (m_closed)
        return;
    m_timer.cancel();
    RequestInfo request;
    if (error == http::error::end_of_stream) {
        CloseGently();
    } else if (error && error.category() != make_error_code(http::error::bad_method).category()) {
        Abort();
    } else if (error) {  // not HTTP, or more than a server of files needs to read
        request.keepAlive = false;
        Answer(request, std::string(), std::string());
    } else {
        const auto& message = m_parser->get();
        const std::string target = Text(message.target());
        std::string rangeText = Text(message[http::field::range]);
        request.method = Text(message.method_string());
        request.keepAlive = message.keep_alive();
        if (!DecodeTarget(target, &request.path))
            request.path.clear();
        // There are no validators, so a conditional range never holds.
        if (message.find(http::field::if_range) == message.end())
            request.ranges = ParseRanges(rangeText);
        Answer(request, target, rangeText.substr(rangeText.find('=') + 1));
    }
}

void Connection::Answer(const RequestInfo& request, const std::string& target,
                        const std::string& rangeText) {
    RequestRecord record;
    record.connection = m_id;
    record.method = request.method;
    record.target = target;
    record.path = request.path;
    record.rangeText = rangeText;
    record.ranges = request.ranges;
    int64_t latencyMs = 0;
    m_fault = Fault();
    m_request = m_server.GetState().Arrived(std::move(record), &m_fault, &m_faultId, &latencyMs);
    m_reply =
        Reply(request, m_server.GetContent().Find(request.path), m_fault, m_server.Boundary());
    m_position = kBeforeHead;
    m_stallOver = m_stalled = m_continuing = false;
    m_answering = true;
    WatchForClose();
    const int64_t delayMs = latencyMs + std::max<int64_t>(m_fault.delayMs, 0);
    if (delayMs > 0)
        After(delayMs, [this] { Advance(); });
    else
        Advance();
}

// One step of the reply: what the fault has in store at this position, else the next chunk.
void Connection::Advance() {
    if (m_position == m_fault.stallAt && !m_stallOver) {
        Stall();
    } else if (m_position == m_fault.resetAt) {
        ResetOnceDelivered(kDeliveryChecks);
    } else if (m_position == m_fault.closeAt) {
        Finish(false);
        CloseGently();
    } else if (m_position == m_reply.BodyLength()) {
        const bool keepAlive = m_reply.KeepAlive();
        Finish(true);
        if (keepAlive)
            ReadRequest();
        else
            CloseGently();
    } else if (!SendChunk(m_position)) {
        Abort();
    }
}

void Connection::Stall() {
    m_stallOver = true;
    if (!m_server.GetState().Stalled(m_faultId)) {
        Advance();
        return;
    }
    m_stalled = true;
    if (m_fault.stallMs >= 0)
        After(m_fault.stallMs, [this] { Resume(0); });
}

void Connection::Resume(uint64_t faultId) {
    if (m_stalled && (faultId == 0 || faultId == m_faultId)) {
        m_stalled = false;
        m_continuing = false;
        m_timer.cancel();
        m_server.GetState().Unstalled(m_faultId);
        Advance();
    }
}

int64_t Connection::BytesToNextEvent(int64_t position) const {
    int64_t distance = std::numeric_limits<int64_t>::max();
    for (const int64_t at :
         {m_stallOver ? kNever : m_fault.stallAt, m_fault.resetAt, m_fault.closeAt}) {
        if (at >= position)
            distance = std::min(distance, at - position);
    }
    return distance;
}

// Asks the link for the next chunk: the head together with the first bytes of the body.
bool Connection::SendChunk(int64_t position) {
    const int64_t quantum = m_server.GetState().Quantum();
    const bool withHead = position == kBeforeHead;
    m_chunk.clear();
    if (withHead) {
        position = 0;
        m_chunk.assign(m_reply.Head().begin(), m_reply.Head().end());
        m_server.GetState().Started(m_request, m_reply.StatusCode());
    }
    const int64_t room = std::max<int64_t>(quantum - static_cast<int64_t>(m_chunk.size()), 0);
    const int64_t body = std::min(room, BytesToNextEvent(position));
    if (!m_reply.Append(static_cast<size_t>(body), &m_chunk))
        return false;
    m_server.AskLink(m_id, static_cast<int64_t>(m_chunk.size()), m_continuing);
    return true;
}

void Connection::OnGranted() {
    m_continuing = true;
    const int64_t head =
        m_position == kBeforeHead ? static_cast<int64_t>(m_reply.Head().size()) : 0;
    const int64_t position =
        std::max<int64_t>(m_position, 0) + static_cast<int64_t>(m_chunk.size()) - head;
    asio::async_write(m_socket, asio::buffer(m_chunk),
                      [self = shared_from_this(), position](Error error, size_t) {
                          self->OnWritten(error, position);
                      });
}

void Connection::OnWritten(const Error& error, int64_t position) {
    if (m_closed)
        return;
    if (error) {
        Abort();
        return;
    }
    m_position = position;
    m_server.GetState().Sent(m_request, position);
    Advance();
}

void Connection::Finish(bool complete) {
    if (m_answering) {
        m_answering = false;
        if (m_stalled) {
            m_stalled = false;
            m_server.GetState().Unstalled(m_faultId);
        }
        m_server.GetState().Finished(m_request, complete);
    }
}

// The client reads all that was sent, then the end. Closing with unread requests in the socket
// would reset it instead and could destroy what is on the way.
void Connection::CloseGently() {
    Error ignored;
    m_socket.shutdown(asio::ip::tcp::socket::shutdown_send, ignored);
    After(kLingerMs, [this] { Abort(); });
    Discard();
}

void Connection::Discard() {
    m_chunk.resize(4096);
    m_socket.async_read_some(asio::buffer(m_chunk),
                             [self = shared_from_this()](Error error, size_t) {
                                 if (self->m_closed)
                                     return;
                                 if (error)
                                     self->Abort();
                                 else
                                     self->Discard();
                             });
}

// A reset overtakes what the kernel has not delivered yet, so it waits for that.
void Connection::ResetOnceDelivered(int checksLeft) {
    int unsent = 0;
    if (checksLeft > 0 && ioctl(m_socket.native_handle(), SIOCOUTQ, &unsent) == 0 && unsent > 0)
        After(1, [this, checksLeft] { ResetOnceDelivered(checksLeft - 1); });
    else
        Abort();
}

void Connection::Abort() {
    if (m_closed)
        return;
    const auto self = shared_from_this();
    m_closed = true;
    Finish(false);
    Error ignored;
    m_socket.set_option(asio::socket_base::linger(true, 0), ignored);
    m_socket.close(ignored);
    m_timer.cancel();
    m_server.OnClosed(m_id);
}

// A client that goes away while its reply is held back would otherwise be noticed only by the
// next write. One that merely shuts its sending side down is taken for gone too.
void Connection::WatchForClose() {
    if (m_watching)
        return;
    m_watching = true;
    m_socket.async_wait(asio::ip::tcp::socket::wait_read, [self = shared_from_this()](Error error) {
        self->m_watching = false;
        if (error || self->m_closed || !self->m_answering)
            return;
        char byte = 0;
        const ssize_t n = recv(self->m_socket.native_handle(), &byte, 1, MSG_PEEK | MSG_DONTWAIT);
        if (n == 0 || (n < 0 && errno != EAGAIN && errno != EINTR))
            self->Abort();
    });
}

}  // namespace opal::origin
