#pragma once

#include <array>
#include <boost/shared_ptr.hpp>
#include <cstdint>
#include <vector>

#include "Common/SessionEventStream.h"
#include "StreamSwitchingAlgorithm/StreamSwitchingNotify.h"

class IAudioTrack;
class IClusterIndex;
class IVideoLevel;

/// Tells the session's observer what a switching controller is asked and told, so that another one
/// can be made to decide the same.
///
/// Threading: none; under the switching controller's lock.
class SwitchingCalls {
  public:
    SwitchingCalls() { m_lastAnswers.fill(kNoAnswer); }

    using Event = opal::SwitchingCallEvent;
    using Kind = Event::Kind;
    using Levels = std::vector<boost::shared_ptr<IVideoLevel>>;
    using AudioTracks = std::vector<boost::shared_ptr<IAudioTrack>>;

    static bool AreObserved() { return opal::SessionEventStream::IsObserved(); }

    void TellLevels(const Levels& levels, const AudioTracks& audioTracks);
    void TellSetter(Kind kind, int64_t value);
    void TellIndexes(const std::vector<IClusterIndex*>* indexes);
    void TellDownload(OPALStreamType type, const StreamSwitchingNotify::Message& message);
    void TellRestart(OPALStreamType type, bool invalidates);
    /// Before a question is answered, since the time counts; TellAnswer tells it.
    static Event Question(Kind kind);
    /// `decides`: the answer took a decision. A question whose answer can only be the last one's is
    /// not told.
    void TellAnswer(Event&& question, int64_t answer, bool decides);

  private:
    Event Begin(Kind kind);
    void Tell(Event&& event);
    uint64_t OpenIndexes();

    static constexpr int64_t kNoAnswer = INT64_MIN;

    const std::vector<IClusterIndex*>* m_indexes = nullptr;
    uint64_t m_openIndexes = 0;
    std::array<int64_t, 16> m_lastAnswers{};  ///< by kind; kNoAnswer: something has changed since
};
