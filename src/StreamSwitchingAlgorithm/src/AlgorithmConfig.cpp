#include "StreamSwitchingAlgorithm/AlgorithmConfig.h"

namespace {

constexpr int64_t kDayMs = 86400000;
/// A hint above one megabit is not believed.
constexpr int kMaxBandwidthHint = 1000000;

AlgorithmConfig::Global BuiltInGlobal() {
    AlgorithmConfig::Global global;
    global.initialBandwidthDecision = InitialBandwidthMode_BandwidthProbe;
    global.minBufferedToEnterAgile = 40000;
    return global;
}

AlgorithmConfig::Mode BuiltInMode(int64_t minPeriodUpSwitch) {
    AlgorithmConfig::Mode mode;
    mode.minPeriodUpSwitch = minPeriodUpSwitch;
    mode.spare = 4;
    return mode;
}

void RestoreIfAbove(int64_t& value, int64_t limit, int64_t fallback) {
    if (value > limit)
        value = fallback;
}

}  // namespace

AlgorithmConfig::AlgorithmConfig() {
    Reset();
}

AlgorithmConfig& AlgorithmConfig::Instance() {
    static AlgorithmConfig config;
    return config;
}

void AlgorithmConfig::Reset() {
    m_global = BuiltInGlobal();
    m_agile = BuiltInMode(4000);
    m_steady = BuiltInMode(20000);
    m_loaded = false;
}

OPALError AlgorithmConfig::Set(const Global& global, const Mode& agile, const Mode& steady) {
    m_global = global;
    m_agile = agile;
    m_steady = steady;

    const bool knownMode = m_global.initialBandwidthDecision >= InitialBandwidthMode_LowestLevel &&
                           m_global.initialBandwidthDecision <= InitialBandwidthMode_BandwidthHint;
    if (!knownMode)
        m_global.initialBandwidthDecision = InitialBandwidthMode_BandwidthProbe;
    if (m_global.initialBandwidthDecision == InitialBandwidthMode_BandwidthHint &&
        m_global.bandwidthHint > kMaxBandwidthHint)
        m_global.initialBandwidthDecision = InitialBandwidthMode_BandwidthProbe;
    RestoreIfAbove(m_global.maxSecondsInAgileMode, kDayMs, 120000);
    RestoreIfAbove(m_global.minSecondsInAgileMode, kDayMs, 15000);
    RestoreIfAbove(m_global.maxBufferFromEmpty, kDayMs, 16000);
    RestoreIfAbove(m_global.minBufferedToEnterAgile, kDayMs, 40000);
    if (m_global.upperGuardTrigger > 100)
        m_global.upperGuardTrigger = 15;
    if (m_global.bandwidthMonitorGapOrder != 1)
        m_global.bandwidthMonitorGapOrder = 0;
    RestoreIfAbove(m_agile.minPeriodUpSwitch, kDayMs, 4000);
    RestoreIfAbove(m_agile.minPeriodDownSwitch, kDayMs, 0);
    RestoreIfAbove(m_steady.minPeriodUpSwitch, kDayMs, 20000);
    RestoreIfAbove(m_steady.minPeriodDownSwitch, kDayMs, 0);
    m_loaded = true;
    return OPAL_OK;
}

bool AlgorithmConfig::IsLoaded() const {
    return m_loaded;
}

InitialBandwidthMode AlgorithmConfig::GetInitialBandwidthDecision() const {
    return m_global.initialBandwidthDecision;
}

int AlgorithmConfig::GetBandwidthHint() const {
    return m_global.bandwidthHint;
}

int64_t AlgorithmConfig::GetMaxSecondsInAgileMode() const {
    return m_global.maxSecondsInAgileMode;
}

int64_t AlgorithmConfig::GetMinSecondsInAgileMode() const {
    return m_global.minSecondsInAgileMode;
}

int64_t AlgorithmConfig::GetMaxBufferFromEmpty() const {
    return m_global.maxBufferFromEmpty;
}

int64_t AlgorithmConfig::GetMaxBuffer() const {
    return m_global.maxBuffer;
}

int64_t AlgorithmConfig::GetMinBufferedToEnterAgile() const {
    return m_global.minBufferedToEnterAgile;
}

int AlgorithmConfig::GetUpperGuardTrigger() const {
    return m_global.upperGuardTrigger;
}

bool AlgorithmConfig::GetAlgorithmCycle() const {
    return m_global.algorithmCycle;
}

bool AlgorithmConfig::GetDisableQuickstart() const {
    return m_global.disableQuickstart;
}

bool AlgorithmConfig::GetDisableSteadyState() const {
    return m_global.disableSteadyState;
}

int AlgorithmConfig::GetMaxLevelDrop() const {
    return m_global.maxLevelDrop;
}

int64_t AlgorithmConfig::GetBandwidthMonitorSampleCount() const {
    return m_global.bandwidthMonitorSampleCount;
}

int64_t AlgorithmConfig::GetBandwidthMonitorWindowInterval() const {
    return m_global.bandwidthMonitorWindowInterval;
}

int64_t AlgorithmConfig::GetBandwidthMonitorMinWindowInterval() const {
    return m_global.bandwidthMonitorMinWindowInterval;
}

int AlgorithmConfig::GetBandwidthMonitorGapOrder() const {
    return m_global.bandwidthMonitorGapOrder;
}

bool AlgorithmConfig::GetAbandonTransfers() const {
    return m_global.abandonTransfers;
}

int64_t AlgorithmConfig::GetMinPeriodUpSwitch(int mode) const {
    return mode == kAgile    ? m_agile.minPeriodUpSwitch
           : mode == kSteady ? m_steady.minPeriodUpSwitch
                             : 0;
}

int64_t AlgorithmConfig::GetMinPeriodDownSwitch(int mode) const {
    return mode == kAgile    ? m_agile.minPeriodDownSwitch
           : mode == kSteady ? m_steady.minPeriodDownSwitch
                             : 0;
}
