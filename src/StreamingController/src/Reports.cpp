#include "Common/Clock.h"
#include "Common/OPALPlayRate.h"
#include "Common/logging/LogEvent.h"
#include "Common/logging/LogServer.h"
#include "ContentSession/IProtectedContent.h"
#include "SMILParser/ISMILParser.h"
#include "StreamingController/PlayReportConfig.h"
#include "StreamingController/src/CallbackScope.h"
#include "StreamingReader/Readers.h"

namespace {

LogEventFactory& Events() {
    return LogEventFactory::Instance();
}

void PostLog(LogEvent* event) {
    LogServer::Instance().PostOrDestroy(event);
}

/// Codes whose meaning, and words, are the content session's.
bool IsContentError(OPALError code) {
    switch (code) {
        case OPAL_ERROR_CONTENT_SESSION:
        case OPAL_ERROR_SERVICE_20:
        case OPAL_ERROR_SERVICE_21:
        case OPAL_ERROR_SERVICE_24:
        case OPAL_ERROR_SERVICE_27:
            return true;
        default:
            return false;
    }
}

VideoLevelChange DescribeLevel(size_t index, const IVideoLevel& level) {
    VideoLevelChange side;
    side.index = static_cast<uint32_t>(index);
    side.width = static_cast<uint32_t>(level.GetWidth());
    side.height = static_cast<uint32_t>(level.GetHeight());
    side.bitrate = static_cast<uint32_t>(level.GetBitrate());
    return side;
}

}  // namespace

void StreamingController::SubtitleNotify::OnSubtitle(int64_t msStart, int64_t msEnd,
                                                     const std::string& text) {
    if (!controller)
        return;
    controller->Tell(
        [&](IStreamingControllerNotify& listener) { listener.OnSubtitle(msStart, msEnd, text); });
}

void StreamingController::Trace(const char* text) {
    LOG4CXX_TRACE(logger, text << opal::ToMilliseconds(opal::Now() - m_timeEnter));
}

void StreamingController::TellUnsupportedAudio() {
    Tell([](IStreamingControllerNotify& listener) {
        listener.OnError(OPAL_ERROR_AUDIO_UNSUPPORTED, nullptr);
    });
}

void StreamingController::TellContentError(OPALError code) {
    const std::string text = ContentErrorText(code);
    Tell([&](IStreamingControllerNotify& listener) { listener.OnError(code, text.c_str()); });
}

std::string StreamingController::ContentErrorText(OPALError code) {
    qutl::MemoryBuffer<unsigned char> text;
    if (!m_pProtectedContent || !IsContentError(code) ||
        m_pProtectedContent->GetLastErrorText(text) != OPAL_OK || text.IsEmpty())
        return {};
    const std::string whole(reinterpret_cast<const char*>(text.GetData()), text.GetSize());
    return whole.substr(0, whole.find('\0'));
}

int64_t StreamingController::AudioAssetId() {
    boost::shared_ptr<IAudioTrack> track;
    const size_t index = CurrentAudioTrack();
    return index != kNone && m_pSMILParser->GetAudioTrack(index, track) == OPAL_OK
               ? track->GetAssetId()
               : -1;
}

int64_t StreamingController::SubtitleAssetId() {
    boost::shared_ptr<ISubtitleTrack> track;
    const size_t index = CurrentSubtitleTrack();
    return index != kNone && m_pSMILParser->GetSubtitleTrack(index, track) == OPAL_OK
               ? track->GetAssetId()
               : -1;
}

void StreamingController::ReportPlay() {
    Trace("READY TO PLAY!!! : time=");
    PostLog(Events().NewPlayLogEvent(static_cast<uint32_t>(CurrentVideoLevel()), AudioAssetId(),
                                     SubtitleAssetId()));
    Tell([this](IStreamingControllerNotify& listener) {
        listener.OnPlay(m_playRate, CurrentAudioTrack(), CurrentSubtitleTrack());
    });
}

void StreamingController::ReportStop() {
    PostLog(Events().NewStopDownloadLogEvent(m_positionSeconds));
    Tell([](IStreamingControllerNotify& listener) { listener.OnStop(); });
}

void StreamingController::ReportPause() {
    PostLog(Events().NewPauseDisplayLogEvent(m_positionSeconds));
    Tell([](IStreamingControllerNotify& listener) { listener.OnPause(); });
}

void StreamingController::ReportEndOfStream() {
    PostLog(Events().NewEndOfStreamLogEvent(m_positionSeconds));
    Tell([](IStreamingControllerNotify& listener) { listener.OnEndOfStream(); });
}

void StreamingController::ReportPlayRate() {
    PostLog(Events().NewSetPlayRateLogEvent(m_playRate, m_positionSeconds));
    Tell([this](IStreamingControllerNotify& listener) { listener.OnPlayRateChanged(m_playRate); });
}

void StreamingController::ReportUnderflow() {
    PostLog(Events().NewUnderflowLogEvent(static_cast<uint32_t>(CurrentVideoLevel()),
                                          m_positionSeconds));
    Tell([](IStreamingControllerNotify& listener) { listener.OnUnderflow(); });
}

void StreamingController::ReportSubtitleTrack() {
    PostLog(Events().NewSetSubtitleTrackLogEvent(SubtitleAssetId(), m_positionSeconds));
    Tell([this](IStreamingControllerNotify& listener) {
        listener.OnSubtitleTrackChanged(CurrentSubtitleTrack());
    });
}

/// The switching controller's bandwidth, or while it knows none the bit-rate of the last level.
int StreamingController::ReportedBandwidth() {
    const int bandwidth = m_pSwitching->GetBandwidth();
    const size_t count = m_pSMILParser->GetVideoLevelCount();
    boost::shared_ptr<IVideoLevel> last;
    if (bandwidth == 0 && count != 0 && m_pSMILParser->GetVideoLevel(count - 1, last) == OPAL_OK)
        return last->GetBitrate();
    return bandwidth;
}

void StreamingController::ReportLevelChange(size_t from, size_t to) {
    PostLog(Events().NewQualityLevelChangeLogEvent(
        static_cast<uint32_t>(to), static_cast<uint32_t>(from), ReportedBandwidth()));
    boost::shared_ptr<IVideoLevel> fromLevel;
    boost::shared_ptr<IVideoLevel> toLevel;
    if (m_pSMILParser->GetVideoLevel(from, fromLevel) != OPAL_OK ||
        m_pSMILParser->GetVideoLevel(to, toLevel) != OPAL_OK)
        return;
    Tell([&](IStreamingControllerNotify& listener) {
        listener.OnVideoLevelChanged(m_pSMILParser->GetVideoLevelCount(),
                                     DescribeLevel(from, *fromLevel), DescribeLevel(to, *toLevel));
    });
}

// Called without m_mutex, since the content session takes its time: an application's pause must not
// wait for it.
OPALError StreamingController::ReportPlayState(int playState) {
    const PlayReportConfig& config = PlayReportConfig::Instance();
    if (!m_sessionContent || !m_pProtectedContent || !config.IsEnabled())
        return OPAL_OK;
    const bool periodic = playState == 1 || playState == 3;
    if (periodic && (config.GetInterval() == 0 ||
                     (!m_lastPlayReport.is_special() &&
                      opal::ToMilliseconds(opal::Now() - m_lastPlayReport) < config.GetInterval())))
        return OPAL_OK;
    int64_t position = 0;
    if (m_pVideoPlatform) {
        const OPALError code = m_pVideoPlatform->GetPosition(position);
        if (code != OPAL_OK)
            return code;
    }
    if (periodic)
        m_lastPlayReport = opal::Now();
    {
        Lock lock(m_mutex);
        (void)CheckReaders();
    }
    const OPALError code = m_pProtectedContent->ReportPlayEvent(
        playState, position, ReportedBandwidth(), AudioAssetId(), SubtitleAssetId());
    if (code != OPAL_OK) {
        qutl::MemoryBuffer<unsigned char> text;
        (void)m_pProtectedContent->GetLastErrorText(text);
        PostLog(Events().NewPulseErrorLogEvent(code, text));
    }
    return OPAL_OK;
}
