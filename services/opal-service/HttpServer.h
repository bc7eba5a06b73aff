#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <list>
#include <memory>
#include <mutex>
#include <string>
#include <thread>

namespace opal::service {

struct HttpRequest {
    std::string method;
    std::string path;
    std::string contentType;
    std::string body;
};

struct HttpReply {
    /// Close: not a byte; Stall: nothing until the client goes or the server stops.
    enum class Manner { Answer, Close, Stall };
    Manner manner = Manner::Answer;
    int status = 200;
    std::string contentType = "text/xml; charset=utf-8";
    std::string body;
};

/// A small HTTP server, over TLS when it has a certificate: one request a connection.
///
/// Threading: a thread accepts and one serves each connection, 64 at most; the handler is called
/// by one thread at a time. Stop ends them all. SIGPIPE is ignored in the whole process.
/// Errors: heads beyond 64 KiB, bodies beyond 16 MiB and clients that take longer than ten seconds
/// lose their connection.
class HttpServer {
  public:
    using Handler = std::function<HttpReply(const HttpRequest&)>;

    explicit HttpServer(Handler handler);
    ~HttpServer();
    HttpServer(const HttpServer&) = delete;
    HttpServer& operator=(const HttpServer&) = delete;

    /// PEM files; before Start. False with a text for people.
    bool UseTls(const std::string& certificate, const std::string& key, std::string* pError);
    bool Start(const std::string& address, uint16_t port, std::string* pError);
    void Stop();
    uint16_t Port() const { return m_port; }
    bool HasTls() const { return m_tls != nullptr; }
    size_t ConnectionsAccepted() const;

  private:
    struct Tls;
    class Connection;
    struct Served {
        std::shared_ptr<Connection> connection;
        std::thread thread;
    };

    void Accept();
    void Serve(Connection& connection);
    void Stall(const Connection& connection) const;
    bool IsStopping() const;
    void RemoveEnded();

    const Handler m_handler;
    std::unique_ptr<Tls> m_tls;
    int m_listener = -1;
    uint16_t m_port = 0;
    std::thread m_acceptor;
    std::mutex m_handlerMutex;
    mutable std::mutex m_mutex;  ///< of what follows
    bool m_stopping = false;
    size_t m_accepted = 0;
    std::list<Served> m_served;
};

}  // namespace opal::service
