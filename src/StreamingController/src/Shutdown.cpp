#include "Common/Clock.h"
#include "Common/logging/ILogEventSender.h"
#include "Common/logging/LogServer.h"
#include "ContentSession/IProtectedContent.h"
#include "PlatformAdapter/Mstar/HABArch.h"
#include "PlatformAdapter/Mstar/HABTimer.h"
#include "SMILParser/ISMILParser.h"
#include "StreamingController/src/DelayedRaise.h"
#include "StreamingController/src/NoThrow.h"
#include "StreamingController/src/Session.h"
#include "StreamingDemux/EBML/IClusterBuffer.h"
#include "StreamingReader/Readers.h"
#include "StreamingWriter/IStreamingWriter.h"

namespace {

/// What the last play report has, and behind it the log.
constexpr std::chrono::milliseconds kLastWords(1000);
constexpr int64_t kPollMs = 5;

void StopLogSender(boost::scoped_ptr<ILogEventSender>& sender) {
    if (!sender)
        return;
    LogServer::Instance().Stop(kLastWords.count());
    (void)sender->Shutdown();
    sender.reset();
}

/// A shutdown is under way while it lives.
class FinalizingScope {
  public:
    explicit FinalizingScope(std::atomic<int>& count) : m_count(count) { ++m_count; }
    ~FinalizingScope() { --m_count; }
    FinalizingScope(const FinalizingScope&) = delete;
    FinalizingScope& operator=(const FinalizingScope&) = delete;

  private:
    std::atomic<int>& m_count;
};

}  // namespace

// Finalize waits for threads, and three things could make them wait in turn: a transfer or a call
// of a service, the player (a refused payload, a text on the screen), and a lock, held by an
// operation that waits for one of the first two. All of them look at the stop signal.
OPALError StreamingController::Finalize() {
    return opal::NoThrow([&] {
        if (m_session->reports.IsCalling())
            return OPAL_ERROR_GENERAL;  // it would wait for its own thread
        const FinalizingScope finalizing(m_session->finalizing);
        m_stop.Raise();
        opal::MutexLock lifecycle(m_lifecycleMutex);
        EndLoop();
        opal::RecursiveLock lock(m_mutex);
        const OPALError code = TearDown(false);
        m_session->reports.Observe(opal::SessionState::Closed);
        return code;
    });
}

// A second Initialize... without a Finalize between: the running session must not go on with the
// new one's manifest.
void StreamingController::EndPreviousSession() {
    if (!m_hArch && !m_thread.joinable() && !m_pLogSender)
        return;
    m_stop.Raise();
    EndLoop();
    opal::RecursiveLock lock(m_mutex);
    (void)TearDown(true);
}

void StreamingController::EndLoop() {
    const opal::DelayedRaise last(m_session->lastStop, kLastWords);
    (void)Terminate(OPAL_ERROR_TERMINATED);
    if (m_thread.joinable())
        m_thread.join();
    // Operations that open audio end with the stop signal, and no other begins.
    while (m_session->audioOpeners != 0)
        opal::SleepMs(kPollMs);
    m_session->ticket.Finish();
    m_session->PostPulseErrors();
    m_session->logStop.Raise();
    StopLogSender(m_pLogSender);
}

OPALError StreamingController::TearDown(bool keepForNextSession) {
    if (m_pSwitching)
        m_pSwitching->SetClusterIndexes(nullptr);
    if (m_pReaders)
        (void)m_pReaders->Finalize();
    // A leftover start would play the next session unasked.
    StreamingControllerMessage leftover;
    while (m_queue.Pop(leftover)) {
    }
    m_session->objects.Publish<Readers>(m_pReaders, nullptr);
    opal::StreamPipe* const pipes[] = {&m_session->video, &m_session->audio, &m_session->subtitle};
    for (opal::StreamPipe* pipe : pipes)
        pipe->DropWriter();
    // One sink is gone before the next is flushed.
    const OPALError video = m_session->video.DropSink();
    const OPALError audio = m_session->audio.DropSink();
    const OPALError subtitle = m_session->subtitle.DropSink();
    {
        opal::ExclusiveLock objects(m_objectsMutex);
        if (m_hTimer)
            (void)HABTimer_Delete(m_hTimer);
        m_hTimer = nullptr;
        if (m_hArch)
            (void)HABArch_Delete(m_hArch);
        m_hArch = nullptr;
    }
    for (opal::StreamPipe* pipe : pipes)
        pipe->DropBuffer(keepForNextSession);
    if (m_pProtectedContent && m_sessionContent && !keepForNextSession) {
        (void)m_pProtectedContent->Close();
        m_pProtectedContent.reset();
    }
    m_session->objects.Publish<ISMILParser>(m_pSMILParser, nullptr);
    m_session->objects.Publish<BandwidthProbe>(m_pProbe, nullptr);
    m_pReaderNotify.reset();
    m_pSubtitleNotify.reset();
    if (!keepForNextSession) {
        m_pSwitching.reset();
        m_pNotify = nullptr;
    }
    ResetFigures();
    if (audio != OPAL_OK)
        return audio;
    return video != OPAL_OK ? video : subtitle;
}

void StreamingController::ResetFigures() {
    m_probeNotify.controller = nullptr;
    m_session->Reset();
    m_buffering.Reset();
    m_initialized = false;
    m_writersPaused = false;
    m_playRate = OPAL_PLAYRATE_ONEX;
    m_trickClusterArrived = false;
    m_duration = 0;
    m_positionSeconds = 0;
    m_sessionContent = false;
    m_pausedWhilePlaying = false;
    m_audioAhead = false;
    m_lastVideoSample = m_lastAudioSample = StreamSwitchingNotify::Message();
    m_timeInitDone = m_lastPlayReport = Ptime();
}

// The first call wins. What fails while the session is being finalised fails because of that, and
// is no error to tell.
OPALError StreamingController::Terminate(OPALError code) {
    opal::RecursiveLock lock(m_mutex);
    if (m_terminated)
        return m_error;
    m_error = m_stop.IsRaised() ? OPAL_ERROR_TERMINATED : code;
    m_terminated = true;
    if (m_error != OPAL_ERROR_TERMINATED)
        m_session->reports.Error(m_error, m_session->ticket.ErrorText(m_error));
    return m_error;
}
