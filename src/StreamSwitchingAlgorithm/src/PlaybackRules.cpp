#include "StreamSwitchingAlgorithm/PlaybackRules.h"

#include <algorithm>
#include <limits>

#include "StreamSwitchingAlgorithm/AlgorithmConfig.h"
#include "StreamSwitchingAlgorithm/IStreamSwitchingController.h"

namespace opal::playback {

size_t LevelOf(int wanted, size_t levelCount) {
    if (wanted < 0 || levelCount == 0)
        return 0;
    return std::min(static_cast<size_t>(wanted), levelCount - 1);
}

int ProbedBandwidth(int64_t bytes, int64_t ms) {
    if (bytes <= 0 || ms <= 0)
        return 0;
    const double bandwidth = static_cast<double>(bytes) * 8000.0 / static_cast<double>(ms);
    constexpr int kMost = std::numeric_limits<int>::max();
    return bandwidth < kMost ? static_cast<int>(bandwidth) : kMost;
}

StartDecision ChooseStart(IStreamSwitchingController& switching, size_t levelCount,
                          const std::function<bool()>& probe,
                          const std::function<int64_t()>& elapsedMs) {
    StartDecision start;
    start.mode = switching.GetInitialBandwidthMode();
    const bool probing = start.mode == InitialBandwidthMode_BandwidthProbe;
    if (probing && !probe()) {
        start.probeFailed = true;
        return start;
    }
    if (start.mode != InitialBandwidthMode_LowestLevel) {
        start.startupMs = std::max<int64_t>(0, elapsedMs());
        switching.SetStartupTime(start.startupMs);
    }
    if (start.mode == InitialBandwidthMode_BandwidthHint)
        switching.SetBandwidth(AlgorithmConfig::Instance().GetBandwidthHint());
    start.level = LevelOf(switching.GetCurrentLevel(), levelCount);
    if (probing && start.level > 0)
        --start.level;  // one below what the probe justified, deliberately
    return start;
}

bool IsReadyToPlay(bool videoBuffered, bool hasAudio, bool audioBuffered, bool videoAtEnd) {
    return (videoBuffered && (!hasAudio || audioBuffered)) || videoAtEnd;
}

bool IsUnderflow(int64_t bufferedVideoMs, bool videoAtEnd) {
    return bufferedVideoMs < kUnderflowMs && !videoAtEnd;
}

bool MaySwitchLevel(bool playing, bool normalRate, bool videoAtEnd) {
    return playing && normalRate && !videoAtEnd;
}

bool IsAudioTooFarAhead(int64_t bufferedAudioMs, int64_t bufferedVideoMs) {
    return bufferedAudioMs - bufferedVideoMs > kMostAudioAheadMs;
}

}  // namespace opal::playback
