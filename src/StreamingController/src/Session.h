#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <vector>

#include "Common/Clock.h"
#include "StreamSwitchingAlgorithm/AbandonRule.h"
#include "StreamingController/StreamingController.h"
#include "StreamingController/src/AudioRoad.h"
#include "StreamingController/src/SessionObjects.h"
#include "StreamingController/src/SessionReports.h"
#include "StreamingController/src/StreamPipe.h"
#include "StreamingController/src/SubtitleRoad.h"
#include "StreamingController/src/TicketSession.h"

/// The parts beside the shell, and what the session remembers between messages; under the
/// controller's m_mutex unless a field is atomic or a part says otherwise. The compiler checks the
/// controller's operations that lead here; it has no name for that lock in these parts.
struct StreamingController::Session {
    /// How far a change of level has come.
    struct LevelSwitch {
        enum class State {
            None,
            WaitsForTransfer,  ///< the one that runs; then the decision is asked again
            GivesUpTransfer,   ///< `level` is where to go on when it has ended
            Opens              ///< the current level; `level` is the one that was left
        };
        State state = State::None;
        size_t level = kNone;
        size_t cluster = 0;  ///< whose transfer is given up

        bool Is(State asked) const { return state == asked; }
        bool Waits() const { return Is(State::WaitsForTransfer); }
        /// A jump or a stop: whatever waits for a transfer is void. A level is opened all the same.
        void EndWaiting() {
            if (!Is(State::Opens))
                *this = LevelSwitch();
        }
    };

    explicit Session(StreamingController& controller);
    /// Back to what it is before a session.
    void Reset();

    /// An operation that starts playback was accepted: a stop from before it no longer holds.
    void AcceptStart();
    OPALError StartReaders();
    /// Picks the decision of the switching controller up. -7: a transfer runs, and the switch waits
    /// for its end. With `giveUpOpening` nothing is waited for.
    OPALError SwitchLevel(bool giveUpOpening);
    /// With the setting abandonTransfers: cancels a video transfer that outlasts the buffer, and
    /// goes on at the level that comes sooner.
    /// A transfer is chosen only while playback runs; what is begun is ended in any case.
    OPALError GiveUpSlowTransfer(bool playing);
    /// Posts what the service said of the play reports it refused.
    void PostPulseErrors();
    bool HasRoomForTrickCluster();
    void EndJump();
    void MarkStarted();
    /// Reports a switch whose level is open by now.
    void EndLevelSwitch();
    /// Where playback is. Behind a jump, until the sink's position has moved, that is where the
    /// jump leads.
    OPALError GetPosition(int64_t& ms);
    OPALError GetBufferingProgress(size_t& percent);
    /// Tells the observer now and then what is buffered and what the sinks have taken.
    void ObserveBuffers(bool playing);
    /// Empties the streams for a jump. `position` is where playback was.
    OPALError EmptyStreams(bool subtitlesFirst, int64_t& position);

    const opal::SessionReports reports;
    const opal::SessionObjects objects;
    opal::StreamPipe video;
    opal::StreamPipe audio;
    opal::StreamPipe subtitle;
    opal::AudioRoad audioRoad;
    opal::SubtitleRoad subtitles;
    opal::TicketSession ticket;

    /// Raised a while after the session's own: ends the last play report, which is to get through
    /// if it can.
    opal::StopSignal lastStop;
    /// Raised when the last events are there to be uploaded: the upload has from then on the time
    /// that its sender allows.
    opal::StopSignal logStop;
    /// Calls of Finalize under way.
    std::atomic<int> finalizing{0};
    /// Operations that open audio without m_mutex.
    std::atomic<int> audioOpeners{0};
    /// The audio track being opened was selected by message, so its end is reported.
    bool reportAudio = false;
    LevelSwitch levelSwitch;
    opal::playback::AbandonRule abandonRule;
    /// Playback has not been declared started since the last jump.
    bool jumpStarting = false;
    /// Stop was handled and nothing started since: what is still queued must not start a reader.
    bool stopRequested = false;
    /// Counts the accepted operations that start playback; the second is the count at the last
    /// Stop.
    size_t startSequence = 0;
    size_t stopSequence = 0;
    /// Buffers were emptied for a jump whose message is still queued: an empty buffer is no
    /// underflow.
    bool jumpPending = false;
    /// Where the last jump leads, until the sink's position has moved; below 0: nowhere.
    int64_t jumpTarget = -1;
    int64_t positionAtStart = 0;  ///< the sink's, when playback was declared started behind a jump
    /// Raised by a seek in trick play: clusters of the position before do not count as arrived.
    std::atomic<size_t> trickEpoch{0};

  private:
    /// When the observer was told what, last.
    struct Told {
        boost::posix_time::ptime buffers = opal::Now();
        boost::posix_time::ptime sinks = opal::Now();
        bool playing = false;
    };

    OPALError GoToLevel(size_t level);
    OPALError EndSlowTransfer();
    bool DescribeTransfer(opal::playback::AbandonRule::Transfer& transfer,
                          std::vector<int64_t>& clusterBytes);

    Told m_told;
};
