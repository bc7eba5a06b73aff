#include <algorithm>

#include "Common/Clock.h"
#include "Common/StreamingTuning.h"
#include "Common/logging/ILogEventSender.h"
#include "Common/logging/LogServer.h"
#include "SMILParser/ISMILParser.h"
#include "StreamingController/src/CallbackScope.h"
#include "StreamingDemux/EBML/IClusterBuffer.h"
#include "StreamingReader/IStreamingReader.h"
#include "StreamingReader/Readers.h"
#include "StreamingWriter/IStreamingWriter.h"

namespace {

constexpr int64_t kTurnMs = 10;
constexpr int64_t kPositionPeriodMs = 999;
constexpr int64_t kStartAgainMs = 999;
constexpr int64_t kUnderflowMs = 501;

// Play states as the content session counts them.
constexpr int kStateStarted = 0;
constexpr int kStatePlaying = 1;
constexpr int kStatePaused = 2;
constexpr int kStateWritersPaused = 3;
constexpr int kStateEnded = 4;

int64_t Since(const boost::posix_time::ptime& time) {
    return opal::ToMilliseconds(opal::Now() - time);
}

}  // namespace

StreamingController::LoopState::LoopState()
    : lastPositionReport(opal::Now()), lastStart(opal::Now()), lastLogFlush(opal::Now()) {}

OPALError StreamingController::EventLoop() {
    LoopState state;
    while (!IsTerminated()) {
        opal::SleepMs(kTurnMs);
        Shielded([&] { RunTurn(state); });
    }
    Shielded([&] { LeaveLoop(); });
    return OPAL_OK;
}

// Nothing may leave a thread; least of all an exception of the listener's.
void StreamingController::Shielded(const std::function<void()>& action) {
    OPALError code = OPAL_OK;
    try {
        action();
    } catch (const std::bad_alloc&) {
        code = OPAL_ERROR_NO_MEMORY;
    } catch (const std::exception& e) {
        LOG4CXX_ERROR(logger, "StreamingController::EventLoop - exception: " << e.what());
        code = OPAL_ERROR_GENERAL;
    } catch (...) {
        LOG4CXX_ERROR(logger, "StreamingController::EventLoop - exception of no known type");
        code = OPAL_ERROR_GENERAL;
    }
    try {
        if (code != OPAL_OK)
            (void)Terminate(code);
    } catch (...) {
        LOG4CXX_ERROR(logger, "StreamingController::EventLoop - exception while ending");
    }
}

void StreamingController::LeaveLoop() {
    ReportStop();
    (void)ReportPlayState(kStateEnded);
}

void StreamingController::RunTurn(LoopState& state) {
    FlushLog(state);
    if (!CheckHealth(state))
        return;
    WatchPlayback(state);
    const OPALError code = HandleMessage(state);
    if (!WatchBuffer(state))
        return;
    if (code != OPAL_OK)
        (void)Terminate(code);
    ReportBuffering(state);
    bool writersPaused = false;
    {
        Lock lock(m_mutex);
        writersPaused = m_writersPaused;
    }
    const OPALError reported = ReportPlayState(writersPaused ? kStateWritersPaused : kStatePlaying);
    if (reported != OPAL_OK)
        (void)Terminate(reported);
}

void StreamingController::FlushLog(LoopState& state) {
    if (!m_pLogSender || Since(state.lastLogFlush) < m_pLogSender->GetTransactionInterval())
        return;
    LogServer::Instance().Flush();
    state.lastLogFlush = opal::Now();
}

/// False if the session has been terminated.
bool StreamingController::CheckHealth(LoopState& state) {
    Lock lock(m_mutex);
    OPALError code = CheckReaders();
    if (code != OPAL_OK) {
        LOG4CXX_ERROR(logger,
                      "StreamingController::EventLoop - Error in streaming reader:" << code);
        (void)Terminate(code);
        return false;
    }
    code = CheckWriters();
    if (code != OPAL_OK) {
        LOG4CXX_ERROR(logger,
                      "StreamingController::EventLoop - Error in streaming writer:" << code);
        (void)Terminate(code);
        return false;
    }
    if (SubtitleStreamError() != OPAL_OK)
        code = DropSubtitles(state);
    if (code != OPAL_OK)
        (void)Terminate(code);
    return code == OPAL_OK;
}

OPALError StreamingController::CheckReaders() {
    OPALError code = OPAL_OK;
    if (m_pReaders->GetVideoStreamCount() != 0)
        code = m_pReaders->GetVideoError();
    if (code == OPAL_OK && m_pReaders->GetAudioStreamCount() != 0)
        code = m_pReaders->GetAudioError();
    return code;
}

OPALError StreamingController::CheckWriters() {
    for (IStreamingWriter* writer :
         {m_pVideoWriter.get(), m_pAudioWriter.get(), m_pSubtitleWriter.get()}) {
        const OPALError code = writer ? writer->GetError() : OPAL_OK;
        if (code != OPAL_OK)
            return code;
    }
    return OPAL_OK;
}

OPALError StreamingController::SubtitleStreamError() {
    const OPALError code =
        m_pReaders->GetSubtitleStreamCount() != 0 ? m_pReaders->GetSubtitleError() : OPAL_OK;
    return code == OPAL_ERROR_TERMINATED ? OPAL_OK : code;
}

// A subtitle stream that fails is no reason to end the film: subtitles turn themselves off. The
// manager then counts as empty, so that a later selection begins anew and no operation on all
// streams meets the old error.
OPALError StreamingController::DropSubtitles(LoopState& state) {
    LOG4CXX_ERROR(logger,
                  "Subtitles are turned off, their stream failed:" << SubtitleStreamError());
    (void)SetSubtitleTrackInternal(kNone);
    (void)m_pReaders->FinalizeSubtitle();
    return EndSubtitleSelection(state);
}

void StreamingController::WatchPlayback(LoopState& state) {
    Lock lock(m_mutex);
    int64_t position = 0;
    if (!state.playing || m_jumpPending || m_pVideoPlatform->GetPosition(position) != OPAL_OK)
        return;
    if (position > 0 && Since(state.lastPositionReport) > kPositionPeriodMs) {
        size_t level = kNone;
        (void)m_pVideoWriter->GetLevelForTime(position, level);
        m_positionSeconds = position / 1000;
        Tell([&](IStreamingControllerNotify& listener) { listener.OnPosition(position, level); });
        state.lastPositionReport = opal::Now();
    }
    // The set starts with a block that comes after it is ready. So little may be left to play that
    // none comes any more.
    if (position == 0 && !m_writersPaused && Since(state.lastStart) > kStartAgainMs) {
        (void)m_pVideoPlatform->SetPaused(false);
        state.lastStart = opal::Now();
    }
    if (m_pVideoWriter->IsEndOfStream()) {
        ReportEndOfStream();
        state.playing = false;
    }
}

OPALError StreamingController::HandleMessage(LoopState& state) {
    StreamingControllerMessage message;
    if (!m_queue.Pop(message))
        return OPAL_OK;
    state.playStateToReport = kNoPlayState;
    OPALError code = OPAL_OK;
    {
        Lock lock(m_mutex);
        code = Dispatch(message, state);
    }
    // The content session takes its time, so it is told without the lock.
    if (state.playStateToReport == kNoPlayState)
        return code;
    const OPALError reported = ReportPlayState(state.playStateToReport);
    return code != OPAL_OK ? code : reported;
}

OPALError StreamingController::Dispatch(const StreamingControllerMessage& message,
                                        LoopState& state) {
    switch (message.kind) {
        case MSG_PAUSED:
            return HandlePaused(state);
        case MSG_STOP:
            return HandleStop(state);
        case MSG_SET_AUDIO_TRACK:
            return HandleSetAudioTrack(message.argument, state);
        case MSG_SET_SUBTITLE_TRACK:
            return HandleSetSubtitleTrack(message.argument, state);
        case MSG_SUBTITLE_PENDING:
            return HandleSubtitlePending(message.argument, state);
        case MSG_START:
            return HandleStart(state);
        case MSG_VIDEO_CLUSTER:
            return m_stopRequested ? OPAL_OK : HandleVideoCluster(state);
        case MSG_AUDIO_CLUSTER:
            if (m_stopRequested || m_playRate != OPAL_PLAYRATE_ONEX || m_audioAhead)
                return OPAL_OK;
            return m_pReaders->StartAudio();
        case MSG_SUBTITLE_CLUSTER:
            if (m_stopRequested || m_playRate != OPAL_PLAYRATE_ONEX || !m_subtitlesOn)
                return OPAL_OK;
            return ForgiveSubtitles(m_pReaders->StartSubtitle());
        case MSG_TRICK_CLUSTER:
            return m_stopRequested ? OPAL_OK : HandleTrickCluster(message.argument);
        case MSG_TRICK_STARTED:
            return HandleTrickStarted(state);
        case MSG_SEEK_DONE:
            return StartWhenReady(state);
        default:
            return OPAL_OK;
    }
}

OPALError StreamingController::HandlePaused(LoopState& state) {
    if (state.playing)
        m_pausedWhilePlaying = true;
    state.playing = false;
    ReportPause();
    state.playStateToReport = kStatePaused;
    return OPAL_OK;
}

// A stop also lets nothing start a reader that is still queued, or comes from a transfer that was
// running; but a start that the application asked for after it holds.
OPALError StreamingController::HandleStop(LoopState& state) {
    OPALError code = StopReaders();
    if (m_subtitlesOn) {
        const OPALError subtitle = ForgiveSubtitles(m_pReaders->StopSubtitle());
        code = code != OPAL_OK ? code : subtitle;
    }
    state.playing = false;
    m_stopRequested = m_startSequence == m_stopSequence;
    ReportStop();
    if (code != OPAL_OK || m_stopRequested)
        return code;
    return m_playRate == OPAL_PLAYRATE_ONEX ? StartReaders() : m_pReaders->StartVideo();
}

OPALError StreamingController::HandleSetAudioTrack(size_t index, LoopState& state) {
    const OPALError code = SetAudioTrackInternal(index);
    if (code == OPAL_ERROR_AUDIO_UNSUPPORTED) {
        TellUnsupportedAudio();
        return OPAL_OK;
    }
    if (code != OPAL_OK)
        return code;
    Tell([&](IStreamingControllerNotify& listener) {
        listener.OnAudioTrackChanged(CurrentAudioTrack());
    });
    state.playStateToReport = GetState() == CONTROLLER_PAUSED ? kStatePaused : kStateStarted;
    return OPAL_OK;
}

OPALError StreamingController::HandleSetSubtitleTrack(size_t index, LoopState& state) {
    OPALError code = SetSubtitleTrackInternal(index);
    if (code == OPAL_ERROR_NO_MEMORY)
        return OPAL_OK;  // deliberate: a track that cannot be had is ignored without any word
    if (code != OPAL_OK)
        return code;
    if (index == kNone)
        return EndSubtitleSelection(state);
    // A second selection finds the writers paused by the first.
    if (m_pendingSubtitle == kNone)
        m_savedWritersPaused = m_writersPaused;
    m_pendingSubtitle = index;
    code = PauseWriters();
    if (code == OPAL_OK) {
        state.playing = false;
        m_buffering.ResetStream(OPAL_STREAM_SUBTITLE);
        ArmBuffering(false, false, true);
        ReportPause();
    }
    (void)Post(MSG_SUBTITLE_PENDING, index);
    return code;
}

OPALError StreamingController::HandleSubtitlePending(size_t index, LoopState& state) {
    if (index != m_pendingSubtitle)
        return OPAL_OK;
    const OPALError code = PrepareSubtitleStream(index);
    if (code == OPAL_ERROR_NOT_YET) {
        (void)Post(MSG_SUBTITLE_PENDING, index);
        return OPAL_OK;
    }
    if (code != OPAL_OK && SubtitleStreamError() != OPAL_OK)
        return DropSubtitles(state);
    if (code != OPAL_OK)
        return code;
    const OPALError resumed = EndSubtitleSelection(state);
    state.playStateToReport = GetState() == CONTROLLER_PAUSED ? kStatePaused : kStateStarted;
    return resumed;
}

// A selection that was under way has come to an end, whether the track runs now, was switched off
// or failed; playback, which was held for it, goes on.
OPALError StreamingController::EndSubtitleSelection(LoopState& state) {
    if (m_pendingSubtitle == kNone) {
        ReportSubtitleTrack();
        return OPAL_OK;
    }
    m_pendingSubtitle = kNone;
    m_buffering.AddBytes(m_subtitleTargetBytes, OPAL_STREAM_SUBTITLE);
    if (m_buffering.IsActive() && m_buffering.IsComplete())
        m_buffering.Reset();
    state.writersStartPending = true;
    m_writersPaused = m_savedWritersPaused;
    ReportSubtitleTrack();
    if (m_stopRequested)
        return OPAL_OK;
    if (IsReadyToStart() == OPAL_OK)
        state.playing = true;
    else
        (void)Post(MSG_START);
    return OPAL_OK;
}

void StreamingController::DeclareStarted(LoopState& state) {
    state.playing = true;
    state.lastStart = opal::Now();
    ReportPlay();
    if (m_buffering.IsActive() && m_buffering.IsComplete()) {
        m_buffering.Reset();
        m_pausedWhilePlaying = false;
    }
    state.playStateToReport = kStateStarted;
}

/// Begins playback at 1x, or posts the start again until enough is buffered.
OPALError StreamingController::StartWhenReady(LoopState& state) {
    state.playing = false;
    m_jumpPending = false;
    if (m_stopRequested)
        return OPAL_OK;
    const OPALError code = IsReadyToStart();
    if (code == OPAL_OK)
        DeclareStarted(state);
    else if (code == OPAL_ERROR_NOT_YET)
        return Post(MSG_START);
    return code;
}

OPALError StreamingController::HandleStart(LoopState& state) {
    const OPALError code = StartWhenReady(state);
    if (state.playing)
        state.lastPositionReport = opal::Now();
    return code;
}

OPALError StreamingController::HandleTrickStarted(LoopState& state) {
    state.playing = false;
    m_jumpPending = false;
    if (m_stopRequested)
        return OPAL_OK;
    ReportPause();  // on every repost, deliberately
    const OPALError code = IsReadyToStart();
    if (code == OPAL_ERROR_NOT_YET) {
        (void)Post(MSG_TRICK_STARTED);
        return OPAL_OK;
    }
    if (code != OPAL_OK)
        return code;
    state.playing = true;
    ReportPlayRate();
    state.playStateToReport = kStateStarted;
    return OPAL_OK;
}

// The pace of all downloads: a reader waits after each cluster until it is woken here.
OPALError StreamingController::HandleVideoCluster(LoopState& state) {
    int readerState = STREAMING_READER_ERROR;
    OPALError code = m_pReaders->GetVideoState(readerState);
    if (code == OPAL_OK && state.playing && m_playRate == OPAL_PLAYRATE_ONEX &&
        readerState != STREAMING_READER_END)
        code = DoSwitchLevel();
    if (code == OPAL_OK)
        code = m_pReaders->StartVideo();
    if (code != OPAL_OK)
        return code;
    constexpr int64_t kMostAudioAheadMs = 5000;
    int64_t audio = 0;
    int64_t video = 0;
    (void)BufferedDuration(OPAL_STREAM_AUDIO, audio);
    (void)BufferedDuration(OPAL_STREAM_VIDEO, video);
    m_audioAhead = audio - video > kMostAudioAheadMs;
    return m_audioAhead ? OPAL_OK : m_pReaders->StartAudio();
}

// Polls until the buffer has drained below one trick cluster, which bounds the read-ahead.
OPALError StreamingController::HandleTrickCluster(size_t argument) {
    if (m_playRate != OPAL_PLAYRATE_ONEX && argument == m_trickEpoch)
        m_trickClusterArrived = true;
    if (m_pVideoBuffer->GetBufferedDuration() <
        StreamingTuning::Instance().GetTrickClusterDuration())
        return m_pReaders->StartVideo();
    (void)Post(MSG_TRICK_CLUSTER, argument);
    return OPAL_OK;
}

/// False if the session has been terminated.
bool StreamingController::WatchBuffer(LoopState& state) {
    Lock lock(m_mutex);
    if (!state.playing || m_jumpPending)
        return true;
    int64_t buffered = 0;
    if (m_playRate == OPAL_PLAYRATE_ONEX &&
        BufferedDuration(OPAL_STREAM_VIDEO, buffered) == OPAL_OK && buffered < kUnderflowMs)
        return HandleUnderflow(state);
    if (!state.writersStartPending)
        return true;
    const OPALError code = StartWriters();
    if (code != OPAL_OK) {
        (void)Terminate(code);
        return false;
    }
    state.writersStartPending = false;
    return true;
}

bool StreamingController::HandleUnderflow(LoopState& state) {
    int readerState = STREAMING_READER_ERROR;
    // At its end, what is buffered is all there will be.
    if (m_pReaders->GetVideoState(readerState) != OPAL_OK || readerState == STREAMING_READER_END)
        return true;
    const OPALError code = PauseWriters();
    if (code != OPAL_OK) {
        (void)Terminate(code);
        return false;
    }
    state.writersStartPending = true;
    RestartSwitching(OPAL_STREAM_VIDEO);
    state.playing = false;
    (void)Post(MSG_START);
    ReportUnderflow();
    ArmBuffering(true, false, false);
    return true;
}

void StreamingController::ReportBuffering(LoopState& state) {
    if (!m_pNotify)
        return;
    if (BufferingProgress(state.bufferingPercent) != OPAL_OK) {
        state.reportedPercent = kNone;
        return;
    }
    if (state.bufferingPercent == state.reportedPercent)
        return;
    state.reportedPercent = state.bufferingPercent;
    Tell([&](IStreamingControllerNotify& listener) {
        listener.OnBufferingProgress(state.bufferingPercent);
    });
}

OPALError StreamingController::IsReadyToStart() {
    Lock lock(m_mutex);
    bool ready = false;
    if (GetState() == CONTROLLER_TRICK) {
        ready = m_trickClusterArrived;
    } else {
        ready = m_pSwitching->IsVideoBuffered() &&
                (m_pSMILParser->GetAudioTrackCount() == 0 || m_pSwitching->IsAudioBuffered());
        if (!ready) {
            int readerState = STREAMING_READER_ERROR;
            const OPALError code = m_pReaders->GetVideoState(readerState);
            if (code != OPAL_OK)
                return code;
            ready = readerState == STREAMING_READER_END;
        }
    }
    if (!ready)
        return OPAL_ERROR_NOT_YET;
    if (m_pNotify && m_buffering.IsActive()) {
        Tell([](IStreamingControllerNotify& listener) { listener.OnBufferingProgress(100); });
        m_buffering.Reset();
        m_pausedWhilePlaying = false;
    }
    return StartWriters();
}
