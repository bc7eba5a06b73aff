#include "Common/OPALPlayRate.h"
#include "Common/logging/LogEvent.h"
#include "Common/logging/LogServer.h"
#include "PlatformAdapter/Mstar/HABTimer.h"
#include "SMILParser/ISMILParser.h"
#include "StreamingController/StreamingController.h"
#include "StreamingDemux/EBML/IClusterBuffer.h"
#include "StreamingReader/IStreamingReader.h"
#include "StreamingReader/Readers.h"
#include "StreamingWriter/IStreamingWriter.h"

namespace {

bool IsRate(OPALPlayRate rate) {
    size_t take = 0;
    size_t skip = 0;
    return GetRateFrameStep(rate, &take, &skip);
}

}  // namespace

OPALError StreamingController::Play() {
    return Guarded([&] {
        Trace("StreamingController::Play : time=");
        if (m_playRate != OPAL_PLAYRATE_ONEX)
            return SetPlayRate(m_playRate);
        const OPALError code = StartPlayback();
        if (code != OPAL_OK)
            return code;
        AcceptStart();
        return Post(MSG_START);
    });
}

OPALError StreamingController::Pause() {
    return Guarded([&] {
        const OPALError code = PauseWriters();
        return code == OPAL_OK ? Post(MSG_PAUSED) : code;
    });
}

OPALError StreamingController::Stop() {
    return Guarded([&] {
        m_stopSequence = m_startSequence;
        return Post(MSG_STOP);
    });
}

/// An operation that starts playback was accepted: a stop from before it no longer holds.
void StreamingController::AcceptStart() {
    ++m_startSequence;
    m_stopRequested = false;
}

OPALError StreamingController::Resume(int64_t positionMs) {
    return Guarded([&] {
        if (positionMs < 0)
            return OPAL_ERROR_INVALID_ARGUMENT;
        OPALError code = OpenFirstAudioTrack(true);
        if (code == OPAL_OK)
            code = m_pReaders->SetVideoStream(LevelFromSwitching());
        int64_t position = positionMs;
        if (code == OPAL_OK)
            code = SeekInternal(position);
        if (code != OPAL_OK)
            return code;
        code = Play();
        if (code != OPAL_OK) {
            m_jumpPending = false;
            return code;
        }
        LogServer::Instance().PostOrDestroy(
            LogEventFactory::Instance().NewResumeLogEvent(positionMs / 1000));
        return OPAL_OK;
    });
}

OPALError StreamingController::Seek(int64_t& positionMs) {
    return Guarded([&] {
        if (!m_pReaders || !m_pVideoBuffer || !m_pVideoWriter || !m_pVideoPlatform)
            return OPAL_ERROR_NOT_READY;
        const OPALError code = SeekInternal(positionMs);
        if (code != OPAL_OK)
            return code;
        AcceptStart();
        return Post(MSG_SEEK_DONE, static_cast<uint32_t>(positionMs));
    });
}

OPALError StreamingController::SetPlayRate(OPALPlayRate rate) {
    Lock lock(m_mutex);
    if (m_terminated)
        return m_error;
    const bool trick = rate != OPAL_PLAYRATE_ONEX;
    if (trick && (!m_pSMILParser || m_pSMILParser->GetVideoTrickTrackCount() == 0))
        return OPAL_ERROR_OUT_OF_RANGE;
    if (!IsRate(rate))
        return OPAL_ERROR_INVALID_ARGUMENT;
    return Guarded([&] {
        OPALError code = OPAL_OK;
        int message = MSG_START;
        if (!trick && m_playRate == OPAL_PLAYRATE_ONEX) {
            m_writersPaused = false;
            code = StartPlayback();
        } else if (!trick && GetState() == CONTROLLER_TRICK) {
            m_playRate = rate;
            code = DoStopTrickPlay();
        } else {
            m_playRate = rate;
            code = DoTrickPlay();
            message = MSG_TRICK_STARTED;
        }
        if (code != OPAL_OK) {
            m_jumpPending = false;
            return code;
        }
        AcceptStart();
        return Post(message);
    });
}

/// Opens audio track 0 if the manifest has audio and none is open. With `tolerateUnsupported`, a
/// track that the sink refuses is told to the listener and is no failure.
OPALError StreamingController::OpenFirstAudioTrack(bool tolerateUnsupported) {
    if (CurrentAudioTrack() != kNone || m_pSMILParser->GetAudioTrackCount() == 0)
        return OPAL_OK;
    const OPALError code = SetAudioTrackInternal(0);
    if (code != OPAL_ERROR_AUDIO_UNSUPPORTED || !tolerateUnsupported)
        return code;
    TellUnsupportedAudio();
    return OPAL_OK;
}

OPALError StreamingController::StartPlayback() {
    Lock lock(m_mutex);
    OPALError code = OpenFirstAudioTrack(true);
    if (code != OPAL_OK)
        return code;
    if (!m_pausedWhilePlaying && m_writersPaused)
        ArmBuffering(true, true, false);
    code = StartReaders();
    if (code != OPAL_OK)
        return code;
    m_writersPaused = false;
    return OPAL_OK;
}

// A subtitle stream that is switched off, or still being prepared, is not to fetch anything.
OPALError StreamingController::StartReaders() {
    if (m_subtitlesOn)
        return ForgiveSubtitles(m_pReaders->StartAll());
    const OPALError code = m_pReaders->StartAudio();
    return code == OPAL_OK ? m_pReaders->StartVideo() : code;
}

// While a subtitle stream opens, which takes as long as the network takes, nothing of it can be
// reached; it stands stopped, and is brought to the position of that moment when it is ready. So
// the operations on all streams leave it out.
bool StreamingController::IsSubtitleStreamOpening() {
    int state = STREAMING_READER_ERROR;
    return m_pReaders->GetSubtitleStreamCount() != 0 &&
           m_pReaders->GetSubtitleState(state) == OPAL_OK && state == STREAMING_READER_NOT_OPEN;
}

OPALError StreamingController::StopReaders() {
    if (!IsSubtitleStreamOpening())
        return ForgiveSubtitles(m_pReaders->StopAll());
    const OPALError code = m_pReaders->StopAudio();
    return code == OPAL_OK ? m_pReaders->StopVideo() : code;
}

OPALError StreamingController::CancelReaders() {
    if (!IsSubtitleStreamOpening())
        return ForgiveSubtitles(m_pReaders->CancelAll());
    const OPALError code = m_pReaders->CancelAudio();
    return code == OPAL_OK ? m_pReaders->CancelVideo() : code;
}

OPALError StreamingController::SeekReaders(int64_t& positionMs) {
    if (!IsSubtitleStreamOpening())
        return ForgiveSubtitles(m_pReaders->SeekAll(positionMs));
    int64_t audioPosition = positionMs;
    const OPALError code = m_pReaders->SeekAudio(audioPosition);
    return code == OPAL_OK ? m_pReaders->SeekVideo(positionMs) : code;
}

// Operations on all streams take subtitles last, so when they fail with the stored error of a
// subtitle stream everything else is done. The loop turns such subtitles off; video and audio must
// not be stranded half-way by it.
OPALError StreamingController::ForgiveSubtitles(OPALError code) {
    return code != OPAL_OK && code == SubtitleStreamError() && CheckReaders() == OPAL_OK ? OPAL_OK
                                                                                         : code;
}

OPALError StreamingController::StartWriters() {
    const bool trick = GetState() == CONTROLLER_TRICK;
    OPALError code = m_pVideoWriter->Start();
    if (code == OPAL_OK && m_pAudioWriter && !trick)
        code = m_pAudioWriter->Start();
    if (code == OPAL_OK && m_pSubtitleWriter && !trick && m_subtitlesOn)
        code = m_pSubtitleWriter->Start();
    if (code == OPAL_OK)
        m_writersPaused = false;
    return code;
}

OPALError StreamingController::PauseWriters() {
    OPALError code = m_pVideoWriter->Pause();
    if (code == OPAL_OK && m_pAudioWriter && m_pReaders->GetAudioStreamCount() != 0)
        code = m_pAudioWriter->Pause();
    if (code == OPAL_OK && m_pSubtitleWriter && m_subtitlesOn)
        code = m_pSubtitleWriter->Pause();
    if (code == OPAL_OK)
        m_writersPaused = true;
    return code;
}

// A level switch from decision to sink. Nothing is flushed: clusters of the old level stay in the
// buffer, the new level's land behind them, and the change reaches the sink at a cluster boundary.
OPALError StreamingController::DoSwitchLevel() {
    Lock lock(m_mutex);
    Trace("DoSwitchLevel");
    const size_t current = m_pReaders->GetCurrentVideo();
    const size_t wanted = LevelFromSwitching();
    if (current == wanted)
        return OPAL_OK;
    int64_t position = 0;
    OPALError code = m_pReaders->StopVideo();
    if (code == OPAL_OK)
        code = m_pReaders->GetVideoPosition(position);
    if (code == OPAL_OK)
        code = m_pReaders->SetVideoStream(wanted);
    if (code == OPAL_OK)
        code = m_pReaders->SeekVideo(position);
    if (code == OPAL_OK)
        code = m_pReaders->StartVideo();
    if (code == OPAL_OK)
        ReportLevelChange(current, wanted);
    return code;
}

void StreamingController::RestartSwitching(OPALStreamType type) {
    m_pSwitching->GetNotify()->Notify(type, StreamSwitchingNotify::EVENT_RESTART,
                                      StreamSwitchingNotify::Message());
}

void StreamingController::RestartSwitching() {
    RestartSwitching(OPAL_STREAM_VIDEO);
    m_pVideoBuffer->SetMaxDuration(m_pSwitching->GetMaxBuffer());
    RestartSwitching(OPAL_STREAM_AUDIO);
    RestartSwitching(OPAL_STREAM_SUBTITLE);
}

/// The shared first half of starting and ending trick play; `position` is the sink's.
OPALError StreamingController::StopStreamsForJump(int64_t& position) {
    m_jumpPending = true;
    OPALError code = m_pVideoWriter->Pause();
    if (code == OPAL_OK && m_pAudioWriter)
        code = m_pAudioWriter->Pause();
    if (code == OPAL_OK && m_pSubtitleWriter && m_subtitlesOn)
        code = StopSubtitlesForJump();
    if (code == OPAL_OK)
        code = StopReaders();
    if (code == OPAL_OK)
        code = CancelReaders();
    if (code == OPAL_OK)
        code = m_pVideoBuffer->Clear();
    if (code == OPAL_OK && m_pAudioWriter) {
        code = m_pAudioBuffer->Clear();
        m_audioAhead = false;
    }
    if (code == OPAL_OK)
        code = m_pVideoPlatform->GetPosition(position);
    if (code == OPAL_OK)
        code = m_pVideoWriter->Flush();
    if (code == OPAL_OK && m_pAudioWriter)
        code = m_pAudioWriter->Flush();
    if (code != OPAL_OK)
        return code;
    RestartSwitching();
    return m_pVideoWriter->SetRate(m_playRate);
}

OPALError StreamingController::StopSubtitlesForJump() {
    OPALError code = ForgiveSubtitles(m_pReaders->StopSubtitle());
    if (code == OPAL_OK)
        code = ForgiveSubtitles(m_pReaders->CancelSubtitle());
    if (code == OPAL_OK)
        code = m_pSubtitleWriter->Pause();
    if (code == OPAL_OK)
        code = m_pSubtitleBuffer->Clear();
    return code == OPAL_OK ? m_pSubtitleWriter->Flush() : code;
}

OPALError StreamingController::DoTrickPlay() {
    Trace("DoTrickPlay");
    if (m_playRate == OPAL_PLAYRATE_ONEX)
        return OPAL_ERROR_OUT_OF_RANGE;
    m_trickClusterArrived = false;
    int64_t position = 0;
    OPALError code = StopStreamsForJump(position);
    if (code == OPAL_OK)
        code = m_pReaders->StartTrickPlay(position, m_playRate);
    if (code == OPAL_OK)
        m_writersPaused = true;
    return code;
}

OPALError StreamingController::DoStopTrickPlay() {
    Trace("DoStopTrickPlay");
    int64_t position = 0;
    OPALError code = StopStreamsForJump(position);
    if (code == OPAL_OK)
        code = m_pReaders->SetVideoStream(LevelFromSwitching());
    int64_t videoPosition = position;
    if (code == OPAL_OK)
        code = SeekReaders(videoPosition);
    if (code == OPAL_OK && m_subtitlesOn) {
        code = ForgiveSubtitles(m_pReaders->SeekSubtitle(position));
        if (code == OPAL_OK)
            code = ForgiveSubtitles(m_pReaders->StartSubtitle());
    }
    if (code == OPAL_OK)
        code = m_pReaders->SetVideoRate(OPAL_PLAYRATE_ONEX);
    if (code != OPAL_OK)
        return code;
    ArmBuffering(true, true, false);
    return StartReaders();
}

OPALError StreamingController::SeekInternal(int64_t& positionMs) {
    Lock lock(m_mutex);
    // Before anything is stopped or flushed: a seek that cannot be done disturbs nothing.
    if (positionMs < 0)
        return OPAL_ERROR_INVALID_ARGUMENT;
    OPALError code = OpenFirstAudioTrack(false);
    if (code != OPAL_OK)
        return code;
    const bool saved = m_writersPaused;
    m_jumpPending = true;
    code = FlushForSeek();
    if (code == OPAL_OK)
        code = MoveReaders(positionMs);
    if (code != OPAL_OK) {
        m_jumpPending = false;
        return code;
    }
    if (!m_pausedWhilePlaying && !saved && m_playRate == OPAL_PLAYRATE_ONEX)
        ArmBuffering(true, true, false);
    else
        m_pausedWhilePlaying = false;
    m_writersPaused = saved;
    return OPAL_OK;
}

OPALError StreamingController::FlushForSeek() {
    OPALError code = CancelReaders();
    if (code == OPAL_OK)
        code = StopReaders();
    if (code == OPAL_OK)
        code = PauseWriters();
    if (code == OPAL_OK)
        code = m_pVideoBuffer->Clear();
    if (code == OPAL_OK)
        code = m_pVideoWriter->Flush();
    if (code == OPAL_OK && m_pAudioBuffer) {
        code = m_pAudioBuffer->Clear();
        m_audioAhead = false;
    }
    if (code == OPAL_OK && m_pAudioWriter)
        code = m_pAudioWriter->Flush();
    if (code == OPAL_OK && m_pSubtitleWriter && m_subtitlesOn) {
        code = m_pSubtitleBuffer->Clear();
        if (code == OPAL_OK)
            code = m_pSubtitleWriter->Flush();
    }
    if (code == OPAL_OK)
        RestartSwitching();
    return code;
}

OPALError StreamingController::MoveReaders(int64_t& positionMs) {
    OPALError code = SeekReaders(positionMs);
    if (code != OPAL_OK)
        return code;
    if (HABTimer_SetTime(m_hTimer, static_cast<uint32_t>(positionMs)) != HAB_OK)
        return OPAL_ERROR_GENERAL;
    if (m_playRate == OPAL_PLAYRATE_ONEX) {
        code = DoSwitchLevel();
    } else {
        // A level would take the trick track's place and fetch nothing. What starts playback again
        // is a trick cluster of the new position; those of the old one may still be announced.
        m_trickClusterArrived = false;
        ++m_trickEpoch;
    }
    if (code == OPAL_OK)
        code = m_pReaders->StartVideo();
    if (code == OPAL_OK)
        code = m_pReaders->StartAudio();
    return code == OPAL_OK && m_subtitlesOn ? ForgiveSubtitles(m_pReaders->StartSubtitle()) : code;
}
