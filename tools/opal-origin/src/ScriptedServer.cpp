#include "opal-origin/ScriptedServer.h"

#include <algorithm>
#include <atomic>
#include <boost/asio/buffer.hpp>
#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/read_until.hpp>
#include <boost/asio/steady_timer.hpp>
#include <boost/asio/write.hpp>
#include <chrono>
#include <condition_variable>
#include <mutex>
#include <thread>
#include <utility>

namespace opal::origin {
namespace {

namespace asio = boost::asio;
using boost::system::error_code;

constexpr size_t kMaxHead = 64 * 1024;
constexpr std::chrono::milliseconds kBetweenPieces{1};

}  // namespace

class ScriptedServer::Impl {
  public:
    explicit Impl(std::vector<ScriptedReply> replies)
        : m_replies(std::move(replies)),
          m_acceptor(m_io, asio::ip::tcp::endpoint(asio::ip::address_v4::loopback(), 0)),
          m_port(m_acceptor.local_endpoint().port()) {
        if (m_replies.empty())
            m_replies.emplace_back();
        Accept();
        m_thread = std::thread([this] { m_io.run(); });
    }

    ~Impl() {
        m_io.stop();
        m_thread.join();
    }

    uint16_t Port() const { return m_port; }
    size_t ConnectionsAccepted() const { return m_accepted; }

    std::vector<std::string> Requests() const {
        std::lock_guard<std::mutex> lock(m_mutex);
        return m_requests;
    }

    bool WaitForRequests(size_t n, int64_t timeoutMs) {
        const auto end = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeoutMs);
        std::unique_lock<std::mutex> lock(m_mutex);
        return m_changed.wait_until(lock, end, [this, n] { return m_requests.size() >= n; });
    }

  private:
    class Session;

    void Accept() {
        m_acceptor.async_accept([this](error_code error, asio::ip::tcp::socket socket) {
            if (error == asio::error::operation_aborted)
                return;
            if (!error) {
                ++m_accepted;
                StartSession(std::move(socket));
            }
            Accept();
        });
    }

    void StartSession(asio::ip::tcp::socket socket);

    const ScriptedReply& Next(std::string head) {
        std::lock_guard<std::mutex> lock(m_mutex);
        const size_t index = std::min(m_requests.size(), m_replies.size() - 1);
        m_requests.push_back(std::move(head));
        m_changed.notify_all();
        return m_replies[index];
    }

    std::vector<ScriptedReply> m_replies;
    asio::io_context m_io;
    asio::ip::tcp::acceptor m_acceptor;
    const uint16_t m_port;
    std::atomic<size_t> m_accepted{0};
    mutable std::mutex m_mutex;
    std::condition_variable m_changed;
    std::vector<std::string> m_requests;  // guarded by m_mutex
    std::thread m_thread;
};

/// One connection. Its pending operations own it, so it ends with the last of them.
class ScriptedServer::Impl::Session : public std::enable_shared_from_this<Session> {
  public:
    Session(Impl& server, asio::ip::tcp::socket socket)
        : m_server(server), m_socket(std::move(socket)), m_timer(m_socket.get_executor()) {
        error_code ignored;
        m_socket.set_option(asio::ip::tcp::no_delay(true), ignored);
    }

    void ReadRequest() {
        asio::async_read_until(m_socket, asio::dynamic_buffer(m_input, kMaxHead), "\r\n\r\n",
                               [self = shared_from_this()](error_code error, size_t length) {
                                   if (!error)
                                       self->OnRequest(length);
                               });
    }

  private:
    void OnRequest(size_t length) {
        m_pReply = &m_server.Next(m_input.substr(0, length));
        m_input.erase(0, length);
        m_sent = 0;
        SendPiece();
    }

    void SendPiece() {
        const size_t left = m_pReply->bytes.size() - m_sent;
        const size_t length = m_pReply->pieceSize > 0 ? std::min(left, m_pReply->pieceSize) : left;
        asio::async_write(m_socket, asio::buffer(m_pReply->bytes.data() + m_sent, length),
                          [self = shared_from_this()](error_code error, size_t written) {
                              if (!error)
                                  self->OnSent(written);
                          });
    }

    void OnSent(size_t written) {
        m_sent += written;
        if (m_sent == m_pReply->bytes.size()) {
            EndReply();
            return;
        }
        m_timer.expires_after(kBetweenPieces);
        m_timer.async_wait([self = shared_from_this()](error_code error) {
            if (!error)
                self->SendPiece();
        });
    }

    void EndReply() {
        error_code ignored;
        switch (m_pReply->after) {
            case ScriptedReply::After::Keep:
                ReadRequest();
                break;
            case ScriptedReply::After::Close:
                m_socket.shutdown(asio::ip::tcp::socket::shutdown_send, ignored);
                Discard();
                break;
            case ScriptedReply::After::Silence:
                Discard();
                break;
            case ScriptedReply::After::Reset:
                m_socket.set_option(asio::socket_base::linger(true, 0), ignored);
                m_socket.close(ignored);
                break;
        }
    }

    // Until the client closes: a close with unread bytes would reset the connection.
    void Discard() {
        m_input.resize(4096);
        m_socket.async_read_some(asio::buffer(m_input),
                                 [self = shared_from_this()](error_code error, size_t) {
                                     if (!error)
                                         self->Discard();
                                 });
    }

    Impl& m_server;
    asio::ip::tcp::socket m_socket;
    asio::steady_timer m_timer;
    std::string m_input;
    const ScriptedReply* m_pReply = nullptr;
    size_t m_sent = 0;
};

void ScriptedServer::Impl::StartSession(asio::ip::tcp::socket socket) {
    std::make_shared<Session>(*this, std::move(socket))->ReadRequest();
}

ScriptedServer::ScriptedServer(std::vector<ScriptedReply> replies)
    : m_impl(std::make_unique<Impl>(std::move(replies))) {}

ScriptedServer::~ScriptedServer() = default;

uint16_t ScriptedServer::Port() const {
    return m_impl->Port();
}

std::string ScriptedServer::Url(const std::string& path) const {
    return "http://127.0.0.1:" + std::to_string(Port()) +
           (!path.empty() && path.front() == '/' ? path : "/" + path);
}

std::vector<std::string> ScriptedServer::Requests() const {
    return m_impl->Requests();
}

size_t ScriptedServer::ConnectionsAccepted() const {
    return m_impl->ConnectionsAccepted();
}

bool ScriptedServer::WaitForRequests(size_t n, int64_t timeoutMs) {
    return m_impl->WaitForRequests(n, timeoutMs);
}

}  // namespace opal::origin
