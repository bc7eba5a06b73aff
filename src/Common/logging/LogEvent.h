#pragma once

#include <boost/noncopyable.hpp>
#include <boost/property_tree/ptree_fwd.hpp>
#include <cstddef>
#include <cstdint>
#include <string>

#include "Common/InitialBandwidthMode.h"
#include "Common/MemoryBuffer.h"
#include "Common/OPALPlayRate.h"

class AlgorithmConfig;

/// One fact about a playback session that is reported to the log service.
///
/// Threading: owned by one thread at a time: made by the reporter, stamped and taken over by the
/// log server, written and destroyed on the log thread. Ownership: a heap object made by
/// LogEventFactory; whoever holds it last destroys it through LogEventFactory::Destroy. Units:
/// whole seconds.
class LogEvent : boost::noncopyable {
  public:
    /// Adds this event to `tree` as one more "action" child. The base writes "ts" only.
    virtual void Serialize(boost::property_tree::ptree& tree) const;
    /// Accounting units of this event.
    virtual size_t GetSize() const = 0;
    /// Level of detail: 1, 2 or 3.
    virtual uint8_t GetLevel() const { return m_level; }
    virtual ~LogEvent() = default;

    /// Seconds since the log server started; set by it.
    int64_t ts = 0;

  protected:
    explicit LogEvent(uint8_t level) : m_level(level) {}

  private:
    uint8_t m_level;
};

/// An event with an action name and nothing else of its own, or the base of those with fields.
class ActionLogEvent : public LogEvent {
  public:
    void Serialize(boost::property_tree::ptree& tree) const override;
    size_t GetSize() const override { return 4; }

  protected:
    ActionLogEvent(uint8_t level, const char* name) : LogEvent(level), m_name(name) {}
    /// Adds the event's own elements to the child named after it.
    virtual void SerializeFields(boost::property_tree::ptree& action) const;

    const char* const m_name;
};

/// An event that also tells at which media time it happened; "playback-time" comes last.
class PlayTimeLogEvent : public ActionLogEvent {
  public:
    void Serialize(boost::property_tree::ptree& tree) const override;

  protected:
    PlayTimeLogEvent(uint8_t level, const char* name, int64_t playbackTime)
        : ActionLogEvent(level, name), m_playbackTime(playbackTime) {}
    void SerializePlaybackTime(boost::property_tree::ptree& action) const;

  private:
    int64_t m_playbackTime;
};

/// Initialisation succeeded. `startupTime` in seconds.
class InitLogEvent : public ActionLogEvent {
  public:
    InitLogEvent(uint32_t major, uint32_t minor, uint32_t revision, uint32_t build,
                 const std::string& ticket, InitialBandwidthMode mode, int64_t startupTime);

  protected:
    void SerializeFields(boost::property_tree::ptree& action) const override;

  private:
    std::string m_version;
    std::string m_ticket;
    InitialBandwidthMode m_mode;
    int64_t m_startupTime;
};

/// Playback really started.
class PlayLogEvent : public ActionLogEvent {
  public:
    PlayLogEvent(uint32_t videoLevel, int64_t audioTrack, int64_t subtitleTrack);

  protected:
    void SerializeFields(boost::property_tree::ptree& action) const override;

  private:
    uint32_t m_videoLevel;
    int64_t m_audioTrack;
    int64_t m_subtitleTrack;
};

class SetAudioTrackLogEvent : public PlayTimeLogEvent {
  public:
    SetAudioTrackLogEvent(int64_t audioTrack, int64_t playbackTime);

  protected:
    void SerializeFields(boost::property_tree::ptree& action) const override;

  private:
    int64_t m_audioTrack;
};

class SetSubtitleTrackLogEvent : public PlayTimeLogEvent {
  public:
    SetSubtitleTrackLogEvent(int64_t subtitleTrack, int64_t playbackTime);

  protected:
    void SerializeFields(boost::property_tree::ptree& action) const override;

  private:
    int64_t m_subtitleTrack;
};

class SetPlayRateLogEvent : public PlayTimeLogEvent {
  public:
    SetPlayRateLogEvent(OPALPlayRate rate, int64_t playbackTime);

  protected:
    void SerializeFields(boost::property_tree::ptree& action) const override;

  private:
    OPALPlayRate m_rate;
};

class EndOfStreamLogEvent : public PlayTimeLogEvent {
  public:
    explicit EndOfStreamLogEvent(int64_t playbackTime) : PlayTimeLogEvent(2, "eos", playbackTime) {}
};

class TerminateLogEvent : public PlayTimeLogEvent {
  public:
    explicit TerminateLogEvent(int64_t playbackTime)
        : PlayTimeLogEvent(1, "terminate", playbackTime) {}
};

class ResumeLogEvent : public PlayTimeLogEvent {
  public:
    explicit ResumeLogEvent(int64_t playbackTime) : PlayTimeLogEvent(1, "resume", playbackTime) {}
};

class PauseDisplayLogEvent : public PlayTimeLogEvent {
  public:
    explicit PauseDisplayLogEvent(int64_t playbackTime)
        : PlayTimeLogEvent(1, "pause", playbackTime) {}
};

class StopDownloadLogEvent : public PlayTimeLogEvent {
  public:
    explicit StopDownloadLogEvent(int64_t playbackTime)
        : PlayTimeLogEvent(1, "stop", playbackTime) {}
};

/// `bandwidth` in bits per second.
class QualityLevelChangeLogEvent : public ActionLogEvent {
  public:
    QualityLevelChangeLogEvent(uint32_t newLevel, uint32_t oldLevel, int32_t bandwidth);

  protected:
    void SerializeFields(boost::property_tree::ptree& action) const override;

  private:
    uint32_t m_newLevel;
    uint32_t m_oldLevel;
    int32_t m_bandwidth;
};

class ErrorLogEvent : public ActionLogEvent {
  public:
    explicit ErrorLogEvent(int32_t errorCode);

  protected:
    void SerializeFields(boost::property_tree::ptree& action) const override;

  private:
    int32_t m_errorCode;
};

class UnderflowLogEvent : public PlayTimeLogEvent {
  public:
    UnderflowLogEvent(uint32_t currentLevel, int64_t playbackTime);

  protected:
    void SerializeFields(boost::property_tree::ptree& action) const override;

  private:
    uint32_t m_currentLevel;
};

/// Reads the configuration while it is written, so it shows the values of that moment.
class AlgorithmConfigLogEvent : public ActionLogEvent {
  public:
    explicit AlgorithmConfigLogEvent(const AlgorithmConfig* config);

  protected:
    void SerializeFields(boost::property_tree::ptree& action) const override;

  private:
    const AlgorithmConfig* m_config;
};

/// `mode`: 0 agile, 1 steady.
class AlgorithmModeChangeLogEvent : public ActionLogEvent {
  public:
    explicit AlgorithmModeChangeLogEvent(int mode);

  protected:
    void SerializeFields(boost::property_tree::ptree& action) const override;

  private:
    int m_mode;
};

class TraceLogEvent : public ActionLogEvent {
  public:
    explicit TraceLogEvent(const std::string& trace);

  protected:
    void SerializeFields(boost::property_tree::ptree& action) const override;

  private:
    std::string m_trace;
};

/// A failure that the content session told with a text; the text ends at its first NUL.
class PulseErrorLogEvent : public ActionLogEvent {
  public:
    PulseErrorLogEvent(int32_t errorCode, const qutl::MemoryBuffer<unsigned char>& message);

  protected:
    void SerializeFields(boost::property_tree::ptree& action) const override;

  private:
    int32_t m_errorCode;
    qutl::MemoryBuffer<unsigned char> m_message;
};

/// Makes and destroys log events. It has no state; any thread may use it.
class LogEventFactory : boost::noncopyable {
  public:
    static LogEventFactory& Instance();

    LogEvent* NewInitLogEvent(uint32_t major, uint32_t minor, uint32_t revision, uint32_t build,
                              const std::string& ticket, InitialBandwidthMode mode,
                              int64_t startupTime);
    LogEvent* NewPlayLogEvent(uint32_t videoLevel, int64_t audioTrack, int64_t subtitleTrack);
    LogEvent* NewSetAudioTrackLogEvent(int64_t audioTrack, int64_t playbackTime);
    LogEvent* NewSetSubtitleTrackLogEvent(int64_t subtitleTrack, int64_t playbackTime);
    LogEvent* NewSetPlayRateLogEvent(OPALPlayRate rate, int64_t playbackTime);
    LogEvent* NewEndOfStreamLogEvent(int64_t playbackTime);
    LogEvent* NewTerminateLogEvent(int64_t playbackTime);
    LogEvent* NewResumeLogEvent(int64_t playbackTime);
    LogEvent* NewPauseDisplayLogEvent(int64_t playbackTime);
    LogEvent* NewStopDownloadLogEvent(int64_t playbackTime);
    LogEvent* NewQualityLevelChangeLogEvent(uint32_t newLevel, uint32_t oldLevel,
                                            int32_t bandwidth);
    LogEvent* NewErrorLogEvent(int32_t errorCode);
    LogEvent* NewUnderflowLogEvent(uint32_t currentLevel, int64_t playbackTime);
    LogEvent* NewAlgorithmConfigLogEvent(const AlgorithmConfig* config);
    LogEvent* NewAlgorithmModeChangeLogEvent(int mode);
    LogEvent* NewTraceLogEvent(const std::string& trace);
    LogEvent* NewPulseErrorLogEvent(int32_t errorCode,
                                    const qutl::MemoryBuffer<unsigned char>& message);

    /// Null is ignored.
    void Destroy(LogEvent* event);
};
