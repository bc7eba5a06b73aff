#include "StreamingReader/HTTPFile/HTTPConnection.h"

#include <curl/curl.h>
#include <poll.h>

#include <cerrno>

#include "Common/Clock.h"
#include "Common/StopSignal.h"
#include "StreamingReader/HTTPFile/src/CurlHandle.h"
#include "StreamingReader/HTTPFile/src/CurlTransfer.h"

namespace opal {
namespace {

constexpr int64_t kMsPerSecond = 1000;
constexpr int kIdlePauseMs = 2;

bool IsTlsFailure(CURLcode code) {
    switch (code) {
        case CURLE_SSL_CONNECT_ERROR:
        case CURLE_PEER_FAILED_VERIFICATION:
        case CURLE_SSL_CACERT_BADFILE:
        case CURLE_SSL_CERTPROBLEM:
        case CURLE_SSL_CIPHER:
        case CURLE_SSL_ISSUER_ERROR:
            return true;
        default:
            return false;
    }
}

}  // namespace

/// The easy handle of a connection and the multi handle that keeps it.
class HTTPConnection::Handles : boost::noncopyable {
  public:
    explicit Handles(CURL* handle) : easy(handle, &curl_easy_cleanup) {}

    const std::unique_ptr<CURL, decltype(&curl_easy_cleanup)> easy;
    CurlTransfer transfer;  // goes first
    curl_socket_t socket = CURL_SOCKET_BAD;
};

HTTPConnection::HTTPConnection(const ServiceTimeouts& timeouts) : m_timeouts(timeouts) {}

HTTPConnection::~HTTPConnection() {
    HTTPConnection::Close();
}

IServiceConnection::Result HTTPConnection::Connect(const std::string& url, const StopSignal* stop) {
    Close();
    m_stop = stop;
    m_receiveUntilMs = -1;
    m_idleWaits = 0;
    CURL* easy = NewCurlHandle();
    if (!easy)
        return Result::kFailed;
    auto handles = std::make_unique<Handles>(easy);
    SetCommonCurlOptions(easy, url, static_cast<long>(m_timeouts.connectMs / kMsPerSecond + 1));
    SetCurlOption(easy, CURLOPT_CONNECTTIMEOUT_MS, static_cast<long>(m_timeouts.connectMs));
    SetServiceCurlOptions(easy);
    SetCurlOption(easy, CURLOPT_CONNECT_ONLY, 1L);
    const CURLcode code = handles->transfer.Run(easy, [this] { return !IsRaised(m_stop); });
    if (code != CURLE_OK)
        return IsTlsFailure(code) ? Result::kTlsFailed : Result::kFailed;
    if (curl_easy_getinfo(easy, CURLINFO_ACTIVESOCKET, &handles->socket) != CURLE_OK ||
        handles->socket == CURL_SOCKET_BAD)
        return Result::kFailed;
    m_handles = std::move(handles);
    return Result::kConnected;
}

bool HTTPConnection::Send(const char* bytes, size_t size) {
    const int64_t untilMs = SteadyMs() + m_timeouts.sendMs;
    while (size != 0) {
        size_t sent = 0;
        if (!m_handles || IsRaised(m_stop) || SteadyMs() >= untilMs)
            return false;
        const CURLcode code = curl_easy_send(m_handles->easy.get(), bytes, size, &sent);
        if (code != CURLE_OK && code != CURLE_AGAIN)
            return false;
        if (sent != 0)
            m_idleWaits = 0;
        else if (!WaitForSocket(POLLOUT))
            return false;
        bytes += sent;
        size -= sent;
    }
    return true;
}

size_t HTTPConnection::Receive(char* bytes, size_t size) {
    if (m_receiveUntilMs < 0)
        m_receiveUntilMs = SteadyMs() + m_timeouts.receiveMs;
    while (m_handles && !IsRaised(m_stop) && SteadyMs() < m_receiveUntilMs) {
        size_t received = 0;
        const CURLcode code = curl_easy_recv(m_handles->easy.get(), bytes, size, &received);
        if (code != CURLE_AGAIN) {
            m_idleWaits = 0;
            return code == CURLE_OK ? received : 0;
        }
        if (!WaitForSocket(POLLIN))
            return 0;
    }
    return 0;
}

/// A slice at most: the signal is looked at in between. False when nothing more will come. The
/// socket may be ready all the time while TLS waits for something else: hence the pause.
bool HTTPConnection::WaitForSocket(short events) {
    // Real time, as the bounds above: whoever drives the library's clock has no hand in a service.
    if (m_idleWaits++ != 0)
        (void)poll(nullptr, 0, kIdlePauseMs);
    pollfd ready{m_handles->socket, events, 0};
    if (poll(&ready, 1, static_cast<int>(StopSignal::kSliceMs)) < 0)
        return errno == EINTR;
    return ready.revents == 0 || (ready.revents & events) != 0;
}

void HTTPConnection::Close() {
    m_handles.reset();
}

bool HTTPConnection::Refresh() {
    Close();  // authorities and TLS sessions are the handle's
    return true;
}

}  // namespace opal
