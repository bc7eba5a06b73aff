#pragma once

#include <cstdint>

/// The process-wide constants of streaming, built on first use and never changed afterwards.
///
/// Threading: read from any thread.
class StreamingTuning {
  public:
    static const StreamingTuning& Instance();

    /// Nominal duration of a cluster of a normal stream, ms.
    int64_t GetClusterDuration() const { return 2000; }
    /// Nominal duration of a cluster of a trick track, ms.
    int64_t GetTrickClusterDuration() const { return 6000; }
    /// What a download of the bandwidth probe has to exceed to count, ms.
    int64_t GetProbeDuration() const { return 1000; }
    /// First request size of the bandwidth probe, bytes.
    uint32_t GetProbeInitialSize() const { return 76800; }
    uint32_t GetProbeAttempts() const { return 3; }
    /// Growth of the probe's request when a download was too quick to measure, and its cap.
    double GetProbeFactor() const { return 15.0; }
    /// Seconds; of one connection and of one transfer.
    int64_t GetConnectionTimeout() const { return m_connectionTimeout; }
    int64_t GetTransferTimeout() const { return m_transferTimeout; }
    /// Start-up time after which no bandwidth is trusted any more for the first level, ms.
    int64_t GetSwitchPeriod() const { return 6000; }
    uint32_t GetSwitchBlockBytes() const { return 81920; }

    /// Pause between a reader manager's looks for something to fetch, ms.
    static constexpr int64_t GetReaderPoll() { return 20; }
    /// Of a file's index, fetched to learn how long it is; an EBML element's header has 16 at most.
    static constexpr int64_t GetIndexHeaderBytes() { return 18; }
    /// What a sink takes ahead of its position, ms.
    static constexpr uint32_t GetVideoSinkAhead() { return 2000; }
    static constexpr uint32_t GetAudioSinkAhead() { return 1000; }
    /// With no more than this left to play, a stream without more data has ended, ms.
    static constexpr int64_t GetEndOfStreamRest() { return 500; }

    /// For tests: other time-outs, in seconds. Not while a session runs.
    static void OverrideTimeouts(int64_t connectionSeconds, int64_t transferSeconds);

  private:
    static StreamingTuning& Mutable();

    int64_t m_connectionTimeout = 60;
    int64_t m_transferTimeout = 60;
};
