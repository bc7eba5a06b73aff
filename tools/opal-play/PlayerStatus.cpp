#include <algorithm>
#include <cstdlib>
#include <utility>

#include "TvSet.h"
#include "opal-play/MonotonicTime.h"
#include "opal-play/Player.h"
#include "opal-play/Rates.h"

// What the player shows of itself: state, position, progress, and what it was at the end.
namespace opal::play {

std::string Player::StateText() const {
    switch (m_state) {
        case State::Opening:
            return "opening";
        case State::Buffering:
            return "buffering";
        case State::Playing:
            return "playing";
        case State::Trick:
            return RateText(m_rate);
        case State::Paused:
            return "paused";
        case State::Stopped:
            return "stopped";
        case State::Ending:
            return "ending";
    }
    return "";
}

/// The library reports once a second. At 1x the picture on the screen tells more exactly, once one
/// came after the last jump; otherwise the position moves with the rate from the report on.
int64_t Player::PositionMs() const {
    if (m_state == State::Playing) {
        const tvset::Statistics set = tvset::GetStatistics();
        if (set.framesShown > m_place.picturesBefore)
            return set.shownPts;
    }
    if (!m_place.told || (m_state != State::Playing && m_state != State::Trick))
        return m_place.positionMs;
    const int64_t moved = (MonotonicMs() - m_place.atMs) * RateSpeed(m_rate);
    return std::clamp<int64_t>(m_place.positionMs + moved, 0,
                               std::max(m_durationMs, m_place.positionMs));
}

void Player::ShowProgress() {
    const int64_t now = MonotonicMs();
    if (now - m_lastProgressMs < m_console.ProgressIntervalMs())
        return;
    m_lastProgressMs = now;
    Status status;
    status.state = StateText();
    status.positionMs = PositionMs();
    status.durationMs = m_durationMs;
    status.level = m_level;
    status.levelCount = m_levels.size();
    if (m_level < m_levels.size())
        status.levelInfo = m_levels[m_level];
    if (m_opened)
        (void)m_controller->GetBufferedDuration(OPAL_STREAM_VIDEO, status.bufferedMs);
    const NetworkFigures network = m_observer.Figures();
    status.linkBitsPerSecond = network.linkBitsPerSecond;
    status.linkTooFast = network.IsTooFast();
    const int speed = RateSpeed(m_rate);
    if (m_opened && speed != 0)
        status.leftMs = std::max<int64_t>(
            (speed > 0 ? m_durationMs - status.positionMs : status.positionMs) / std::abs(speed),
            0);
    if (!m_options.stats)
        return m_console.Progress(ProgressText(status, m_console.ProgressWidth()));
    const tvset::Statistics set = tvset::GetStatistics();
    const std::string stats =
        StatsText(status, m_observer.Live(), set.framesShown, set.framesDropped);
    if (!tvset::SetStatusText(stats) && !std::exchange(m_statsRefused, true))
        m_console.Error("no figures over the picture: install fonts-dejavu-core");
    m_console.Progress(stats);
}

Summary Player::Summarise() const {
    const tvset::Statistics set = tvset::GetStatistics();
    Summary summary;
    summary.url = m_options.url;
    summary.outcome = m_outcome;
    summary.errors = m_errors;
    summary.startupMs = set.firstPictureMs < 0 ? -1 : set.firstPictureMs - m_startedMs;
    summary.positionMs = m_place.positionMs;
    summary.durationMs = m_durationMs;
    summary.realMs = m_endedMs - m_startedMs;
    summary.pace = m_pace.Value();
    summary.jumped = m_jumped;
    summary.stalledMs = m_viewing.StalledMs();
    summary.levels = m_levels;
    summary.watchedMs = m_viewing.WatchedMs();
    summary.videoUnits = set.videoUnitsPushed;
    summary.audioUnits = set.audioUnitsPushed;
    summary.lastShownMs = set.shownPts;
    summary.framesDecoded = set.framesDecoded;
    summary.framesShown = set.framesShown;
    summary.framesDropped = set.framesDropped;
    summary.decodeErrors = set.decodeErrors;
    summary.longestGapMs = m_snapshots.LongestGapMs();
    summary.gapEndMs = m_snapshots.GapEndMs();
    summary.audioPlayedMs = set.audioPlayedMs;
    summary.underflows = m_underflows;
    summary.levelChanges = m_levelChanges;
    summary.pull = m_options.pull;
    summary.pulledVideoBlocks = m_pull.VideoBlocks();
    summary.pulledAudioBlocks = m_pull.AudioBlocks();
    summary.network = m_observer.Figures();
    summary.snapshots = m_snapshots.Taken();
    for (const int64_t missing : m_snapshots.Missing())
        summary.errors.push_back("no snapshot of " + TimeText(missing) +
                                 ": that time was not shown at 1x");
    return summary;
}

}  // namespace opal::play
