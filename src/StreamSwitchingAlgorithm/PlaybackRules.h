#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>

#include "Common/InitialBandwidthMode.h"

class IStreamSwitchingController;

/// The rules of a session: where it starts, when it may play, when it has run dry, how far audio
/// may run ahead. Figures go in, an answer comes out; nothing here knows where the figures come
/// from. The streaming controller and the simulator both ask here, so that a simulated session is
/// the shipped one.
///
/// Threading: plain functions without state. Units: milliseconds, bytes, bits per second.
namespace opal::playback {

/// A turn of the event loop; it handles one message.
constexpr int64_t kTurnMs = 10;
/// Capacities of the cluster buffers; subtitles have as much as audio.
constexpr size_t kVideoBufferBytes = 0xC00000;
constexpr size_t kAudioBufferBytes = 384000;
/// Below this much buffered video, playback stops until the buffers are ready again.
constexpr int64_t kUnderflowMs = 501;
/// Audio that is further ahead of video than this is not fetched.
constexpr int64_t kMostAudioAheadMs = 5000;

/// What the switching controller's level means for a film of `levelCount` levels: the lowest where
/// it has none to give, never above the highest.
size_t LevelOf(int wanted, size_t levelCount);

/// The bandwidth that a probe's download of `bytes` in `ms` shows; 0 for one of no duration.
/// Negative figures count as 0, and what an int cannot hold as the largest int.
int ProbedBandwidth(int64_t bytes, int64_t ms);

struct StartDecision {
    InitialBandwidthMode mode = InitialBandwidthMode_LowestLevel;
    bool probeFailed = false;
    size_t level = 0;
    int64_t startupMs = 0;  ///< what the start had taken when the level was chosen; 0: not asked
};

/// Chooses the level that a session starts on, by the switching controller's mode:
///
///  - probe: one below what the measured bandwidth justified; the lowest if the probe failed, which
///    is no error of the start;
///  - hint: what the configured bandwidth justifies;
///  - lowest: what the switching controller says without any bandwidth.
///
/// The switching controller is asked for its level exactly once: its first decision counts as the
/// one that it starts from, and the next question would be answered as a later one.
///
/// `levelCount`: of the manifest. `probe` measures, gives what it finds to
/// IStreamSwitchingController::SetBandwidth, and says whether it could. `elapsedMs` tells the time
/// since the start began, now; negative counts as 0 (the wall clock may be set back).
StartDecision ChooseStart(IStreamSwitchingController& switching, size_t levelCount,
                          const std::function<bool()>& probe,
                          const std::function<int64_t()>& elapsedMs);

/// Whether playback at 1x may begin, or go on after it ran dry. `videoBuffered` and
/// `audioBuffered`: the switching controller's IsVideoBuffered and IsAudioBuffered. `hasAudio`: the
/// manifest lists audio. `videoAtEnd`: the video's reader has reached the end, so what is buffered
/// is all there will be.
bool IsReadyToPlay(bool videoBuffered, bool hasAudio, bool audioBuffered, bool videoAtEnd);

/// Whether playback at 1x, which goes on now, must stop for want of video. `bufferedVideoMs`:
/// buffer and writer together.
bool IsUnderflow(int64_t bufferedVideoMs, bool videoAtEnd);

/// Whether a new video cluster is the occasion to change the level: not before playback has begun,
/// not in trick play, and not with nothing left to fetch.
bool MaySwitchLevel(bool playing, bool normalRate, bool videoAtEnd);

/// Whether audio has to wait for video. Both durations: buffer and writer together.
bool IsAudioTooFarAhead(int64_t bufferedAudioMs, int64_t bufferedVideoMs);

}  // namespace opal::playback
