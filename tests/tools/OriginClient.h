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
    int status = 0;  ///< 0: no head came, and the body is what came instead
    std::string head;
    std::string body;
    /// "complete": as many bytes as announced; else "closed", "reset" or, timed out, "silent".
    std::string end = "complete";

    std::string Header(const std::string& name) const {
        const size_t key = head.find("\r\n" + name + ": ");
        const size_t value = key + name.size() + 4;
        return key == std::string::npos ? "" : head.substr(value, head.find("\r\n", value) - value);
    }
};

/// A blocking HTTP client without any opinion of its own: one connection, bytes out, bytes in.
/// Each wait is bounded.
class OriginClient {
  public:
    explicit OriginClient(uint16_t port)
        : m_socket(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
        const timeval timeout{10, 0};
        setsockopt(m_socket, SOL_SOCKET, SO_RCVTIMEO, &timeout, sizeof timeout);
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_port = htons(port);
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        (void)connect(m_socket, reinterpret_cast<const sockaddr*>(&address), sizeof address);
    }
    ~OriginClient() { close(m_socket); }
    OriginClient(const OriginClient&) = delete;
    OriginClient& operator=(const OriginClient&) = delete;

    void Send(const std::string& text) {
        (void)send(m_socket, text.data(), text.size(), MSG_NOSIGNAL);
    }

    void SendRequest(const std::string& method, const std::string& target,
                     const std::string& ranges = "") {
        Send(method + " " + target + " HTTP/1.1\r\nHost: test\r\n" +
             (ranges.empty() ? "" : "Range: bytes=" + ranges + "\r\n") + "\r\n");
    }

    ClientReply Ask(const std::string& method, const std::string& target,
                    const std::string& ranges = "") {
        SendRequest(method, target, ranges);
        return Read(method != "HEAD");
    }

    /// One reply: head, and as much body as it announces; without a length all up to the end.
    ClientReply Read(bool hasBody = true) {
        ClientReply reply;
        size_t wanted = SIZE_MAX;
        while (m_input.find("\r\n\r\n") == std::string::npos && Receive(&reply.end)) {
        }
        const size_t headEnd = m_input.find("\r\n\r\n");
        if (headEnd != std::string::npos) {
            reply.head = m_input.substr(0, headEnd + 4);
            m_input.erase(0, headEnd + 4);
            reply.status = std::atoi(reply.head.c_str() + sizeof "HTTP/1.1");
            const std::string length = reply.Header("Content-Length");
            wanted = !hasBody         ? 0
                     : length.empty() ? SIZE_MAX
                                      : std::strtoull(length.c_str(), nullptr, 10);
            while (m_input.size() < wanted && Receive(&reply.end)) {
            }
        }
        reply.body = m_input.substr(0, wanted);
        m_input.erase(0, reply.body.size());
        return reply;
    }

  private:
    bool Receive(std::string* pEnd) {
        char buffer[65536];
        const ssize_t n = recv(m_socket, buffer, sizeof buffer, 0);
        if (n > 0)
            m_input.append(buffer, static_cast<size_t>(n));
        else
            *pEnd = n == 0 ? "closed" : errno == EAGAIN ? "silent" : "reset";
        return n > 0;
    }

    int m_socket;
    std::string m_input;
};

}  // namespace opal::test
