#include <utility>

#include "Common/Clock.h"
#include "Common/SessionEventStream.h"
#include "Common/logging/ILogEventSender.h"
#include "Common/logging/LogEvent.h"
#include "Common/logging/LogServer.h"
#include "SMILParser/ISMILParser.h"
#include "StreamSwitchingAlgorithm/PlaybackRules.h"
#include "StreamingController/PlayReportConfig.h"
#include "StreamingController/src/NoThrow.h"
#include "StreamingController/src/Session.h"
#include "StreamingDemux/EBML/IClusterBuffer.h"
#include "StreamingReader/IStreamingReader.h"
#include "StreamingReader/Readers.h"
#include "StreamingWriter/IStreamingWriter.h"

namespace {

using opal::IsOver;
using opal::PlayReport;

constexpr int64_t kPositionPeriodMs = 999;
constexpr int64_t kStartAgainMs = 999;

}  // namespace

StreamingController::LoopState::LoopState()
    : lastPositionReport(opal::Now()), lastStart(opal::Now()), lastLogFlush(opal::Now()) {}

// Nothing may leave the thread; least of all an exception of the listener's. Without memory even a
// line of the log may throw.
OPALError StreamingController::EventLoop() {
    const auto shielded = [this](const auto& action) {
        const OPALError code = opal::NoThrow([&] {
            action();
            return OPAL_OK;
        });
        if (code == OPAL_OK)
            return;
        (void)opal::NoThrow([&] {
            LOG4CXX_ERROR(logger, "StreamingController::EventLoop - exception, code " << code);
            return OPAL_OK;
        });
        // It marks the session as ended before it tells anyone.
        (void)opal::NoThrow([&] { return Terminate(code); });
    };
    LoopState state;
    while (!IsTerminated()) {
        opal::SleepMs(opal::playback::kTurnMs);
        shielded([&] { RunTurn(state); });
    }
    shielded([&] { LeaveLoop(); });
    return OPAL_OK;
}

void StreamingController::LeaveLoop() {
    m_session->reports.Stop();
    (void)ReportPlayState(PlayReport::Ended);
}

void StreamingController::RunTurn(LoopState& state) {
    if (m_pLogSender && IsOver(state.lastLogFlush, m_pLogSender->GetTransactionInterval() - 1)) {
        LogServer::Instance().Flush();
        state.lastLogFlush = opal::Now();
    }
    if (!CheckHealth(state))
        return;
    WatchPlayback(state);
    const OPALError code = HandleMessage(state);
    if (!WatchBuffer(state))
        return;
    if (code != OPAL_OK)
        (void)Terminate(code);
    if (m_session->reports.HasListener()) {
        if (m_terminated || m_session->GetBufferingProgress(state.bufferingPercent) != OPAL_OK) {
            state.reportedPercent = kNone;
        } else if (state.bufferingPercent != state.reportedPercent) {
            state.reportedPercent = state.bufferingPercent;
            m_session->reports.BufferingProgress(state.bufferingPercent);
        }
    }
    bool writersPaused = false;
    {
        opal::RecursiveLock lock(m_mutex);
        if (opal::SessionEventStream::IsObserved())
            m_session->ObserveBuffers(state.playing);
        writersPaused = m_writersPaused;
    }
    const OPALError reported =
        ReportPlayState(writersPaused ? PlayReport::WritersPaused : PlayReport::Playing);
    if (reported != OPAL_OK)
        (void)Terminate(reported);
}

/// False if the session has been terminated.
bool StreamingController::CheckHealth(LoopState& state) {
    opal::RecursiveLock lock(m_mutex);
    OPALError code = m_session->objects.ReaderError();
    if (code != OPAL_OK)
        LOG4CXX_ERROR(logger,
                      "StreamingController::EventLoop - Error in streaming reader:" << code);
    for (opal::StreamPipe* pipe : {&m_session->video, &m_session->audio, &m_session->subtitle}) {
        if (code != OPAL_OK)
            break;
        code = pipe->WriterError();
        if (code != OPAL_OK)
            LOG4CXX_ERROR(logger,
                          "StreamingController::EventLoop - Error in streaming writer:" << code);
    }
    m_session->EndLevelSwitch();
    if (code == OPAL_OK && !m_session->stopRequested && m_playRate == OPAL_PLAYRATE_ONEX) {
        code = m_session->GiveUpSlowTransfer(state.playing);
        // The transfer that a switch waits for may end without a cluster.
        if (code == OPAL_OK && m_session->levelSwitch.Waits() && !m_pReaders->IsVideoTransferring())
            code = HandleVideoCluster(state);
    }
    if (code == OPAL_OK && m_session->audioRoad.IsPending())
        code = EndAudioSelection(m_session->audioRoad.Continue());
    if (code == OPAL_OK && m_session->subtitles.GetState() == opal::SubtitleRoad::State::Failed)
        code = DropSubtitles(state);
    if (code != OPAL_OK)
        (void)Terminate(code);
    return code == OPAL_OK;
}

// A subtitle stream that fails is no reason to end the film: subtitles turn themselves off.
OPALError StreamingController::DropSubtitles(LoopState& state) {
    LOG4CXX_ERROR(logger,
                  "Subtitles are turned off, their stream failed:" << m_session->subtitles.Error());
    const bool wanted = m_session->subtitles.DropFailed();
    return wanted ? EndSubtitleSelection(state) : OPAL_OK;
}

void StreamingController::WatchPlayback(LoopState& state) {
    opal::RecursiveLock lock(m_mutex);
    int64_t position = 0;
    if (!state.playing || m_session->jumpPending ||
        m_pVideoPlatform->GetPosition(position) != OPAL_OK)
        return;
    if (position > 0 && IsOver(state.lastPositionReport, kPositionPeriodMs)) {
        size_t level = kNone;
        (void)m_pVideoWriter->GetLevelForTime(position, level);
        m_positionSeconds = position / 1000;
        m_session->reports.Position(position, level);
        state.lastPositionReport = opal::Now();
    }
    // The player starts with a block that comes after it is ready. So little may be left to play
    // that none comes any more.
    if (position == 0 && !m_writersPaused && IsOver(state.lastStart, kStartAgainMs)) {
        (void)m_pVideoPlatform->SetPaused(false);
        state.lastStart = opal::Now();
    }
    if (m_session->video.IsEndOfStream()) {
        m_session->reports.EndOfStream();
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
        opal::RecursiveLock lock(m_mutex);
        code = Dispatch(message, state);
    }
    if (state.playStateToReport == kNoPlayState)
        return code;
    const OPALError reported = ReportPlayState(state.playStateToReport);
    return code != OPAL_OK ? code : reported;
}

OPALError StreamingController::Dispatch(const StreamingControllerMessage& message,
                                        LoopState& state) {
    const bool stopped = m_session->stopRequested;
    const bool normalRate = m_playRate == OPAL_PLAYRATE_ONEX;
    switch (message.kind) {
        case MSG_PAUSED:
            if (state.playing)
                m_pausedWhilePlaying = true;
            state.playing = false;
            m_session->reports.Pause();
            state.playStateToReport = PlayReport::Paused;
            return OPAL_OK;
        case MSG_STOP:
            return HandleStop(state);
        case MSG_SET_AUDIO_TRACK:
            // An operation of the application's opens the first track now.
            if (m_session->audioOpeners != 0)
                return Post(message.kind, message.argument);
            m_session->reportAudio = true;
            m_audioAhead = false;
            return EndAudioSelection(m_session->audioRoad.Select(message.argument));
        case MSG_SET_SUBTITLE_TRACK:
            return HandleSetSubtitleTrack(message.argument, state);
        case MSG_SUBTITLE_PENDING:
            return HandleSubtitlePending(message.argument, state);
        case MSG_START: {
            const OPALError code = StartWhenReady(state);
            if (state.playing)
                state.lastPositionReport = opal::Now();
            return code;
        }
        case MSG_VIDEO_CLUSTER:
            return stopped ? OPAL_OK : HandleVideoCluster(state);
        case MSG_AUDIO_CLUSTER:
            return stopped || !normalRate || m_audioAhead ? OPAL_OK
                                                          : m_session->audioRoad.StartReader();
        case MSG_SUBTITLE_CLUSTER:
            return stopped || !normalRate ? OPAL_OK : m_session->subtitles.StartReader();
        case MSG_TRICK_CLUSTER:
            if (stopped)
                return OPAL_OK;
            if (!normalRate && message.argument == m_session->trickEpoch)
                m_trickClusterArrived = true;
            // Posted again until the buffer has drained below one trick cluster, which bounds the
            // read-ahead.
            return m_session->HasRoomForTrickCluster() ? m_session->video.StartReader()
                                                       : Post(message.kind, message.argument);
        case MSG_TRICK_STARTED:
            return HandleTrickStarted(state);
        case MSG_SEEK_DONE:
            return StartWhenReady(state);
        default:
            return OPAL_OK;
    }
}

// A stop also lets nothing start a reader that is still queued, or comes from a transfer that was
// running; but a start that the application asked for after it holds.
OPALError StreamingController::HandleStop(LoopState& state) {
    const OPALError code = m_pReaders->StopAll();
    m_session->audioRoad.Stop();
    m_session->levelSwitch.EndWaiting();
    state.playing = false;
    m_session->stopRequested = m_session->startSequence == m_session->stopSequence;
    m_session->reports.Stop();
    // What a failed subtitle stream answers comes last, and ends nothing.
    if (code != OPAL_OK && code != m_session->subtitles.Error())
        return code;
    if (m_session->stopRequested)
        return OPAL_OK;
    OPALError started = OPAL_OK;
    if (m_playRate == OPAL_PLAYRATE_ONEX)
        started = m_session->audioRoad.StartReader();
    if (started == OPAL_OK)
        started = m_session->video.StartReader();
    return started == OPAL_OK && m_playRate == OPAL_PLAYRATE_ONEX
               ? m_session->subtitles.StartReader()
               : started;
}

/// What becomes of the selection of an audio track, `code` being what the road answers.
OPALError StreamingController::EndAudioSelection(OPALError code) {
    if (code == OPAL_ERROR_NOT_YET)
        return OPAL_OK;  // Continue is called on the next turn
    const bool report = std::exchange(m_session->reportAudio, false);
    m_audioAhead = false;
    if (code == OPAL_ERROR_AUDIO_UNSUPPORTED) {
        m_session->reports.UnsupportedAudio();
        return OPAL_OK;
    }
    if (code != OPAL_OK || !report)
        return code;
    m_session->reports.AudioTrack(m_session->audio.CurrentIndex());
    return ReportPlayState(GetState() == CONTROLLER_PAUSED ? PlayReport::Paused
                                                           : PlayReport::Started);
}

OPALError StreamingController::HandleSetSubtitleTrack(size_t index, LoopState& state) {
    OPALError code = SetSubtitleTrackInternal(index);
    if (code == OPAL_ERROR_NO_MEMORY)
        return OPAL_OK;  // deliberate: a track that cannot be had is ignored without any word
    if (code != OPAL_OK)
        return code;
    if (index == kNone)
        return EndSubtitleSelection(state);
    m_session->subtitles.BeginPending(index, m_writersPaused);
    code = PauseWriters();
    if (code == OPAL_OK) {
        state.playing = false;
        m_session->subtitles.ArmBuffering();
        m_session->reports.Pause();
    }
    (void)Post(MSG_SUBTITLE_PENDING, index);
    return code;
}

OPALError StreamingController::HandleSubtitlePending(size_t index, LoopState& state) {
    opal::SubtitleRoad& subtitles = m_session->subtitles;
    if (!subtitles.IsPending(index))
        return OPAL_OK;
    const OPALError code = subtitles.Continue(index);
    if (code == OPAL_ERROR_NOT_YET)
        return Post(MSG_SUBTITLE_PENDING, index);
    if (code != OPAL_OK)
        return subtitles.Error() != OPAL_OK ? DropSubtitles(state) : code;
    const OPALError resumed = EndSubtitleSelection(state);
    state.playStateToReport =
        GetState() == CONTROLLER_PAUSED ? PlayReport::Paused : PlayReport::Started;
    return resumed;
}

// A selection that was under way has come to an end, whether the track runs now, was switched off
// or failed; playback, which was held for it, goes on.
OPALError StreamingController::EndSubtitleSelection(LoopState& state) {
    bool writersPaused = m_writersPaused;
    const bool wasHeld = m_session->subtitles.EndPending(writersPaused);
    if (wasHeld) {
        state.writersStartPending = true;
        m_writersPaused = writersPaused;
    }
    m_session->reports.SubtitleTrack(m_session->subtitles.Current(),
                                     m_session->subtitles.CurrentAsset());
    if (!wasHeld || m_session->stopRequested)
        return OPAL_OK;
    if (IsReadyToStart() == OPAL_OK)
        state.playing = true;
    else
        (void)Post(MSG_START);
    return OPAL_OK;
}

/// Begins playback at 1x, or posts the start again until enough is buffered.
OPALError StreamingController::StartWhenReady(LoopState& state) {
    state.playing = false;
    m_session->EndJump();
    if (m_session->stopRequested)
        return OPAL_OK;
    const OPALError code = IsReadyToStart();
    if (code == OPAL_ERROR_NOT_YET)
        return Post(MSG_START);
    if (code != OPAL_OK)
        return code;
    state.playing = true;
    m_session->MarkStarted();
    state.lastStart = opal::Now();
    Trace("READY TO PLAY!!! : time=");
    m_session->reports.Play(m_playRate, m_session->video.CurrentIndex(),
                            m_session->audio.CurrentIndex(), m_session->subtitles.Current(),
                            m_session->audioRoad.CurrentAsset(),
                            m_session->subtitles.CurrentAsset());
    if (m_buffering.IsActive() && m_buffering.IsComplete()) {
        m_buffering.Reset();
        m_pausedWhilePlaying = false;
    }
    state.playStateToReport = PlayReport::Started;
    return OPAL_OK;
}

OPALError StreamingController::HandleTrickStarted(LoopState& state) {
    state.playing = false;
    m_session->EndJump();
    if (m_session->stopRequested)
        return OPAL_OK;
    m_session->reports.Pause();  // on every repost, deliberately
    const OPALError code = IsReadyToStart();
    if (code == OPAL_ERROR_NOT_YET)
        return Post(MSG_TRICK_STARTED);
    if (code != OPAL_OK)
        return code;
    state.playing = true;
    m_session->MarkStarted();
    m_session->reports.PlayRate(m_playRate);
    state.playStateToReport = PlayReport::Started;
    return OPAL_OK;
}

// The pace of all downloads: a reader waits after each cluster until it is woken here.
OPALError StreamingController::HandleVideoCluster(LoopState& state) {
    const bool atEnd = m_session->video.ReaderState() == STREAMING_READER_END;
    OPALError code = OPAL_OK;
    if (opal::playback::MaySwitchLevel(state.playing, m_playRate == OPAL_PLAYRATE_ONEX, atEnd)) {
        Trace("DoSwitchLevel");
        code = m_session->SwitchLevel(false);
    }
    // Behind a switch that waits for the transfer that runs, nothing else is to be fetched first.
    if (code == OPAL_OK) {
        if (m_session->levelSwitch.Waits())
            m_session->levelSwitch.EndWaiting();
        code = m_session->video.StartReader();
    }
    if (code != OPAL_OK && code != OPAL_ERROR_NOT_YET)
        return code;
    m_audioAhead = opal::playback::IsAudioTooFarAhead(m_session->audio.BufferedDuration(),
                                                      m_session->video.BufferedDuration());
    return m_audioAhead ? OPAL_OK : m_session->audioRoad.StartReader();
}

/// False if the session has been terminated.
bool StreamingController::WatchBuffer(LoopState& state) {
    opal::RecursiveLock lock(m_mutex);
    if (!state.playing || m_session->jumpPending)
        return true;
    const int64_t buffered = m_session->video.BufferedDuration();
    const bool low = m_playRate == OPAL_PLAYRATE_ONEX && buffered < opal::playback::kUnderflowMs;
    // At its end, what is buffered is all there will be.
    if (low && !opal::playback::IsUnderflow(buffered,
                                            m_session->video.ReaderState() == STREAMING_READER_END))
        return true;
    if (!low && !state.writersStartPending)
        return true;
    const OPALError code = low ? PauseWriters() : StartWriters();
    if (code != OPAL_OK) {
        (void)Terminate(code);
        return false;
    }
    state.writersStartPending = low;
    if (!low)
        return true;
    m_session->objects.RestartSwitching(OPAL_STREAM_VIDEO);
    state.playing = false;
    (void)Post(MSG_START);
    m_session->reports.Underflow(m_session->video.CurrentIndex());
    m_session->objects.ArmBuffering(OPAL_STREAM_VIDEO);
    return true;
}

OPALError StreamingController::IsReadyToStart() {
    bool ready = false;
    if (GetState() == CONTROLLER_TRICK)
        ready = m_trickClusterArrived;
    else
        ready = opal::playback::IsReadyToPlay(
            m_pSwitching->IsVideoBuffered(), m_pSMILParser->GetAudioTrackCount() != 0,
            m_pSwitching->IsAudioBuffered(),
            m_session->video.ReaderState() == STREAMING_READER_END);
    if (!ready)
        return OPAL_ERROR_NOT_YET;
    if (m_session->reports.HasListener() && m_buffering.IsActive()) {
        m_session->reports.BufferingProgress(100);
        m_buffering.Reset();
        m_pausedWhilePlaying = false;
    }
    return StartWriters();
}

// The report is made by a thread of the ticket's session; what became of the earlier ones is told
// here, so that only the loop posts.
OPALError StreamingController::ReportPlayState(int playState) {
    opal::TicketSession& ticket = m_session->ticket;
    const PlayReportConfig& config = PlayReportConfig::Instance();
    if (!ticket.IsReporting() || !config.IsEnabled())
        return OPAL_OK;
    m_session->PostPulseErrors();
    const bool periodic =
        playState == PlayReport::Playing || playState == PlayReport::WritersPaused;
    if (periodic &&
        (config.GetInterval() == 0 ||
         (!m_lastPlayReport.is_special() && !IsOver(m_lastPlayReport, config.GetInterval() - 1))))
        return OPAL_OK;
    PlayReport report;
    report.state = playState;
    if (m_pVideoPlatform) {
        const OPALError code = m_pVideoPlatform->GetPosition(report.positionMs);
        if (code != OPAL_OK)
            return code;
    }
    if (periodic)
        m_lastPlayReport = opal::Now();
    report.bandwidth = m_session->objects.ReportedBandwidth();
    report.audioAsset = m_session->audioRoad.CurrentAsset();
    report.subtitleAsset = m_session->subtitles.CurrentAsset();
    ticket.Report(report);
    return OPAL_OK;
}
