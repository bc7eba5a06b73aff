#pragma once

#include <cstdint>
#include <functional>
#include <string>

#include "opal-simulate/Link.h"
#include "recording/SessionRecords.h"

namespace opal::simulate {

/// The recording of a simulated session (docs/RECORDING.md): what the library's switching code
/// tells on the thread that plays, and what the simulator adds.
///
/// Threading: made, used and destroyed on the thread that plays the session; one at a time in the
/// process.
class SessionRecorder {
  public:
    using LineSink = std::function<void(const std::string& line)>;

    /// Writes the header, whose start is simulated time 0.
    SessionRecorder(recording::Header header, LineSink sink);
    ~SessionRecorder();
    SessionRecorder(const SessionRecorder&) = delete;
    SessionRecorder& operator=(const SessionRecorder&) = delete;

    /// At the present simulated time, unless the record has one.
    void Add(recording::Record record);
    /// An event was lost for want of memory; the next one is told behind that.
    void CountLost() noexcept { ++m_lost; }
    /// A transfer that has ended now, with what it had left; `offset` in its file.
    void AddRequest(const RequestLabel& label, const Transfer& transfer, int64_t offset,
                    RequestEnd end);
    /// A transfer of `received` bytes of a cluster is given up for another level.
    void AddSlowTransfer(size_t from, size_t to, size_t cluster, int64_t received,
                         int64_t bufferedMs);
    void AddState(SessionState state, size_t to = static_cast<size_t>(-1), int64_t valueMs = 0,
                  size_t from = static_cast<size_t>(-1));
    /// The link's rate, if it has changed.
    void AddLink(double bytesPerMs);

  private:
    const LineSink m_sink;
    int64_t m_startUs = 0;
    int64_t m_linkRate = -1;
    int64_t m_lost = 0;
    int64_t m_lostTold = 0;
};

}  // namespace opal::simulate
