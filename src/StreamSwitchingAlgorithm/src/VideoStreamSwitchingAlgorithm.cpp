#include "StreamSwitchingAlgorithm/src/VideoStreamSwitchingAlgorithm.h"

#include <algorithm>
#include <cmath>
#include <cstdarg>
#include <cstdio>
#include <limits>

#include "Common/Assert.h"
#include "Common/Clock.h"
#include "Common/SessionEventStream.h"
#include "Common/StreamingTuning.h"
#include "Common/logging/LogEvent.h"
#include "Common/logging/LogServer.h"
#include "Common/logging/Logger.h"
#include "StreamSwitchingAlgorithm/AlgorithmConfig.h"
#include "StreamingDemux/EBML/IClusterIndex.h"

namespace {

using Rule = opal::SwitchingRule;

/// More than this is never worth buffering, ms.
constexpr int kMaxUsefulBuffer = 16000;
/// Below this the buffer guard goes straight to the lowest level, ms: one cluster.
constexpr int kSpentBuffer = 2001;
/// The buffer guard is quiet for the first decisions after a restart, when the buffer is low
/// anyway.
constexpr int kGuardQuietCycles = 8;
/// Levels that the buffer guard gives up when the buffer is below its threshold.
constexpr double kGuardStep = 2.0;
/// Calculations that the test mode stays on a level.
constexpr int kCycleHold = 5;
/// Fewer clusters than this to wait for before playback may start.
constexpr size_t kStartClusters = 2;
constexpr size_t kTraceBufferSize = 1024;

const AlgorithmConfig& Config() {
    return AlgorithmConfig::Instance();
}

int64_t ClusterDuration() {
    return StreamingTuning::Instance().GetClusterDuration();
}

int ToInt(double value) {
    if (!(value > static_cast<double>(std::numeric_limits<int>::min())))
        return std::numeric_limits<int>::min();
    if (value >= static_cast<double>(std::numeric_limits<int>::max()))
        return std::numeric_limits<int>::max();
    return static_cast<int>(value);
}

/// Smallest number of bytes that an EBML number takes; 0 if none does.
int64_t EbmlLength(int64_t value) {
    for (int length = 1; length <= 8; ++length) {
        if (value < (int64_t{1} << (7 * length)) - 2)
            return length;
    }
    return 0;
}

const char* StateLabel(int state) {
    // The sixth label stands for a state beyond the table; people know it by the C library's words.
    static const char* const labels[] = {"buf ", "bw0 ", "bw  ", "exp0", "exp ", "(null)"};
    return labels[state];
}

}  // namespace

VideoStreamSwitchingAlgorithm::VideoStreamSwitchingAlgorithm()
    : m_logger(getLogger("opal.StreamSwitchingAlgorithm")) {}

void VideoStreamSwitchingAlgorithm::Reset() {
    m_currentLevel = 0;
    m_nominalLevel = 0;
    m_cycleCount = 0;
    m_playbackReady = false;
    m_bufferedMs = 0;
    m_downloadTimeMs = 0;
    m_downloadBytes = 0;
    m_nextClusterIndex = 0;
    m_dirty = true;
    m_requiredDelayMs = 0;
    m_reservedBandwidth = 0;
    m_levels.clear();
    m_decided = false;
    m_excessBufferMs = 0;
    m_bandwidth = 0;
    m_target = 0.0;
    m_candidate = 0.0;
    m_upCounter = 0;
    m_holdCounter = 0;
}

void VideoStreamSwitchingAlgorithm::StampStartTime() {
    m_startTime = opal::Now();
}

void VideoStreamSwitchingAlgorithm::AddLevel(const std::string& uri, int bitrate, int vbvSize) {
    LevelProperties level;
    level.maxRate = bitrate;
    level.size = vbvSize;
    if (level.maxRate > 0)
        level.delay = std::max(0, ToInt(static_cast<double>(level.size) /
                                        static_cast<double>(level.maxRate) * 1000.0));
    level.increment = level.delay != 0 ? 1000.0 / level.delay : 0.0;
    level.maxBuffer = static_cast<int>(
        std::min(int64_t{3} * level.delay, static_cast<int64_t>(kMaxUsefulBuffer)));
    level.threshold = level.delay / 2;
    level.uri = uri;
    Trace("level r:%4d s:%6d dly=%2d inc:%2.2lf max buf %2d th %d\n", level.maxRate / 1000,
          level.size / 1000, level.delay / 1000, level.increment, level.maxBuffer, level.threshold);
    m_levels.push_back(level);
    // Stable, as the manifest's sort is: levels of one bitrate stay in step with it.
    std::stable_sort(m_levels.begin(), m_levels.end(),
                     [](const LevelProperties& left, const LevelProperties& right) {
                         return left.maxRate < right.maxRate;
                     });
}

int VideoStreamSwitchingAlgorithm::GetCurrentLevel() {
    if (m_dirty)
        Calculate();
    const int count = static_cast<int>(m_levels.size());
    if (m_levels.empty() || m_currentLevel > count)
        return -1;
    return m_currentLevel;
}

std::string VideoStreamSwitchingAlgorithm::GetLevelURI(int level) {
    if (m_dirty)
        Calculate();
    if (level < 0 || level >= static_cast<int>(m_levels.size())) {
        Trace("ERROR: StreamSwitchingAlgorithm::uri: invalid level or no uri available\n");
        return "unknown";
    }
    return m_levels[static_cast<size_t>(level)].uri;
}

void VideoStreamSwitchingAlgorithm::SetBandwidth(int bandwidth) {
    m_bandwidth = std::max(0, bandwidth);
}

void VideoStreamSwitchingAlgorithm::SetReservedBandwidth(int bandwidth) {
    m_reservedBandwidth = std::max(0, bandwidth);
}

void VideoStreamSwitchingAlgorithm::SetDownloadResult(int bytes, int timeMs, int bufferedMs,
                                                      int clusterIndex) {
    m_downloadBytes = std::max(0, bytes);
    m_downloadTimeMs = std::max(0, timeMs);
    m_bufferedMs = std::max(0, bufferedMs);
    m_nextClusterIndex = clusterIndex;
}

int VideoStreamSwitchingAlgorithm::GetExcessBuffer() {
    if (m_dirty)
        Calculate();
    return m_excessBufferMs;
}

/// The best level strictly below the bandwidth. Level 0 is what remains, so it is never tested.
int VideoStreamSwitchingAlgorithm::LevelForBandwidth(int bandwidth) const {
    int level = static_cast<int>(m_levels.size()) - 1;
    while (level > 0 && m_levels[static_cast<size_t>(level)].maxRate >= bandwidth)
        --level;
    return std::clamp(level, LowestUsableLevel(), static_cast<int>(m_levels.size()));
}

/// The lowest level with a positive bitrate; a manifest can hold others, and they sort first. The
/// count of levels if there is none.
int VideoStreamSwitchingAlgorithm::LowestUsableLevel() const {
    const auto usable =
        std::find_if(m_levels.begin(), m_levels.end(),
                     [](const LevelProperties& level) { return level.maxRate > 0; });
    return static_cast<int>(usable - m_levels.begin());
}

bool VideoStreamSwitchingAlgorithm::HasUsableLevel() const {
    return LowestUsableLevel() < static_cast<int>(m_levels.size());
}

double VideoStreamSwitchingAlgorithm::ClampTarget(double target) const {
    const double lowest = LowestUsableLevel();
    const double highest = static_cast<double>(m_levels.size()) - 1.0;
    return std::max(lowest, std::min(target, highest));
}

bool VideoStreamSwitchingAlgorithm::HasClusterIndexes() const {
    return m_clusterIndexes && !m_clusterIndexes->empty();
}

const IClusterIndex* VideoStreamSwitchingAlgorithm::ClusterIndexOf(size_t level) const {
    return m_clusterIndexes && level < m_clusterIndexes->size() ? (*m_clusterIndexes)[level]
                                                                : nullptr;
}

void VideoStreamSwitchingAlgorithm::Calculate() {
    const int from = m_decided ? m_currentLevel : -1;
    if (!HasUsableLevel()) {
        // No rate to choose by: the lowest level it is, for good, and playback need not wait.
        m_currentLevel = 0;
        m_decided = !m_levels.empty();
        m_dirty = false;
        TellDecision(Decision(), from);
        return;
    }
    m_currentLevel =
        std::clamp(m_currentLevel, LowestUsableLevel(), static_cast<int>(m_levels.size()) - 1);
    Decision decision = BeginDecision();
    if (m_decided)
        DecideNext(decision);
    else
        DecideFirst(decision);
    TellDecision(decision, from);
}

VideoStreamSwitchingAlgorithm::Decision VideoStreamSwitchingAlgorithm::BeginDecision() {
    Decision decision;
    decision.available =
        std::max(0.0, static_cast<double>(m_bandwidth) - static_cast<double>(m_reservedBandwidth));
    decision.guarded =
        std::max(0.0, (1.0 - Config().GetUpperGuardTrigger() / 100.0) * decision.available);
    decision.level = m_levels[static_cast<size_t>(m_currentLevel)];
    UpdateExcessBuffer();
    m_requiredDelayMs = decision.level.delay;
    for (int level = 0; level < m_currentLevel; ++level)
        m_requiredDelayMs = std::max(m_requiredDelayMs, m_levels[static_cast<size_t>(level)].delay);
    OPAL_ASSERT(decision.level.maxRate != 0, "levelProp.maxRate");
    return decision;
}

/// The level below the best fit of what is relied on; the time that start-up already cost takes its
/// share of that, linearly down to nothing at the switch period. Then the quick start's drop.
void VideoStreamSwitchingAlgorithm::DecideFirst(Decision& decision) {
    double budget = decision.guarded;
    if (m_startupDelayMs != 0) {
        const int64_t period = StreamingTuning::Instance().GetSwitchPeriod();
        const int64_t delay = std::clamp(m_startupDelayMs, int64_t{0}, period);
        budget =
            static_cast<double>(period - delay) * decision.guarded / static_cast<double>(period);
    }
    m_currentLevel = std::max(LowestUsableLevel(), LevelForBandwidth(ToInt(budget)) - 1);
    m_target = m_currentLevel;
    if (!Config().GetDisableQuickstart()) {
        m_nominalLevel = m_currentLevel;
        m_target = ClampTarget(m_target - Config().GetMaxLevelDrop());
        m_currentLevel = ToInt(m_target);
    }
    decision.state = kBandwidthKept;
    decision.rule = Rule::Start;
    UpdateExcessBuffer();
    m_decided = true;
    TraceDecision(decision);
    // The object stays dirty, deliberately: the next query runs a normal cycle at once.
}

void VideoStreamSwitchingAlgorithm::DecideNext(Decision& decision) {
    // A quick start keeps to the lowest level until there is an index to go by.
    if (!Config().GetDisableQuickstart() && !HasClusterIndexes()) {
        m_currentLevel = LowestUsableLevel();
        m_dirty = false;
        decision.rule = Rule::QuickStart;
        return;
    }
    UpdateExcessBuffer();
    ++m_cycleCount;
    if (Config().GetAlgorithmCycle()) {
        decision.rule = Rule::Cycle;
        CycleThroughLevels();
        return;
    }

    const int64_t holdTime = HoldTime();
    decision.heldMs = holdTime;
    if (m_bandwidth == 0)
        Explore(decision);
    else
        FollowBandwidth(decision);
    GuardBuffer(decision, holdTime);
    m_target = ClampTarget(m_target);
    if (decision.adjusted || decision.switching) {
        m_currentLevel = ToInt(m_target);
        m_nominalLevel = m_currentLevel;
    }
    m_dirty = false;
    TraceDecision(decision);
}

/// A test mode: all levels in turn. The object stays dirty, so each query counts.
void VideoStreamSwitchingAlgorithm::CycleThroughLevels() {
    if (++m_holdCounter <= kCycleHold)
        return;
    m_holdCounter = 0;
    const int highest = static_cast<int>(m_levels.size()) - 1;
    m_currentLevel = m_currentLevel >= highest ? LowestUsableLevel() : m_currentLevel + 1;
}

/// Without an estimate: one level up when downloads keep coming more than twice as fast as real
/// time and the buffer covers the current level's delay.
void VideoStreamSwitchingAlgorithm::Explore(Decision& decision) {
    const bool fast = m_downloadTimeMs >= 1 && 2.0 * m_downloadTimeMs < PlayableMs(decision);
    decision.rule = fast ? Rule::ExploringKept : Rule::Waiting;
    if (!fast) {
        m_upCounter = 0;
        m_holdCounter = 0;
        return;
    }
    decision.state = kExploring;
    const int64_t fastFor = (int64_t{m_upCounter} + 1) * ClusterDuration();
    if (fastFor >= Config().GetMinPeriodUpSwitch(m_mode) && m_bufferedMs > decision.level.delay) {
        decision.state = kExploringSwitch;
        decision.rule = Rule::ExploringUp;
        m_target = std::trunc(m_target + 1.0);
        decision.switching = true;
    }
    ++m_upCounter;  // also after a switch: it is not cleared
    m_holdCounter = 0;
}

void VideoStreamSwitchingAlgorithm::FollowBandwidth(Decision& decision) {
    decision.state = kBandwidthKept;
    decision.rule = Rule::BandwidthKept;
    m_target = std::trunc(m_target);
    m_candidate = m_target;
    const int guardedLevel = LevelForBandwidth(ToInt(decision.guarded));
    const bool levelTooHigh = LevelForBandwidth(ToInt(decision.available)) < m_target;
    if (levelTooHigh || m_target < guardedLevel)
        m_candidate = guardedLevel;
    m_upCounter = 0;

    const int64_t holdTime = HoldTime();
    const bool down = m_candidate < m_target && MayStepDown(holdTime);
    const bool up = m_candidate > m_target && MayStepUp(decision, ToInt(m_candidate), holdTime);
    if (down || up) {
        decision.state = kBandwidthSwitch;
        decision.rule = down ? Rule::BandwidthDown : Rule::BandwidthUp;
        m_target = m_candidate;
        decision.switching = true;
    }
    m_holdCounter = decision.switching ? 0 : m_holdCounter + 1;
}

/// A buffer of minBufferedToEnterAgile or more holds the level up for as long as it lasts.
bool VideoStreamSwitchingAlgorithm::MayStepDown(int64_t holdTime) const {
    return holdTime >= Config().GetMinPeriodDownSwitch(m_mode) &&
           m_bufferedMs < Config().GetMinBufferedToEnterAgile();
}

/// The buffer must cover the delay and every index that has to be fetched on the way up.
bool VideoStreamSwitchingAlgorithm::MayStepUp(const Decision& decision, int candidate,
                                              int64_t holdTime) const {
    const int64_t extra = MissingIndexTime(decision.available, candidate);
    return holdTime >= Config().GetMinPeriodUpSwitch(m_mode) &&
           decision.level.delay + extra < m_bufferedMs;
}

/// Time to fetch the indexes that are missing up to `candidate`, ms. The cluster count comes from
/// the nearest index below that is there.
int64_t VideoStreamSwitchingAlgorithm::MissingIndexTime(double available, int candidate) const {
    if (Config().GetDisableQuickstart() || !m_clusterIndexes)
        return 0;
    int64_t extra = 0;
    size_t clusters = 0;
    for (size_t level = 0; level <= static_cast<size_t>(candidate); ++level) {
        if (const IClusterIndex* index = ClusterIndexOf(level)) {
            clusters = index->GetCount();
        } else if (clusters != 0) {
            const auto bits =
                static_cast<double>(IndexDownloadBytes(m_levels[level].maxRate, clusters) * 8);
            extra += ToInt(bits * 1000.0 / available);
        }
    }
    return extra;
}

int64_t VideoStreamSwitchingAlgorithm::IndexDownloadBytes(int rate, size_t clusters) {
    constexpr int64_t kClusterMs = 2000;
    constexpr int64_t kCuePointOverhead = 10;
    const int64_t clusterBytes = int64_t{rate} * 2 / 8;
    int64_t offset = 0;
    int64_t time = 0;
    int64_t bytes = 0;
    for (size_t i = 0; i < clusters; ++i) {
        offset += clusterBytes;
        time += kClusterMs;
        bytes += EbmlLength(offset) + EbmlLength(time) + kCuePointOverhead;
    }
    return bytes;
}

void VideoStreamSwitchingAlgorithm::GuardBuffer(Decision& decision, int64_t holdTime) {
    if (!m_playbackReady || holdTime < Config().GetMinPeriodDownSwitch(m_mode) ||
        m_cycleCount <= kGuardQuietCycles)
        return;
    if (m_bufferedMs <= decision.level.threshold) {
        decision.adjusted = true;
        decision.rule = Rule::BufferLow;
        m_target -= kGuardStep;
    }
    if (m_bufferedMs < kSpentBuffer) {
        decision.adjusted = true;
        decision.rule = Rule::BufferSpent;
        m_target = 0.0;
    }
}

void VideoStreamSwitchingAlgorithm::UpdateExcessBuffer() {
    const int maxBuffer = m_levels[static_cast<size_t>(m_currentLevel)].maxBuffer;
    m_excessBufferMs = m_bufferedMs > maxBuffer ? m_bufferedMs - maxBuffer : 0;
}

/// How much play the last download brought, ms.
double VideoStreamSwitchingAlgorithm::PlayableMs(const Decision& decision) const {
    const double rate =
        static_cast<double>(decision.level.maxRate) + static_cast<double>(m_reservedBandwidth);
    return rate == 0.0 ? 0.0 : m_downloadBytes * 1000.0 * 8.0 / rate;
}

/// How long the level has been held, this cycle included, ms.
int64_t VideoStreamSwitchingAlgorithm::HoldTime() const {
    return (int64_t{m_holdCounter} + 1) * ClusterDuration();
}

bool VideoStreamSwitchingAlgorithm::IsVideoBuffered() {
    if (m_dirty)
        Calculate();
    m_playbackReady = false;
    if (!m_decided)
        return false;
    if (m_bufferedMs >= m_requiredDelayMs) {
        m_playbackReady = true;
    } else if (!Config().GetDisableQuickstart() && m_bufferedMs > 0) {
        size_t count = 0;
        const int result = PlayableClusters(StartThroughput(), int64_t{m_nextClusterIndex} + 1,
                                            m_currentLevel, count);
        m_playbackReady = result == 0 && count < kStartClusters;
    }
    return m_playbackReady;
}

/// Without an estimate the nominal level's rate and the guard on top of it stand for the link.
double VideoStreamSwitchingAlgorithm::StartThroughput() const {
    if (m_bandwidth != 0)
        return static_cast<double>(m_bandwidth) - static_cast<double>(m_reservedBandwidth);
    const auto level =
        static_cast<size_t>(std::clamp(m_nominalLevel, 0, static_cast<int>(m_levels.size()) - 1));
    const double rate = m_levels[level].maxRate;
    return rate + Config().GetUpperGuardTrigger() / 100.0 * rate;
}

/// How many clusters must arrive before the rest of the buffer can be fetched while playing: each
/// cluster earns its playing time and costs its download time, until the credit covers what is
/// still missing. 0 with `count` set; -2 without an index for the level, or without a throughput to
/// go by.
int VideoStreamSwitchingAlgorithm::PlayableClusters(double throughput, int64_t startCluster,
                                                    int level, size_t& count) const {
    const IClusterIndex* index = level >= 0 ? ClusterIndexOf(static_cast<size_t>(level)) : nullptr;
    if (!index || throughput <= 0.0)
        return -2;
    if (level >= static_cast<int>(m_levels.size()))
        return 0;
    const auto sizeOf = [index](int64_t cluster) {
        return cluster < 0 ? 0.0
                           : static_cast<double>(index->GetSize(static_cast<size_t>(cluster)));
    };
    const auto clusterDuration = static_cast<double>(ClusterDuration());
    const auto missing = static_cast<int64_t>(
        std::ceil((static_cast<double>(m_requiredDelayMs) - m_bufferedMs) / clusterDuration));
    const auto clusters = static_cast<int64_t>(index->GetCount());
    double need = 0.0;  // clusters beyond the end have no size
    for (int64_t cluster = startCluster; cluster < std::min(startCluster + missing, clusters);
         ++cluster)
        need += sizeOf(cluster);

    const int64_t last = clusters - missing;
    double credit = 0.0;
    count = 0;
    for (int64_t cluster = startCluster;; ++cluster) {
        credit += clusterDuration / 1000.0 - sizeOf(cluster) * 8 / throughput;
        ++count;
        if (cluster >= last || need * 8 <= credit * throughput)
            return 0;
    }
}

void VideoStreamSwitchingAlgorithm::Restart() {
    m_playbackReady = false;
    m_bufferedMs = 0;
    m_dirty = true;
    if (Config().GetDisableQuickstart() || !HasUsableLevel())
        return;
    const int from = m_currentLevel;
    m_nominalLevel = ToInt(m_target);
    m_target = ClampTarget(m_target - Config().GetMaxLevelDrop());
    m_currentLevel = ToInt(m_target);
    m_cycleCount = 0;
    if (from == m_currentLevel)
        return;
    Decision decision;
    decision.rule = Rule::Restart;
    TellDecision(decision, from);
}

/// Tells the session's observer.
void VideoStreamSwitchingAlgorithm::TellDecision(const Decision& decision, int from) const {
    if (!opal::SessionEventStream::IsObserved())
        return;
    opal::DecisionEvent event;
    event.rule = decision.rule;
    event.from = from;
    event.to = m_currentLevel;
    event.cluster = m_nextClusterIndex;
    event.bandwidth = m_bandwidth;
    event.reservedBandwidth = m_reservedBandwidth;
    event.available = decision.available;
    event.guarded = decision.guarded;
    event.target = m_target;
    event.candidate = m_candidate;
    event.bufferedMs = m_bufferedMs;
    event.requiredMs = m_requiredDelayMs;
    event.guardMs = decision.level.threshold;
    event.heldMs = decision.heldMs;
    event.downloadBytes = m_downloadBytes;
    event.downloadMs = m_downloadTimeMs;
    event.mode = m_mode;
    opal::SessionEventStream::Tell(std::move(event));
}

void VideoStreamSwitchingAlgorithm::TraceDecision(const Decision& decision) {
    const double lastRate =
        m_downloadTimeMs == 0 ? 0.0 : m_downloadBytes * 8000.0 / m_downloadTimeMs;
    const auto compose = [&](char* out, size_t size) {
        return std::snprintf(
            out, size,
            "%2.1lf) %s [%4d] (%6.0lf-%6.0lf) wt:%2d dly %2d bf:%3d bw c:%5d m:%5.0lf t:%4d  "
            "(res:%4d) %s %s M:%d ts:%8lld",
            m_target, StateLabel(decision.state),
            m_levels[static_cast<size_t>(m_currentLevel)].maxRate / 1000, decision.guarded / 1000.0,
            decision.available / 1000.0, m_excessBufferMs / 1000, m_requiredDelayMs / 1000,
            m_bufferedMs / 1000, m_bandwidth / 1000, lastRate / 1000.0, m_downloadTimeMs,
            m_reservedBandwidth / 1000, decision.adjusted ? "adj" : "", "not probe", m_mode,
            static_cast<long long>(opal::ToMilliseconds(opal::Now() - m_startTime)));
    };
    const int length = compose(nullptr, 0);
    if (length < 0)
        return;
    std::vector<char> line(static_cast<size_t>(length) + 1);
    compose(line.data(), line.size());
    Trace("%s", line.data());
}

void VideoStreamSwitchingAlgorithm::Trace(const char* format, ...) {
    char text[kTraceBufferSize];
    va_list arguments;
    va_start(arguments, format);
    std::vsnprintf(text, sizeof(text), format, arguments);
    va_end(arguments);
    LogServer::Instance().PostOrDestroy(LogEventFactory::Instance().NewTraceLogEvent(text));
    LOG4CXX_TRACE(m_logger, text);
}
