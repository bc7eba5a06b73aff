#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

namespace opal::origin {

/// What a ScriptedServer does with one request.
struct ScriptedReply {
    enum class After { Keep, Close, Reset, Silence };

    std::string bytes;           ///< sent as they are, status line and all
    size_t pieceSize = 0;        ///< each piece goes out by itself, 1 ms apart; 0: all at once
    After after = After::Close;  ///< Keep: the next request; Silence: open, and nothing more
};

/// A raw TCP server for replies that no HTTP library would send: it reads a request's head, up to
/// the empty line, and sends the next reply of its list, one list for all connections in the order
/// in which their requests come. The last reply repeats. Bodies of requests are not understood.
///
/// Threading: one thread of its own from construction to destruction; operations from any thread.
///
/// Errors: no free port throws std::system_error from the constructor. A request's head beyond
/// 64 KiB closes its connection.
class ScriptedServer {
  public:
    explicit ScriptedServer(std::vector<ScriptedReply> replies);
    ~ScriptedServer();
    ScriptedServer(const ScriptedServer&) = delete;
    ScriptedServer& operator=(const ScriptedServer&) = delete;

    uint16_t Port() const;
    std::string Url(const std::string& path) const;

    std::vector<std::string> Requests() const;  ///< the heads read, in order
    size_t ConnectionsAccepted() const;
    [[nodiscard]] bool WaitForRequests(size_t n, int64_t timeoutMs);

  private:
    class Impl;
    std::unique_ptr<Impl> m_impl;
};

}  // namespace opal::origin
