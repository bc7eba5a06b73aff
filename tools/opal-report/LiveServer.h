#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>

namespace opal::report {

/// Serves the report of a session that still runs: the page at "/", which asks for the rows that
/// have come since (rows.json) and draws them.
///
/// To this machine alone: it listens on 127.0.0.1, answers GET, and only requests whose Host is
/// that address or "localhost", so that no page of another site reads along.
///
/// Threading: one thread of its own from Start() to Stop(). Append() and End() from any thread;
/// they wait for no network, at most for the reply that is being made.
///
/// Ownership and lifetime: the destructor stops.
///
/// Bounds: so many connections, so many rows of a kind (kMaxRows; the headline goes on beyond).
///
/// Errors: Start() alone can fail, and says why.
class LiveServer {
  public:
    static constexpr size_t kMaxRows = 50000;

    LiveServer();
    ~LiveServer();
    LiveServer(const LiveServer&) = delete;
    LiveServer& operator=(const LiveServer&) = delete;

    /// Port 0: any free one.
    [[nodiscard]] bool Start(uint16_t port, std::string* error);
    /// Lets go of all connections and joins the thread.
    void Stop();
    std::string Url() const;  ///< "http://127.0.0.1:PORT/"; empty while stopped

    /// A line of the recording, without its end; the first is the header. What is none is skipped.
    void Append(std::string_view line);
    /// No more lines will come: pages stop asking.
    void End();

  private:
    class Impl;
    std::unique_ptr<Impl> m_impl;
};

}  // namespace opal::report
