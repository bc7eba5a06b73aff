#pragma once

#include <condition_variable>
#include <cstdint>
#include <functional>
#include <map>
#include <mutex>
#include <string>
#include <utility>

#include "StreamingController/ISessionObserver.h"
#include "opal-play/NetworkFigures.h"
#include "recording/SessionRecords.h"

namespace opal::play {

/// Keeps the figures that the summary and the progress line need of what the session tells, and
/// hands every line of its recording on.
///
/// Threading: the library's observer thread calls the callbacks; the rest is for any thread.
class Observer : public ISessionObserver {
  public:
    /// Takes the lines of the recording; called from one thread at a time.
    using LineSink = std::function<void(const std::string& line)>;

    /// Before the session begins. `source`: what is played, for the recording's first line.
    void Record(const std::string& source, LineSink sink);
    /// A record of the player's own, at the present time.
    void Add(recording::Record record);

    NetworkFigures Figures() const;
    LiveFigures Live() const;
    /// The last media file that failed. Waits a moment, as the session's error with `code` may be
    /// known before what is told of it has come through.
    MediaFailure FailureBehind(OPALError code);

    void OnRequest(const RequestEvent& event) override;
    void OnDecision(const DecisionEvent& event) override;
    void OnSwitchingCall(const SwitchingCallEvent& event) override;
    void OnLevelIndex(const LevelIndexEvent& event) override;
    void OnBuffers(const BufferEvent& event) override;
    void OnState(const StateEvent& event) override;
    void OnSink(const SinkEvent& event) override;
    void OnDropped(uint64_t total) override;

  private:
    void Write(const recording::Record& record);

    mutable std::mutex m_mutex;
    std::condition_variable m_failed;
    NetworkFigures m_figures;
    LiveFigures m_live;
    MediaFailure m_failure;
    std::map<std::pair<OPALStreamType, size_t>, std::string> m_urls;  ///< of media files in use
    OPALError m_error = OPAL_OK;

    std::mutex m_lineMutex;  ///< taken alone
    LineSink m_sink;
    int64_t m_startUs = 0;
};

}  // namespace opal::play
