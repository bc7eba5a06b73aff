#pragma once

#include <cstddef>
#include <cstdint>
#include <list>
#include <string>
#include <vector>

namespace opal::simulate {

/// A bandwidth trace; it loops when it ends.
struct Trace {
    struct Piece {
        double durationMs = 0.0;
        double bytesPerMs = 0.0;
        double latencyMs = 0.0;
    };
    std::string name;
    std::vector<Piece> pieces;
};

/// Reads a JSON array of {"duration_ms", "bandwidth_kbps", "latency_ms"}.
/// Throws std::runtime_error that names the file and what is wrong.
Trace ReadTrace(const std::string& path);

/// A transfer over the link.
struct Transfer {
    double latencyMs = 0.0;
    double waitMs = 0.0;  ///< of the latency, what has still to pass before the first byte
    double bytes = 0.0;
    double bytesLeft = 0.0;
    double startMs = 0.0;
    bool active = false;

    bool IsDone() const { return active && waitMs <= 0.0 && bytesLeft <= 0.0; }
};

/// The link of a session: the bandwidth of a trace, shared evenly by the transfers that run.
///
/// Threading: none; one a session.
class Link {
  public:
    explicit Link(const Trace& trace);

    double NowMs() const { return m_nowMs; }
    double BytesPerMs() const { return m_trace.pieces[m_piece].bytesPerMs; }
    /// Starts a transfer of `bytes`, one latency from now.
    void Start(Transfer& transfer, double bytes);
    /// The transfer ends where it is.
    void Cancel(Transfer& transfer);
    /// Lets `ms` pass. Stops early, at the moment a transfer becomes done; returns what passed.
    double Advance(double ms);

  private:
    void EnterPieceOfTrace();

    const Trace& m_trace;
    size_t m_piece = 0;
    double m_pieceLeftMs = 0.0;
    double m_nowMs = 0.0;
    std::list<Transfer*> m_running;
};

}  // namespace opal::simulate
