#pragma once

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <string>

namespace opal::test {

/// How a client saw a reply.
struct ClientReply {
    enum class End { Complete, Closed, Reset, TimedOut };

    int status = 0;  ///< 0: no head came
    std::string head;
    std::string body;
    End end = End::Complete;  ///< Complete: as many bytes as Content-Length says

    std::string Header(const std::string& name) const {
        const std::string key = "\r\n" + name + ": ";
        const size_t start = head.find(key);
        return start == std::string::npos
                   ? std::string()
                   : head.substr(start + key.size(),
                                 head.find("\r\n", start + key.size()) - start - key.size());
    }
};

/// A blocking HTTP client without any opinion of its own: one connection, bytes out, bytes in.
/// Each wait is bounded by the time-out.
class OriginClient {
  public:
    explicit OriginClient(uint16_t port, int timeoutMs = 10000)
        : m_socket(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
        timeval timeout{timeoutMs / 1000, (timeoutMs % 1000) * 1000};
        setsockopt(m_socket, SOL_SOCKET, SO_RCVTIMEO, &timeout, sizeof timeout);
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_port = htons(port);
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        m_connected =
            connect(m_socket, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0;
    }
    ~OriginClient() { Close(); }
    OriginClient(const OriginClient&) = delete;
    OriginClient& operator=(const OriginClient&) = delete;

    bool Connected() const { return m_connected; }

    void Close() {
        if (m_socket >= 0) {
            close(m_socket);
            m_socket = -1;
        }
    }

    void Send(const std::string& text) {
        m_connected = m_connected && send(m_socket, text.data(), text.size(), MSG_NOSIGNAL) ==
                                         static_cast<ssize_t>(text.size());
    }

    void SendRequest(const std::string& method, const std::string& target,
                     const std::string& ranges = std::string()) {
        Send(method + " " + target + " HTTP/1.1\r\nHost: test\r\n" +
             (ranges.empty() ? std::string() : "Range: bytes=" + ranges + "\r\n") + "\r\n");
    }

    ClientReply Get(const std::string& target, const std::string& ranges = std::string()) {
        SendRequest("GET", target, ranges);
        return Read();
    }

    ClientReply Head(const std::string& target) {
        SendRequest("HEAD", target);
        return Read(false);
    }

    /// One reply: head, and as much body as it announces; without a length all up to the end.
    ClientReply Read(bool hasBody = true) {
        ClientReply reply;
        size_t headEnd = 0;
        while ((headEnd = m_input.find("\r\n\r\n")) == std::string::npos) {
            if (!Receive(&reply.end)) {
                return reply;
            }
        }
        reply.head = m_input.substr(0, headEnd + 4);
        m_input.erase(0, headEnd + 4);
        reply.status = std::atoi(reply.head.c_str() + sizeof "HTTP/1.1");
        const std::string length = reply.Header("Content-Length");
        const size_t wanted = !hasBody         ? 0
                              : length.empty() ? SIZE_MAX
                                               : std::strtoull(length.c_str(), nullptr, 10);
        while (m_input.size() < wanted && Receive(&reply.end)) {
        }
        reply.body = m_input.substr(0, std::min(wanted, m_input.size()));
        m_input.erase(0, reply.body.size());
        return reply;
    }

    /// Reads and drops so many bytes behind the replies read so far; how many came.
    size_t Skip(size_t bytes) {
        size_t skipped = std::min(bytes, m_input.size());
        m_input.erase(0, skipped);
        char buffer[65536];
        while (skipped < bytes) {
            const ssize_t n = recv(m_socket, buffer, std::min(bytes - skipped, sizeof buffer), 0);
            if (n <= 0) {
                break;
            }
            skipped += static_cast<size_t>(n);
        }
        return skipped;
    }

    /// What comes behind the replies read so far, up to the connection's end or the time-out.
    std::string ReadRest(ClientReply::End* pEnd) {
        while (Receive(pEnd)) {
        }
        return m_input;
    }

  private:
    bool Receive(ClientReply::End* pEnd) {
        char buffer[65536];
        const ssize_t n = m_connected ? recv(m_socket, buffer, sizeof buffer, 0) : 0;
        if (n > 0) {
            m_input.append(buffer, static_cast<size_t>(n));
        } else {
            *pEnd = n == 0                                    ? ClientReply::End::Closed
                    : errno == EAGAIN || errno == EWOULDBLOCK ? ClientReply::End::TimedOut
                                                              : ClientReply::End::Reset;
        }
        return n > 0;
    }

    int m_socket;
    bool m_connected = false;
    std::string m_input;
};

}  // namespace opal::test
