#pragma once

#include <log4cxx/logger.h>

#include <boost/date_time/posix_time/posix_time_types.hpp>
#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "Common/SessionEvents.h"

class IClusterIndex;

/// What the decision knows of one video level.
struct LevelProperties {
    int maxRate = 0;         ///< the level's bitrate, bits per second
    int size = 0;            ///< the level's VBV size, bits
    int delay = 0;           ///< time to fill the VBV buffer at maxRate, ms
    double increment = 0.0;  ///< 1000 / delay
    int maxBuffer = 0;       ///< what is worth buffering: three times the delay, at most 16 s, ms
    int threshold = 0;       ///< below this the buffer guard acts: half the delay, ms
    std::string uri;
};

/// Decides which video level is fetched next.
///
/// It is told of each finished download (SetDownloadResult, SetBandwidth) and then marked dirty;
/// the next query decides. One decision, in order:
///
///  1. The bandwidth left for video is the estimate less what audio reserves (`available`), and the
///     part of it that is relied on is less by the upper guard (`guarded`, 15 % by default).
///  2. The very first decision takes the level below the best fit of the guarded bandwidth. It then
///     starts up to maxLevelDrop levels below even that, so that the picture comes soon and the
///     buffer fills faster than it plays (quick start). The level it gave up is the nominal level.
///  3. Later decisions go by the bandwidth. The level moves only if the full bandwidth no longer
///     carries it, or the guarded bandwidth would carry a better one: between the two lies the
///     hysteresis. Upward the buffer must cover the new level's delay and the indexes still to be
///     fetched; downward a large buffer holds the level up. Both wait for the mode's switching
///     period.
///  4. Without an estimate it explores: one level up when downloads have come more than twice as
///     fast as real time for long enough.
///  5. The buffer guard has the last word: a nearly empty buffer forces the level down, an almost
///     spent one to the lowest.
///
/// The target level is a real number, so that a step can be computed and clamped before it takes
/// effect. Two modes differ in their switching periods: agile (0), soon after a start, and steady
/// (1).
///
/// Threading: none; the switching controller's lock covers every call. It owns no thread and no
/// timer. Ownership: cluster indexes are not owned. Units: bits per second, milliseconds, bytes.
/// Negative values given to setters are stored as 0. Errors: a level whose bitrate is not positive
/// is never chosen while another one is there.
class VideoStreamSwitchingAlgorithm {
  public:
    VideoStreamSwitchingAlgorithm();
    virtual ~VideoStreamSwitchingAlgorithm() = default;

    /// Makes the decision. Nothing without levels.
    virtual void Calculate();
    /// Forgets levels, decisions and figures; mode, cluster indexes and start-up delay stay.
    virtual void Reset();

    void AddLevel(const std::string& uri, int bitrate, int vbvSize);
    /// -1 without levels.
    int GetCurrentLevel();
    /// "unknown" for a level that is not there.
    std::string GetLevelURI(int level);
    void SetBandwidth(int bandwidth);
    void SetReservedBandwidth(int bandwidth);
    void SetDownloadResult(int bytes, int timeMs, int bufferedMs, int clusterIndex);
    void Invalidate() { m_dirty = true; }
    /// The next question has a decision made.
    bool IsDirty() const { return m_dirty; }
    /// What is buffered above the current level's maxBuffer.
    int GetExcessBuffer();
    /// The greatest delay of the levels up to the current one; as of the last decision.
    void GetRequiredDelay(int& ms) const { ms = m_requiredDelayMs; }
    size_t GetLevelCount() const { return m_levels.size(); }
    /// Whether enough video is buffered for playback to start.
    bool IsVideoBuffered();
    /// The stream was interrupted: the buffer is empty, and a quick start is due again.
    void Restart();
    void SetMode(int mode) { m_mode = mode; }
    void SetStartupDelay(int64_t ms) { m_startupDelayMs = ms; }
    void SetClusterIndexes(const std::vector<IClusterIndex*>* indexes) {
        m_clusterIndexes = indexes;
    }
    /// Base of the trace's time column.
    void StampStartTime();

    /// What the index of a level of `rate` and `clusters` clusters of two seconds will cost to
    /// fetch.
    static int64_t IndexDownloadBytes(int rate, size_t clusters);

  private:
    /// State labels of the trace.
    enum TraceState : int {
        kBufferState = 0,
        kBandwidthKept = 1,
        kBandwidthSwitch = 2,
        kExploring = 4,
        kExploringSwitch = 5
    };

    /// One decision in the making.
    struct Decision {
        double available = 0.0;  ///< bandwidth for video
        double guarded = 0.0;    ///< the part of it that is relied on
        LevelProperties level;   ///< the current level
        TraceState state = kBufferState;
        bool switching = false;  ///< the bandwidth, or its exploration, asks for another level
        bool adjusted = false;   ///< the buffer guard does
        opal::SwitchingRule rule = opal::SwitchingRule::NoRates;
        int64_t heldMs = 0;
    };

    int LevelForBandwidth(int bandwidth) const;
    double ClampTarget(double target) const;
    int LowestUsableLevel() const;
    bool HasUsableLevel() const;
    bool HasClusterIndexes() const;
    const IClusterIndex* ClusterIndexOf(size_t level) const;

    Decision BeginDecision();
    void DecideFirst(Decision& decision);
    void DecideNext(Decision& decision);
    void CycleThroughLevels();
    void Explore(Decision& decision);
    void FollowBandwidth(Decision& decision);
    bool MayStepDown(int64_t holdTime) const;
    bool MayStepUp(const Decision& decision, int candidate, int64_t holdTime) const;
    int64_t MissingIndexTime(double available, int candidate) const;
    void GuardBuffer(Decision& decision, int64_t holdTime);
    void UpdateExcessBuffer();
    double PlayableMs(const Decision& decision) const;
    int64_t HoldTime() const;

    double StartThroughput() const;
    int PlayableClusters(double throughput, int64_t startCluster, int level, size_t& count) const;

    void TellDecision(const Decision& decision, int from) const;
    void TraceDecision(const Decision& decision);
    void Trace(const char* format, ...) __attribute__((format(printf, 2, 3)));

    log4cxx::LoggerPtr m_logger;
    int m_currentLevel = 0;
    int m_nominalLevel = 0;  ///< where the decision stood before a quick start's drop
    int m_cycleCount = 0;    ///< decisions since the last restart
    bool m_playbackReady = false;
    int m_bufferedMs = 0;
    int m_downloadTimeMs = 0;
    int m_downloadBytes = 0;
    int m_nextClusterIndex = 0;
    bool m_dirty = true;
    int m_requiredDelayMs = 0;
    int m_reservedBandwidth = 0;
    int m_mode = 0;
    std::vector<LevelProperties> m_levels;  ///< by ascending maxRate
    const std::vector<IClusterIndex*>* m_clusterIndexes = nullptr;
    bool m_decided = false;  ///< the first decision is made
    int m_excessBufferMs = 0;
    int m_bandwidth = 0;  ///< last estimate; 0 means none
    double m_target = 0.0;
    double m_candidate = 0.0;
    int m_upCounter = 0;    ///< cycles spent wishing to explore upward
    int m_holdCounter = 0;  ///< cycles since the last switch
    int64_t m_startupDelayMs = 0;
    boost::posix_time::ptime m_startTime;
};
