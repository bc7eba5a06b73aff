#pragma once

#include <boost/noncopyable.hpp>
#include <cstdint>
#include <string>

#include "Common/InitialBandwidthMode.h"
#include "Common/OPALError.h"

/// Every tunable of stream switching, process-wide, built on first use with built-in values.
/// Readers read it at each use, so nothing caches a tunable.
///
/// Threading: written only while a controller initialises, before any reader runs; read afterwards
/// by any thread.
/// Units: milliseconds where a field is a time, else as the field says.
class AlgorithmConfig : boost::noncopyable {
  public:
    /// A plain record starts with what a file that omits a setting gets. That differs from the
    /// built-in values, deliberately: a file that names only some settings resets the others to
    /// these.
    struct Global {
        InitialBandwidthMode initialBandwidthDecision = InitialBandwidthMode_LowestLevel;
        int bandwidthHint = 0;                   ///< bits per second
        int64_t maxSecondsInAgileMode = 120000;  ///< agile mode ends after this at the latest
        int64_t minSecondsInAgileMode = 15000;   ///< at one level for longer: steady mode
        int64_t maxBufferFromEmpty = 16000;      ///< video buffer limit until the first report
        int64_t maxBuffer = -1;                  ///< video buffer limit then; below 1: none
        int64_t minBufferedToEnterAgile = 0;     ///< a buffer of this size holds the level up
        int upperGuardTrigger = 15;              ///< percent of the bandwidth not relied on
        bool algorithmCycle = false;             ///< test mode: rotate through the levels
        bool disableQuickstart = false;
        bool disableSteadyState = false;
        int maxLevelDrop = 3;  ///< levels given up for a quick start
        int64_t bandwidthMonitorSampleCount = 10;
        int64_t bandwidthMonitorWindowInterval = 4000;
        int64_t bandwidthMonitorMinWindowInterval = 1000;
        /// In which order the estimate looks for idle time: 0 as the downloads ended, 1 as they
        /// began. Only the latter counts no pause of one stream as idle while another one loaded.
        int bandwidthMonitorGapOrder = 0;
        bool abandonTransfers = false;  ///< give up a video transfer that outlasts the buffer
    };

    struct Mode {
        int64_t minPeriodUpSwitch = 0;
        int64_t minPeriodDownSwitch = 0;
        int spare = 0;  ///< not used by any reader
    };

    static constexpr int kAgile = 0;
    static constexpr int kSteady = 1;

    static AlgorithmConfig& Instance();

    /// Copies the records in, puts right what is out of bounds, and marks the values as loaded.
    OPALError Set(const Global& global, const Mode& agile, const Mode& steady);
    /// A source has set the values.
    bool IsLoaded() const;

    InitialBandwidthMode GetInitialBandwidthDecision() const;
    int GetBandwidthHint() const;
    int64_t GetMaxSecondsInAgileMode() const;
    int64_t GetMinSecondsInAgileMode() const;
    int64_t GetMaxBufferFromEmpty() const;
    int64_t GetMaxBuffer() const;
    int64_t GetMinBufferedToEnterAgile() const;
    int GetUpperGuardTrigger() const;
    bool GetAlgorithmCycle() const;
    bool GetDisableQuickstart() const;
    bool GetDisableSteadyState() const;
    int GetMaxLevelDrop() const;
    int64_t GetBandwidthMonitorSampleCount() const;
    int64_t GetBandwidthMonitorWindowInterval() const;
    int64_t GetBandwidthMonitorMinWindowInterval() const;
    int GetBandwidthMonitorGapOrder() const;
    bool GetAbandonTransfers() const;
    /// Of the record of `mode`; 0 for a mode that is neither.
    int64_t GetMinPeriodUpSwitch(int mode) const;
    int64_t GetMinPeriodDownSwitch(int mode) const;

    /// For tests and the simulator: back to the built-in values, not loaded.
    void Reset();

  private:
    AlgorithmConfig();

    Global m_global;
    Mode m_agile;
    Mode m_steady;
    bool m_loaded = false;
};

/// Reads "kmt_ssa_config.xml" and stores it through AlgorithmConfig::Set. False, with nothing
/// changed, if the file is not there or not right.
/// Errors: throws std::logic_error for a setting without text; the caller treats the file as not
/// loaded.
bool LoadConfigFile();
/// The same with the text of such a file.
bool LoadConfigText(const std::string& text);
