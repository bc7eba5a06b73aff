#include "StreamingController/src/SessionReports.h"

#include "Common/SessionEventStream.h"
#include "Common/logging/LogEvent.h"
#include "Common/logging/LogServer.h"
#include "SMILParser/ISMILParser.h"
#include "StreamingController/IStreamingControllerNotify.h"

namespace opal {
namespace {

using Listener = IStreamingControllerNotify;

LogEventFactory& Events() {
    return LogEventFactory::Instance();
}

void PostLog(LogEvent* event) {
    LogServer::Instance().PostOrDestroy(event);
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

void SessionReports::Play(OPALPlayRate rate, size_t level, size_t audio, size_t subtitle,
                          int64_t audioAsset, int64_t subtitleAsset) const {
    PostLog(Events().NewPlayLogEvent(static_cast<uint32_t>(level), audioAsset, subtitleAsset));
    Observe(SessionState::Playing, 0, level);
    Tell([&](Listener& listener) { listener.OnPlay(rate, audio, subtitle); });
}

void SessionReports::Stop() const {
    PostLog(Events().NewStopDownloadLogEvent(m_positionSeconds));
    Observe(SessionState::Stopped);
    Tell([](Listener& listener) { listener.OnStop(); });
}

void SessionReports::Pause() const {
    PostLog(Events().NewPauseDisplayLogEvent(m_positionSeconds));
    if (m_observed != SessionState::Paused)  // trick play tells it again and again while it begins
        Observe(SessionState::Paused);
    Tell([](Listener& listener) { listener.OnPause(); });
}

void SessionReports::EndOfStream() const {
    PostLog(Events().NewEndOfStreamLogEvent(m_positionSeconds));
    Observe(SessionState::EndOfStream);
    Tell([](Listener& listener) { listener.OnEndOfStream(); });
}

void SessionReports::PlayRate(OPALPlayRate rate) const {
    PostLog(Events().NewSetPlayRateLogEvent(rate, m_positionSeconds));
    StateEvent event;
    event.state = SessionState::Rate;
    event.rate = rate;
    Observe(std::move(event));
    Tell([rate](Listener& listener) { listener.OnPlayRateChanged(rate); });
}

void SessionReports::Underflow(size_t level) const {
    PostLog(Events().NewUnderflowLogEvent(static_cast<uint32_t>(level), m_positionSeconds));
    Observe(SessionState::Underflow);
    Tell([](Listener& listener) { listener.OnUnderflow(); });
}

void SessionReports::AudioTrack(size_t track) const {
    Observe(SessionState::AudioTrack, 0, track);
    Tell([track](Listener& listener) { listener.OnAudioTrackChanged(track); });
}

void SessionReports::AudioAsset(int64_t asset) const {
    PostLog(Events().NewSetAudioTrackLogEvent(asset, m_positionSeconds));
}

void SessionReports::SubtitleTrack(size_t track, int64_t asset) const {
    PostLog(Events().NewSetSubtitleTrackLogEvent(asset, m_positionSeconds));
    Observe(SessionState::SubtitleTrack, 0, track);
    Tell([track](Listener& listener) { listener.OnSubtitleTrackChanged(track); });
}

void SessionReports::LevelChange(ISMILParser& manifest, size_t from, size_t to,
                                 int bandwidth) const {
    PostLog(Events().NewQualityLevelChangeLogEvent(static_cast<uint32_t>(to),
                                                   static_cast<uint32_t>(from), bandwidth));
    StateEvent event;
    event.state = SessionState::Level;
    event.from = from;
    event.to = to;
    Observe(std::move(event));
    boost::shared_ptr<IVideoLevel> fromLevel;
    boost::shared_ptr<IVideoLevel> toLevel;
    if (manifest.GetVideoLevel(from, fromLevel) != OPAL_OK ||
        manifest.GetVideoLevel(to, toLevel) != OPAL_OK)
        return;
    Tell([&](Listener& listener) {
        listener.OnVideoLevelChanged(manifest.GetVideoLevelCount(), DescribeLevel(from, *fromLevel),
                                     DescribeLevel(to, *toLevel));
    });
}

void SessionReports::Position(int64_t positionMs, size_t level) const {
    Tell([&](Listener& listener) { listener.OnPosition(positionMs, level); });
}

void SessionReports::BufferingProgress(size_t percent) const {
    Tell([percent](Listener& listener) { listener.OnBufferingProgress(percent); });
}

void SessionReports::Error(OPALError code, const std::string& text) const {
    PostLog(Events().NewErrorLogEvent(code));
    ContentError(code, text);
}

void SessionReports::ContentError(OPALError code, const std::string& text) const {
    SessionEventStream::IfObserved([&] {
        StateEvent event;
        event.state = SessionState::Error;
        event.code = code;
        event.text = text;
        Observe(std::move(event));
    });
    Tell([&](Listener& listener) { listener.OnError(code, text.c_str()); });
}

void SessionReports::UnsupportedAudio() const {
    StateEvent event;
    event.state = SessionState::Error;
    event.code = OPAL_ERROR_AUDIO_UNSUPPORTED;
    Observe(std::move(event));
    Tell([](Listener& listener) { listener.OnError(OPAL_ERROR_AUDIO_UNSUPPORTED, nullptr); });
}

void SessionReports::Observe(SessionState state, int64_t valueMs, size_t to) const {
    if (m_observed.exchange(state) == SessionState::Closed && state == SessionState::Closed)
        return;  // no session is there to be closed
    if (state == SessionState::Opening)
        m_positionMs = -1;
    if (!SessionEventStream::IsObserved())
        return;
    StateEvent event;
    event.state = state;
    event.valueMs = valueMs;
    event.to = to;
    Observe(std::move(event));
}

void SessionReports::Observe(StateEvent event) const {
    m_observed = event.state;
    if (event.state == SessionState::Opening)
        m_positionMs = -1;
    event.positionMs = m_positionMs;
    SessionEventStream::Tell(std::move(event));
}

void SessionReports::ObserveFailure(OPALError code) const {
    if (m_observed == SessionState::Error)
        return;  // it was told with the service's words
    StateEvent event;
    event.state = SessionState::Error;
    event.code = code;
    Observe(std::move(event));
}

void SessionReports::SlowTransfer(const playback::AbandonRule::Transfer& transfer, size_t to,
                                  int bandwidth) const {
    DecisionEvent event;
    event.rule = SwitchingRule::SlowTransfer;
    event.from = static_cast<int>(transfer.level);
    event.to = static_cast<int>(to);
    event.cluster = static_cast<int64_t>(transfer.cluster);
    event.bandwidth = bandwidth;
    event.bufferedMs = static_cast<int>(transfer.bufferedMs);
    event.downloadBytes = static_cast<int>(transfer.received);
    SessionEventStream::Tell(std::move(event));
}

}  // namespace opal
