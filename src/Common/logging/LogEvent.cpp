#include "Common/logging/LogEvent.h"

#include <algorithm>
#include <boost/property_tree/ptree.hpp>
#include <locale>
#include <sstream>

#include "StreamSwitchingAlgorithm/AlgorithmConfig.h"

using boost::property_tree::ptree;

namespace {

constexpr int64_t kMsPerSecond = 1000;

/// Every value is a text node, so that the tree holds strings only.
template <typename T>
std::string ToText(T value) {
    std::ostringstream stream;
    stream.imbue(std::locale::classic());  // the application's may group digits
    stream << value;
    return stream.str();
}

const char* StartupDecisionText(InitialBandwidthMode mode) {
    switch (mode) {
        case InitialBandwidthMode_LowestLevel:
            return "lowestlevel";
        case InitialBandwidthMode_BandwidthProbe:
            return "bwprobe";
        case InitialBandwidthMode_BandwidthHint:
            return "bwhint";
    }
    return "";
}

ptree ModePeriods(const AlgorithmConfig& config, int mode) {
    ptree periods;
    periods.put("min-period-up-switch", ToText(config.GetMinPeriodUpSwitch(mode) / kMsPerSecond));
    periods.put("min-period-down-switch",
                ToText(config.GetMinPeriodDownSwitch(mode) / kMsPerSecond));
    return periods;
}

}  // namespace

void LogEvent::Serialize(ptree& tree) const {
    tree.put("ts", ToText(ts));
}

void ActionLogEvent::Serialize(ptree& tree) const {
    ptree event;
    LogEvent::Serialize(event);
    SerializeFields(event.add(m_name, ""));
    tree.add_child("action", event);
}

void ActionLogEvent::SerializeFields(ptree&) const {}

void PlayTimeLogEvent::Serialize(ptree& tree) const {
    ptree event;
    LogEvent::Serialize(event);
    SerializeFields(event.add(m_name, ""));
    SerializePlaybackTime(event);
    tree.add_child("action", event);
}

void PlayTimeLogEvent::SerializePlaybackTime(ptree& action) const {
    action.get_child(m_name).put("playback-time", ToText(m_playbackTime));
}

InitLogEvent::InitLogEvent(uint32_t major, uint32_t minor, uint32_t revision, uint32_t build,
                           const std::string& ticket, InitialBandwidthMode mode,
                           int64_t startupTime)
    : ActionLogEvent(1, "init"),
      m_version(ToText(major) + "." + ToText(minor) + "." + ToText(revision) + "." + ToText(build)),
      m_ticket(ticket),
      m_mode(mode),
      m_startupTime(startupTime) {}

void InitLogEvent::SerializeFields(ptree& action) const {
    action.put("ticket-string", m_ticket);
    action.put("startup-decision", StartupDecisionText(m_mode));
    action.put("startup-time", ToText(m_startupTime));
    action.put("version", m_version);
}

PlayLogEvent::PlayLogEvent(uint32_t videoLevel, int64_t audioTrack, int64_t subtitleTrack)
    : ActionLogEvent(1, "play"),
      m_videoLevel(videoLevel),
      m_audioTrack(audioTrack),
      m_subtitleTrack(subtitleTrack) {}

void PlayLogEvent::SerializeFields(ptree& action) const {
    action.put("video-level", ToText(m_videoLevel));
    action.put("audio-track", ToText(m_audioTrack));
    action.put("subtitle-track", ToText(m_subtitleTrack));
}

SetAudioTrackLogEvent::SetAudioTrackLogEvent(int64_t audioTrack, int64_t playbackTime)
    : PlayTimeLogEvent(1, "set-audio-track", playbackTime), m_audioTrack(audioTrack) {}

void SetAudioTrackLogEvent::SerializeFields(ptree& action) const {
    action.put("audio-track", ToText(m_audioTrack));
}

SetSubtitleTrackLogEvent::SetSubtitleTrackLogEvent(int64_t subtitleTrack, int64_t playbackTime)
    : PlayTimeLogEvent(1, "set-subtitle-track", playbackTime), m_subtitleTrack(subtitleTrack) {}

void SetSubtitleTrackLogEvent::SerializeFields(ptree& action) const {
    action.put("subtitle-track", ToText(m_subtitleTrack));
}

SetPlayRateLogEvent::SetPlayRateLogEvent(OPALPlayRate rate, int64_t playbackTime)
    : PlayTimeLogEvent(1, "set-play-rate", playbackTime), m_rate(rate) {}

void SetPlayRateLogEvent::SerializeFields(ptree& action) const {
    action.put("rate", GetRateLogText(m_rate));
}

QualityLevelChangeLogEvent::QualityLevelChangeLogEvent(uint32_t newLevel, uint32_t oldLevel,
                                                       int32_t bandwidth)
    : ActionLogEvent(2, "quality-level-change"),
      m_newLevel(newLevel),
      m_oldLevel(oldLevel),
      m_bandwidth(bandwidth) {}

void QualityLevelChangeLogEvent::SerializeFields(ptree& action) const {
    action.put("new-level", ToText(m_newLevel));
    action.put("old-level", ToText(m_oldLevel));
    action.put("bw", ToText(m_bandwidth));
}

ErrorLogEvent::ErrorLogEvent(int32_t errorCode)
    : ActionLogEvent(2, "error"), m_errorCode(errorCode) {}

void ErrorLogEvent::SerializeFields(ptree& action) const {
    action.put("error-code", ToText(m_errorCode));
}

UnderflowLogEvent::UnderflowLogEvent(uint32_t currentLevel, int64_t playbackTime)
    : PlayTimeLogEvent(2, "underflow", playbackTime), m_currentLevel(currentLevel) {}

void UnderflowLogEvent::SerializeFields(ptree& action) const {
    action.put("current-level", ToText(m_currentLevel));
}

AlgorithmConfigLogEvent::AlgorithmConfigLogEvent(const AlgorithmConfig* config)
    : ActionLogEvent(2, "algo-config"), m_config(config) {}

void AlgorithmConfigLogEvent::SerializeFields(ptree& action) const {
    action.put("startup-decision", StartupDecisionText(m_config->GetInitialBandwidthDecision()));
    action.put("bw-hint", ToText(m_config->GetBandwidthHint()));
    action.put("max-buffer-from-empty", ToText(m_config->GetMaxBufferFromEmpty() / kMsPerSecond));
    action.put("min-buffer-to-enter-agile",
               ToText(m_config->GetMinBufferedToEnterAgile() / kMsPerSecond));
    action.put("max-secs-in-agile", ToText(m_config->GetMaxSecondsInAgileMode() / kMsPerSecond));
    action.put("min-secs-in-agile", ToText(m_config->GetMinSecondsInAgileMode() / kMsPerSecond));
    action.put("upper-guard-trigger", ToText(m_config->GetUpperGuardTrigger()));
    action.put_child("agile", ModePeriods(*m_config, AlgorithmConfig::kAgile));
    action.put_child("steady", ModePeriods(*m_config, AlgorithmConfig::kSteady));
}

AlgorithmModeChangeLogEvent::AlgorithmModeChangeLogEvent(int mode)
    : ActionLogEvent(2, "algo-mode-change"), m_mode(mode) {}

void AlgorithmModeChangeLogEvent::SerializeFields(ptree& action) const {
    action.put("mode", m_mode == 0 ? "agile" : m_mode == 1 ? "steady" : "unknown");
}

TraceLogEvent::TraceLogEvent(const std::string& trace)
    : ActionLogEvent(3, "algo-trace"), m_trace(trace) {}

void TraceLogEvent::SerializeFields(ptree& action) const {
    action.put("trace", m_trace);
}

PulseErrorLogEvent::PulseErrorLogEvent(int32_t errorCode,
                                       const qutl::MemoryBuffer<unsigned char>& message)
    : ActionLogEvent(2, "pulse-error"), m_errorCode(errorCode), m_message(message) {}

void PulseErrorLogEvent::SerializeFields(ptree& action) const {
    action.put("error-code", ToText(m_errorCode));
    const unsigned char* begin = m_message.GetData();
    const unsigned char* end = begin + m_message.GetSize();
    const std::string text(begin, std::find(begin, end, '\0'));
    if (!text.empty())
        action.put("message", text);
}

LogEventFactory& LogEventFactory::Instance() {
    static LogEventFactory factory;
    return factory;
}

LogEvent* LogEventFactory::NewInitLogEvent(uint32_t major, uint32_t minor, uint32_t revision,
                                           uint32_t build, const std::string& ticket,
                                           InitialBandwidthMode mode, int64_t startupTime) {
    return new InitLogEvent(major, minor, revision, build, ticket, mode, startupTime);
}

LogEvent* LogEventFactory::NewPlayLogEvent(uint32_t videoLevel, int64_t audioTrack,
                                           int64_t subtitleTrack) {
    return new PlayLogEvent(videoLevel, audioTrack, subtitleTrack);
}

LogEvent* LogEventFactory::NewSetAudioTrackLogEvent(int64_t audioTrack, int64_t playbackTime) {
    return new SetAudioTrackLogEvent(audioTrack, playbackTime);
}

LogEvent* LogEventFactory::NewSetSubtitleTrackLogEvent(int64_t subtitleTrack,
                                                       int64_t playbackTime) {
    return new SetSubtitleTrackLogEvent(subtitleTrack, playbackTime);
}

LogEvent* LogEventFactory::NewSetPlayRateLogEvent(OPALPlayRate rate, int64_t playbackTime) {
    return new SetPlayRateLogEvent(rate, playbackTime);
}

LogEvent* LogEventFactory::NewEndOfStreamLogEvent(int64_t playbackTime) {
    return new EndOfStreamLogEvent(playbackTime);
}

LogEvent* LogEventFactory::NewTerminateLogEvent(int64_t playbackTime) {
    return new TerminateLogEvent(playbackTime);
}

LogEvent* LogEventFactory::NewResumeLogEvent(int64_t playbackTime) {
    return new ResumeLogEvent(playbackTime);
}

LogEvent* LogEventFactory::NewPauseDisplayLogEvent(int64_t playbackTime) {
    return new PauseDisplayLogEvent(playbackTime);
}

LogEvent* LogEventFactory::NewStopDownloadLogEvent(int64_t playbackTime) {
    return new StopDownloadLogEvent(playbackTime);
}

LogEvent* LogEventFactory::NewQualityLevelChangeLogEvent(uint32_t newLevel, uint32_t oldLevel,
                                                         int32_t bandwidth) {
    return new QualityLevelChangeLogEvent(newLevel, oldLevel, bandwidth);
}

LogEvent* LogEventFactory::NewErrorLogEvent(int32_t errorCode) {
    return new ErrorLogEvent(errorCode);
}

LogEvent* LogEventFactory::NewUnderflowLogEvent(uint32_t currentLevel, int64_t playbackTime) {
    return new UnderflowLogEvent(currentLevel, playbackTime);
}

LogEvent* LogEventFactory::NewAlgorithmConfigLogEvent(const AlgorithmConfig* config) {
    return new AlgorithmConfigLogEvent(config);
}

LogEvent* LogEventFactory::NewAlgorithmModeChangeLogEvent(int mode) {
    return new AlgorithmModeChangeLogEvent(mode);
}

LogEvent* LogEventFactory::NewTraceLogEvent(const std::string& trace) {
    return new TraceLogEvent(trace);
}

LogEvent* LogEventFactory::NewPulseErrorLogEvent(int32_t errorCode,
                                                 const qutl::MemoryBuffer<unsigned char>& message) {
    return new PulseErrorLogEvent(errorCode, message);
}

void LogEventFactory::Destroy(LogEvent* event) {
    delete event;
}
