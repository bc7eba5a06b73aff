#include "Common/Clock.h"
#include "Common/logging/ILogEventSender.h"
#include "Common/logging/LogEvent.h"
#include "Common/logging/LogServer.h"
#include "ContentSession/IProtectedContent.h"
#include "PlatformAdapter/Mstar/HABArch.h"
#include "PlatformAdapter/Mstar/HABTimer.h"
#include "SMILParser/ISMILParser.h"
#include "StreamingController/src/CallbackScope.h"
#include "StreamingController/src/FinalizingScope.h"
#include "StreamingDemux/EBML/IClusterBuffer.h"
#include "StreamingReader/Readers.h"
#include "StreamingWriter/IStreamingWriter.h"

bool StreamingController::IsInCallback() const {
    return CallbackScope::IsCalling(this);
}

// Finalize waits for threads, and three things could make them wait in turn: a transfer, the player
// (a refused payload, a text on the screen), and a lock, held by an operation that waits for one of
// the first two. All of them look at the stop signal.
OPALError StreamingController::Finalize() {
    if (IsInCallback())
        return OPAL_ERROR_GENERAL;  // it would wait for its own thread
    FinalizingScope finalizing(m_finalizing);
    m_stop.Raise();
    boost::lock_guard<boost::mutex> lifecycle(m_lifecycleMutex);
    EndLoop();
    StopLogSender();
    Lock lock(m_mutex);
    return TearDown(false);
}

// A second Initialize... without a Finalize between: the running session must not go on with the
// new one's manifest.
void StreamingController::EndPreviousSession() {
    if (!m_hArch && !m_thread.joinable() && !m_pLogSender)
        return;
    FinalizingScope finalizing(m_finalizing);
    m_stop.Raise();
    EndLoop();
    StopLogSender();
    Lock lock(m_mutex);
    (void)TearDown(true);
}

void StreamingController::EndLoop() {
    (void)Terminate(OPAL_ERROR_TERMINATED);
    if (m_thread.joinable())
        m_thread.join();
}

void StreamingController::StopLogSender() {
    if (!m_pLogSender)
        return;
    LogServer::Instance().Stop();
    (void)m_pLogSender->Shutdown();
    m_pLogSender.reset();
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
    Publish<Readers>(m_pReaders, nullptr);
    for (boost::scoped_ptr<IStreamingWriter>* writer :
         {&m_pVideoWriter, &m_pAudioWriter, &m_pSubtitleWriter}) {
        if (*writer)
            (void)(*writer)->Finalize();
        Publish<IStreamingWriter>(*writer, nullptr);
    }
    const OPALError video = DropSink(m_pVideoPlatform);
    const OPALError audio = DropSink(m_pAudioPlatform);
    const OPALError subtitle = DropSink(m_pSubtitlePlatform);
    DropHandlesAndBuffers(keepForNextSession);
    if (m_pProtectedContent && m_sessionContent && !keepForNextSession) {
        (void)m_pProtectedContent->Close();
        m_pProtectedContent.reset();
    }
    DropObjects(keepForNextSession);
    ResetFigures();
    if (!keepForNextSession)
        m_pNotify = nullptr;
    if (audio != OPAL_OK)
        return audio;
    return video != OPAL_OK ? video : subtitle;
}

/// Answers what the sink's last flush answered. One sink is gone before the next is flushed.
OPALError StreamingController::DropSink(boost::scoped_ptr<IPlatform>& sink) {
    if (!sink)
        return OPAL_OK;
    const OPALError flushed = sink->Flush();
    if (&sink == &m_pVideoPlatform)
        (void)sink->Stop();
    Publish<IPlatform>(sink, nullptr);
    return flushed;
}

void StreamingController::DropHandlesAndBuffers(bool keepBuffers) {
    boost::unique_lock<boost::shared_mutex> lock(m_objectsMutex);
    if (m_hTimer)
        (void)HABTimer_Delete(m_hTimer);
    m_hTimer = nullptr;
    if (m_hArch)
        (void)HABArch_Delete(m_hArch);
    m_hArch = nullptr;
    for (boost::scoped_ptr<IClusterBuffer>* buffer :
         {&m_pVideoBuffer, &m_pAudioBuffer, &m_pSubtitleBuffer}) {
        if (!keepBuffers)
            buffer->reset();
        else if (*buffer)
            (void)(*buffer)->Clear();
    }
}

void StreamingController::DropObjects(bool keepForNextSession) {
    Publish<ISMILParser>(m_pSMILParser, nullptr);
    Publish<BandwidthProbe>(m_pProbe, nullptr);
    m_probeNotify.controller = nullptr;
    m_pReaderNotify.reset();
    m_pSubtitleNotify.reset();
    m_configureAudio = nullptr;
    m_configureSubtitles = nullptr;
    if (!keepForNextSession)
        m_pSwitching.reset();
}

void StreamingController::ResetFigures() {
    m_buffering.Reset();
    m_initialized = false;
    m_writersPaused = m_savedWritersPaused = false;
    m_playRate = OPAL_PLAYRATE_ONEX;
    m_subtitlesOn = false;
    m_trickClusterArrived = false;
    m_duration = 0;
    m_positionSeconds = 0;
    m_subtitleTargetBytes = 0;
    m_sessionContent = false;
    m_pausedWhilePlaying = false;
    m_audioAhead = false;
    m_lastVideoSample = m_lastAudioSample = StreamSwitchingNotify::Message();
    m_timeInitDone = m_lastPlayReport = Ptime();
    m_stopRequested = false;
    m_startSequence = m_stopSequence = 0;
    m_jumpPending = false;
    m_pendingSubtitle = kNone;
}

// The first call wins. What fails while the session is being finalised fails because of that, and
// is no error to tell.
OPALError StreamingController::Terminate(OPALError code) {
    Lock lock(m_mutex);
    if (m_terminated)
        return m_error;
    m_error = m_finalizing != 0 ? OPAL_ERROR_TERMINATED : code;
    m_terminated = true;
    if (m_error != OPAL_ERROR_TERMINATED) {
        LogServer::Instance().PostOrDestroy(LogEventFactory::Instance().NewErrorLogEvent(m_error));
        const std::string text = ContentErrorText(m_error);
        Tell(
            [&](IStreamingControllerNotify& listener) { listener.OnError(m_error, text.c_str()); });
    }
    return m_error;
}
