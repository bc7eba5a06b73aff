#include "opal-service/HttpServer.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <openssl/err.h>
#include <openssl/ssl.h>
#include <poll.h>
#include <signal.h>
#include <strings.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstring>

namespace opal::service {
namespace {

constexpr size_t kMaxHead = 64 * 1024;
constexpr size_t kMaxBody = 16 * 1024 * 1024;
constexpr size_t kMaxConnections = 64;
constexpr time_t kPatienceSeconds = 10;
constexpr int kSliceMs = 50;
constexpr int kLingerMs = 1000;

const char* Reason(int status) {
    switch (status) {
        case 200:
            return "OK";
        case 202:
            return "Accepted";
        case 404:
            return "Not Found";
        case 503:
            return "Service Unavailable";
        default:
            return status < 400 ? "Other" : "Error";
    }
}

/// Of a header line; empty when there is none.
std::string HeaderValue(const std::string& head, const std::string& name) {
    for (size_t line = head.find("\r\n"); line != std::string::npos;
         line = head.find("\r\n", line + 2)) {
        if (strncasecmp(head.c_str() + line + 2, (name + ":").c_str(), name.size() + 1) != 0)
            continue;
        const size_t value = head.find_first_not_of(' ', line + 2 + name.size() + 1);
        return head.substr(value, head.find("\r\n", value) - value);
    }
    return {};
}

}  // namespace

struct HttpServer::Tls {
    SSL_CTX* context = SSL_CTX_new(TLS_server_method());
    ~Tls() { SSL_CTX_free(context); }
};

class HttpServer::Connection {
  public:
    Connection(int socket, const Tls* tls) : m_socket(socket) {
        const timeval patience{kPatienceSeconds, 0};
        setsockopt(socket, SOL_SOCKET, SO_RCVTIMEO, &patience, sizeof patience);
        setsockopt(socket, SOL_SOCKET, SO_SNDTIMEO, &patience, sizeof patience);
        if (tls) {
            m_ssl = SSL_new(tls->context);
            SSL_set_fd(m_ssl, socket);
        }
    }
    ~Connection() {
        SSL_free(m_ssl);
        close(m_socket);
    }
    Connection(const Connection&) = delete;
    Connection& operator=(const Connection&) = delete;

    bool Greet() { return !m_ssl || SSL_accept(m_ssl) == 1; }
    bool Write(const std::string& bytes) {
        for (size_t at = 0; at < bytes.size();) {
            const auto size = static_cast<int>(std::min<size_t>(bytes.size() - at, 1 << 20));
            const ssize_t sent =
                m_ssl ? SSL_write(m_ssl, bytes.data() + at, size)
                      : send(m_socket, bytes.data() + at, static_cast<size_t>(size), MSG_NOSIGNAL);
            if (sent <= 0)
                return false;
            at += static_cast<size_t>(sent);
        }
        return true;
    }
    bool ReadMore(std::string& bytes) {
        char piece[16384];
        const ssize_t size =
            m_ssl ? SSL_read(m_ssl, piece, sizeof piece) : recv(m_socket, piece, sizeof piece, 0);
        if (size > 0)
            bytes.append(piece, static_cast<size_t>(size));
        return size > 0;
    }
    bool Read(HttpRequest& request) {
        std::string bytes;
        size_t headEnd = std::string::npos;
        while ((headEnd = bytes.find("\r\n\r\n")) == std::string::npos) {
            if (bytes.size() > kMaxHead || !ReadMore(bytes))
                return false;
        }
        const std::string head = bytes.substr(0, headEnd + 2);
        const size_t size = std::strtoul(HeaderValue(head, "Content-Length").c_str(), nullptr, 10);
        if (size > kMaxBody)
            return false;
        while (bytes.size() < headEnd + 4 + size) {
            if (!ReadMore(bytes))
                return false;
        }
        const size_t blank = head.find(' ');
        request.method = head.substr(0, blank);
        request.path = head.substr(blank + 1, head.find(' ', blank + 1) - blank - 1);
        request.contentType = HeaderValue(head, "Content-Type");
        request.body = bytes.substr(headEnd + 4, size);
        return true;
    }
    /// So that the last bytes are not lost with what the client may still have sent.
    void SayGoodbye() {
        if (m_ssl)
            (void)SSL_shutdown(m_ssl);
        shutdown(m_socket, SHUT_WR);
        pollfd ready{m_socket, POLLIN, 0};
        (void)poll(&ready, 1, kLingerMs);
    }
    bool ClientHasGone() const {
        pollfd ready{m_socket, POLLIN | POLLRDHUP, 0};
        return poll(&ready, 1, kSliceMs) > 0;
    }
    void Interrupt() const { shutdown(m_socket, SHUT_RDWR); }

    std::atomic<bool> ended{false};

  private:
    const int m_socket;
    SSL* m_ssl = nullptr;
};

HttpServer::HttpServer(Handler handler) : m_handler(std::move(handler)) {}

HttpServer::~HttpServer() {
    Stop();
}

bool HttpServer::UseTls(const std::string& certificate, const std::string& key,
                        std::string* pError) {
    auto tls = std::make_unique<Tls>();
    if (SSL_CTX_use_certificate_chain_file(tls->context, certificate.c_str()) != 1)
        *pError = certificate + ": no certificate in PEM form";
    else if (SSL_CTX_use_PrivateKey_file(tls->context, key.c_str(), SSL_FILETYPE_PEM) != 1)
        *pError = key + ": no key in PEM form that fits the certificate";
    else
        m_tls = std::move(tls);
    ERR_clear_error();
    return m_tls != nullptr;
}

bool HttpServer::Start(const std::string& address, uint16_t port, std::string* pError) {
    signal(SIGPIPE, SIG_IGN);
    sockaddr_in name{};
    name.sin_family = AF_INET;
    name.sin_port = htons(port);
    const int on = 1;
    m_listener = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    setsockopt(m_listener, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
    socklen_t size = sizeof name;
    if (inet_pton(AF_INET, address.c_str(), &name.sin_addr) != 1 ||
        bind(m_listener, reinterpret_cast<sockaddr*>(&name), size) != 0 ||
        listen(m_listener, SOMAXCONN) != 0 ||
        getsockname(m_listener, reinterpret_cast<sockaddr*>(&name), &size) != 0) {
        *pError = "cannot listen on " + address + ":" + std::to_string(port) + ": " +
                  std::strerror(errno);
        return false;
    }
    m_port = ntohs(name.sin_port);
    m_acceptor = std::thread([this] { Accept(); });
    return true;
}

void HttpServer::Accept() {
    while (!IsStopping()) {
        pollfd ready{m_listener, POLLIN, 0};
        if (poll(&ready, 1, kSliceMs) <= 0)
            continue;
        const int socket = accept4(m_listener, nullptr, nullptr, SOCK_CLOEXEC);
        if (socket < 0)
            continue;
        RemoveEnded();
        std::lock_guard<std::mutex> lock(m_mutex);
        ++m_accepted;
        if (m_stopping || m_served.size() >= kMaxConnections) {
            close(socket);
            continue;
        }
        auto connection = std::make_shared<Connection>(socket, m_tls.get());
        m_served.push_back({connection, std::thread([this, connection] {
                                Serve(*connection);
                                connection->Interrupt();
                                connection->ended = true;
                            })});
    }
}

void HttpServer::Serve(Connection& connection) {
    HttpRequest request;
    if (!connection.Greet() || !connection.Read(request))
        return;
    HttpReply reply;
    {
        std::lock_guard<std::mutex> lock(m_handlerMutex);
        reply = m_handler(request);
    }
    if (reply.manner == HttpReply::Manner::Stall)
        Stall(connection);
    if (reply.manner != HttpReply::Manner::Answer)
        return;
    const std::string status = std::to_string(reply.status);
    std::string type;
    if (!reply.contentType.empty())
        type = "Content-Type: " + reply.contentType + "\r\n";
    if (connection.Write("HTTP/1.1 " + status + " " + Reason(reply.status) + "\r\n" + type +
                         "Content-Length: " + std::to_string(reply.body.size()) +
                         "\r\nConnection: close\r\n\r\n" + reply.body))
        connection.SayGoodbye();
}

void HttpServer::Stall(const Connection& connection) const {
    while (!IsStopping() && !connection.ClientHasGone()) {
    }
}

bool HttpServer::IsStopping() const {
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_stopping;
}

size_t HttpServer::ConnectionsAccepted() const {
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_accepted;
}

void HttpServer::RemoveEnded() {
    std::lock_guard<std::mutex> lock(m_mutex);
    for (auto served = m_served.begin(); served != m_served.end();) {
        if (!served->connection->ended) {
            ++served;
            continue;
        }
        served->thread.join();
        served = m_served.erase(served);
    }
}

void HttpServer::Stop() {
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_stopping = true;
        for (const Served& served : m_served)
            served.connection->Interrupt();
    }
    if (m_acceptor.joinable())
        m_acceptor.join();
    for (Served& served : m_served)
        served.thread.join();
    m_served.clear();
    if (m_listener >= 0)
        close(m_listener);
    m_listener = -1;
}

}  // namespace opal::service
