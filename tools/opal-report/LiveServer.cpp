#include "opal-report/LiveServer.h"

#include <algorithm>
#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/steady_timer.hpp>
#include <boost/beast/core/flat_buffer.hpp>
#include <boost/beast/core/tcp_stream.hpp>
#include <boost/beast/http/read.hpp>
#include <boost/beast/http/string_body.hpp>
#include <boost/beast/http/write.hpp>
#include <charconv>
#include <chrono>
#include <mutex>
#include <nlohmann/json.hpp>
#include <optional>
#include <thread>
#include <utility>
#include <vector>

#include "opal-report/Page.h"
#include "opal-report/SessionReport.h"
#include "recording/SessionReader.h"

namespace opal::report {
namespace {

namespace asio = boost::asio;
namespace beast = boost::beast;
namespace http = boost::beast::http;
using asio::ip::tcp;
using Error = boost::system::error_code;
using Request = http::request<http::string_body>;
using Response = http::response<http::string_body>;

constexpr size_t kMaxConnections = 16;
constexpr uint32_t kMaxHead = 8192;
constexpr size_t kMaxRowsAtOnce = 2000;  // of a kind in one reply
constexpr std::chrono::seconds kIdle{15};
constexpr std::chrono::milliseconds kAcceptRetry{50};

/// The rows so far, told since a number of each table.
class LiveRows {
  public:
    LiveRows() : m_report(LiveServer::kMaxRows) {}

    void Append(std::string_view line) {
        std::lock_guard<std::mutex> lock(m_mutex);
        std::string error;
        recording::Session& session = m_reader.Get();
        m_refused = m_refused || !m_reader.Take(line, &error);
        if (m_refused)
            return;
        if (!m_hasHeader) {
            m_hasHeader = true;
            m_report.SetHeader(session.header);
        }
        for (const recording::Record& record : session.records)
            m_report.Take(record);
        session.records.clear();
    }

    void End() {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_report.Finish();
        m_over = true;
    }

    /// "12,0,3": so many rows of each table are there already.
    std::string Since(std::string_view counts) const {
        std::lock_guard<std::mutex> lock(m_mutex);
        nlohmann::json reply = m_report.Summary();
        bool more = false;
        const char* at = counts.data();
        const char* const end = at + counts.size();
        for (const Table& table : m_report.Tables()) {
            size_t first = 0;
            at = std::from_chars(at, end, first).ptr;
            at += at != end;
            first = std::min(first, table.rows.size());
            more = more || table.rows.size() - first > kMaxRowsAtOnce;
            reply["tables"].push_back(ToJson(table, first, kMaxRowsAtOnce));
        }
        reply["more"] = more;
        reply["over"] = m_over && !more;
        return reply.dump(-1, ' ', true, nlohmann::json::error_handler_t::replace);
    }

    std::string EmptyPage() const {
        std::lock_guard<std::mutex> lock(m_mutex);
        SessionReport empty;
        empty.SetHeader(m_report.GetHeader());
        nlohmann::json data = ToJson({&empty});
        data["live"] = true;
        return MakePage(data);
    }

  private:
    mutable std::mutex m_mutex;
    recording::SessionReader m_reader;
    SessionReport m_report;
    bool m_hasHeader = false;
    bool m_refused = false;
    bool m_over = false;
};

std::string_view View(beast::string_view text) {
    return {text.data(), text.size()};
}

/// The listener, its connections and their thread, from construction to destruction.
class Server {
  public:
    /// Throws boost::system::system_error if it cannot listen.
    Server(const LiveRows& rows, uint16_t port)
        : m_rows(rows),
          m_acceptor(m_io, tcp::endpoint(asio::ip::address_v4::loopback(), port)),
          m_port(m_acceptor.local_endpoint().port()) {
        Accept();
        m_thread = std::thread([this] { Run(); });
    }

    ~Server() {
        m_io.stop();
        m_thread.join();
    }

    Server(const Server&) = delete;
    Server& operator=(const Server&) = delete;

    uint16_t Port() const { return m_port; }

  private:
    class Connection;

    void Run() {
        while (!m_io.stopped()) {
            try {
                m_io.run();
            } catch (const std::exception&) {  // no memory for a reply: its connection is gone
            }
        }
    }

    void Accept() {
        m_acceptor.async_accept([this](Error error, tcp::socket socket) {
            if (error) {  // no descriptor is left, most likely: one may come free
                m_retry.expires_after(kAcceptRetry);
                m_retry.async_wait([this](Error) { Accept(); });
                return;
            }
            if (m_connections < kMaxConnections)
                Serve(std::move(socket));
            Accept();
        });
    }

    void Serve(tcp::socket socket);
    Response Answer(const Request& request) const;

    const LiveRows& m_rows;
    size_t m_connections = 0;  // the server's thread only
    asio::io_context m_io{1};  // its destructor destroys the connections
    asio::steady_timer m_retry{m_io};
    tcp::acceptor m_acceptor;
    const uint16_t m_port;
    std::thread m_thread;
};

class Server::Connection : public std::enable_shared_from_this<Connection> {
  public:
    Connection(Server& server, tcp::socket socket) : m_server(server), m_stream(std::move(socket)) {
        ++m_server.m_connections;
    }
    ~Connection() { --m_server.m_connections; }

    void Read() {
        m_parser.emplace();
        m_parser->header_limit(kMaxHead);
        m_parser->body_limit(0);
        m_stream.expires_after(kIdle);
        http::async_read(m_stream, m_buffer, *m_parser,
                         [self = shared_from_this()](Error error, size_t) {
                             if (!error)
                                 self->Write();
                         });
    }

  private:
    void Write() {
        m_response = m_server.Answer(m_parser->get());
        m_stream.expires_after(kIdle);
        http::async_write(m_stream, m_response, [self = shared_from_this()](Error error, size_t) {
            if (!error && self->m_response.keep_alive())
                self->Read();
        });
    }

    Server& m_server;
    beast::tcp_stream m_stream;
    beast::flat_buffer m_buffer{kMaxHead};
    std::optional<http::request_parser<http::string_body>> m_parser;
    Response m_response;
};

void Server::Serve(tcp::socket socket) {
    std::make_shared<Connection>(*this, std::move(socket))->Read();
}

Response Server::Answer(const Request& request) const {
    const std::string_view target = View(request.target());
    const std::string_view path = target.substr(0, target.find('?'));
    const std::string_view host = View(request[http::field::host]);
    const std::string port = ":" + std::to_string(m_port);
    Response response(http::status::ok, request.version());
    response.keep_alive(request.keep_alive());
    response.set(http::field::cache_control, "no-store");
    response.set("X-Content-Type-Options", "nosniff");
    response.set("Cross-Origin-Resource-Policy", "same-origin");
    response.set("X-Frame-Options", "DENY");
    response.set(http::field::content_type, "text/plain; charset=utf-8");
    if (host != "127.0.0.1" + port && host != "localhost" + port) {
        response.result(http::status::misdirected_request);
        response.body() = "This server answers to 127.0.0.1 and localhost alone.\n";
    } else if (request.method() != http::verb::get) {
        response.result(http::status::method_not_allowed);
        response.set(http::field::allow, "GET");
    } else if (path == "/") {
        response.set(http::field::content_type, "text/html; charset=utf-8");
        response.body() = m_rows.EmptyPage();
    } else if (path == "/rows.json") {
        const size_t from = target.find("?from=");
        response.set(http::field::content_type, "application/json");
        response.body() =
            m_rows.Since(from == std::string_view::npos ? "" : target.substr(from + 6));
    } else {
        response.result(http::status::not_found);
    }
    response.prepare_payload();
    return response;
}

}  // namespace

class LiveServer::Impl {
  public:
    LiveRows rows;
    std::unique_ptr<Server> server;  // null while stopped
};

LiveServer::LiveServer() : m_impl(std::make_unique<Impl>()) {}

LiveServer::~LiveServer() {
    Stop();
}

bool LiveServer::Start(uint16_t port, std::string* error) {
    try {
        if (!m_impl->server)
            m_impl->server = std::make_unique<Server>(m_impl->rows, port);
        return true;
    } catch (const std::exception& failure) {
        *error = "127.0.0.1:" + std::to_string(port) + ": " + failure.what();
        return false;
    }
}

void LiveServer::Stop() {
    m_impl->server.reset();
}

std::string LiveServer::Url() const {
    return m_impl->server ? "http://127.0.0.1:" + std::to_string(m_impl->server->Port()) + "/"
                          : std::string();
}

void LiveServer::Append(std::string_view line) {
    m_impl->rows.Append(line);
}

void LiveServer::End() {
    m_impl->rows.End();
}

}  // namespace opal::report
