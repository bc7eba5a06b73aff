#include "Common/Clock.h"
#include "Common/OPALPlayRate.h"
#include "Common/logging/LogEvent.h"
#include "Common/logging/LogServer.h"
#include "PlatformAdapter/Mstar/HABTimer.h"
#include "SMILParser/ISMILParser.h"
#include "StreamingController/src/NoThrow.h"
#include "StreamingController/src/Session.h"
#include "StreamingDemux/EBML/IClusterBuffer.h"
#include "StreamingReader/IStreamingReader.h"
#include "StreamingReader/Readers.h"
#include "StreamingWriter/IStreamingWriter.h"

namespace {

constexpr int64_t kPollMs = 5;

/// A jump that fails, by a code or by an exception, is not pending any more.
class JumpGuard {
  public:
    explicit JumpGuard(bool& pending) : m_pending(pending), m_before(pending) {}
    ~JumpGuard() {
        if (!m_kept)
            m_pending = m_before;
    }
    JumpGuard(const JumpGuard&) = delete;
    JumpGuard& operator=(const JumpGuard&) = delete;
    void Keep() { m_kept = true; }

  private:
    bool& m_pending;
    const bool m_before;
    bool m_kept = false;
};

bool IsRate(OPALPlayRate rate) {
    size_t take = 0;
    size_t skip = 0;
    return GetRateFrameStep(rate, &take, &skip);
}

}  // namespace

/// Why a guarded operation may not run; 0 if it may.
OPALError StreamingController::Refusal() const {
    if (m_terminated)
        return m_error;
    return m_initialized ? OPAL_OK : OPAL_ERROR_NOT_READY;
}

OPALError StreamingController::Play() {
    return opal::NoThrow([&] {
        opal::RecursiveLock lock(m_mutex);
        OPALError code = Refusal();
        if (code != OPAL_OK)
            return code;
        Trace("StreamingController::Play : time=");
        code = PrepareAudio();  // another operation may change the rate meanwhile
        if (code == OPAL_OK && m_playRate != OPAL_PLAYRATE_ONEX)
            return SetPlayRate(m_playRate);
        if (code == OPAL_OK)
            code = StartPlayback();
        if (code != OPAL_OK)
            return code;
        m_session->AcceptStart();
        m_session->reports.Observe(opal::SessionState::PlayWanted);
        return Post(MSG_START);
    });
}

OPALError StreamingController::Pause() {
    return opal::NoThrow([&] {
        opal::RecursiveLock lock(m_mutex);
        OPALError code = Refusal();
        if (code == OPAL_OK)
            code = PauseWriters();
        if (code != OPAL_OK)
            return code;
        m_session->reports.Observe(opal::SessionState::PauseWanted);
        return Post(MSG_PAUSED);
    });
}

OPALError StreamingController::Stop() {
    return opal::NoThrow([&] {
        opal::RecursiveLock lock(m_mutex);
        const OPALError code = Refusal();
        if (code != OPAL_OK)
            return code;
        m_session->stopSequence = m_session->startSequence;
        return Post(MSG_STOP);
    });
}

OPALError StreamingController::Resume(int64_t positionMs) {
    return opal::NoThrow([&] {
        opal::RecursiveLock lock(m_mutex);
        OPALError code = Refusal();
        if (code == OPAL_OK && positionMs < 0)
            code = OPAL_ERROR_INVALID_ARGUMENT;
        if (code == OPAL_OK)
            code = PrepareAudio();
        if (code == OPAL_OK)
            code = OpenFirstAudioTrack(true);
        if (code == OPAL_OK)
            code = m_pReaders->BeginVideoStream(m_session->objects.LevelFromSwitching());
        JumpGuard guard(m_session->jumpPending);
        int64_t position = positionMs;
        if (code == OPAL_OK)
            m_session->reports.Observe(opal::SessionState::Seek, positionMs);
        if (code == OPAL_OK)
            code = SeekInternal(position);
        if (code == OPAL_OK)
            code = Play();
        if (code != OPAL_OK)
            return code;
        guard.Keep();
        LogServer::Instance().PostOrDestroy(
            LogEventFactory::Instance().NewResumeLogEvent(positionMs / 1000));
        return OPAL_OK;
    });
}

OPALError StreamingController::Seek(int64_t& positionMs) {
    return opal::NoThrow([&] {
        opal::RecursiveLock lock(m_mutex);
        OPALError code = Refusal();
        if (code != OPAL_OK)
            return code;
        if (!m_pReaders || !m_pVideoBuffer || !m_pVideoWriter || !m_pVideoPlatform)
            return OPAL_ERROR_NOT_READY;
        // Before anything is opened, stopped or flushed: a seek that cannot be done disturbs
        // nothing.
        if (positionMs < 0)
            return OPAL_ERROR_INVALID_ARGUMENT;
        code = PrepareAudio();
        JumpGuard guard(m_session->jumpPending);
        if (code == OPAL_OK)
            m_session->reports.Observe(opal::SessionState::Seek, positionMs);
        if (code == OPAL_OK)
            code = SeekInternal(positionMs);
        if (code != OPAL_OK)
            return code;
        guard.Keep();
        m_session->AcceptStart();
        return Post(MSG_SEEK_DONE, static_cast<uint32_t>(positionMs));
    });
}

OPALError StreamingController::SetPlayRate(OPALPlayRate rate) {
    return opal::NoThrow([&] {
        opal::RecursiveLock lock(m_mutex);
        if (m_terminated)
            return m_error;
        const bool trick = rate != OPAL_PLAYRATE_ONEX;
        if (trick && (!m_pSMILParser || m_pSMILParser->GetVideoTrickTrackCount() == 0))
            return OPAL_ERROR_OUT_OF_RANGE;
        if (!IsRate(rate))
            return OPAL_ERROR_INVALID_ARGUMENT;
        OPALError code = Refusal();
        if (code != OPAL_OK)
            return code;
        // A session that begins with trick play needs its sound when it comes back to 1x.
        code = PrepareAudio();
        if (code == OPAL_OK)
            code = OpenFirstAudioTrack(true);
        if (code != OPAL_OK)
            return code;
        JumpGuard guard(m_session->jumpPending);
        int message = MSG_START;
        opal::StateEvent wanted;
        wanted.state = opal::SessionState::RateWanted;
        wanted.rate = rate;
        m_session->reports.Observe(std::move(wanted));
        if (!trick && m_playRate == OPAL_PLAYRATE_ONEX) {
            m_writersPaused = false;
            code = StartPlayback();
        } else {
            if (trick || GetState() != CONTROLLER_TRICK)
                message = MSG_TRICK_STARTED;
            m_playRate = rate;
            code = ChangeRate(message == MSG_TRICK_STARTED);
        }
        if (code != OPAL_OK)
            return code;
        guard.Keep();
        m_session->AcceptStart();
        return Post(message);
    });
}

/// Opens the first audio track of a session that has none open, without m_mutex, since that takes
/// as long as the network takes. Within a call of the listener's, which holds m_mutex, the track is
/// only begun to be opened; an error then ends the session as any reader's does.
OPALError StreamingController::PrepareAudio() {
    opal::AudioRoad& road = m_session->audioRoad;
    if (!m_session->reports.IsCalling() && (m_session->audioOpeners != 0 || road.NeedsOpening())) {
        const bool opens = m_session->audioOpeners == 0;
        OPALError code = OPAL_OK;
        if (opens)
            ++m_session->audioOpeners;
        {
            const opal::RecursiveUnlock unlocked(m_mutex);
            if (opens)
                code = opal::NoThrow([&] { return road.OpenFirst(); });
            while (!opens && m_session->audioOpeners != 0)
                opal::SleepMs(kPollMs);
        }
        if (opens)
            --m_session->audioOpeners;
        const OPALError refused = Refusal();
        return refused != OPAL_OK ? refused : code;
    }
    return road.NeedsOpening() && m_session->audioOpeners == 0 ? road.BeginFirst() : OPAL_OK;
}

/// Makes audio track 0 the current one if the manifest has audio and none is. With
/// `tolerateUnsupported`, a track that the sink refuses is told to the listener and is no failure.
OPALError StreamingController::OpenFirstAudioTrack(bool tolerateUnsupported) {
    if (m_session->audioRoad.IsChosen() || m_pSMILParser->GetAudioTrackCount() == 0)
        return OPAL_OK;
    const OPALError code = m_session->audioRoad.Select(0);
    if (code == OPAL_ERROR_NOT_YET)
        return OPAL_OK;  // the loop ends what has begun
    if (code != OPAL_ERROR_AUDIO_UNSUPPORTED || !tolerateUnsupported)
        return code;
    m_session->reports.UnsupportedAudio();
    return OPAL_OK;
}

OPALError StreamingController::StartPlayback() {
    OPALError code = OpenFirstAudioTrack(true);
    if (code != OPAL_OK)
        return code;
    if (!m_pausedWhilePlaying && m_writersPaused) {
        m_session->objects.ArmBuffering(OPAL_STREAM_VIDEO);
        m_session->objects.ArmBuffering(OPAL_STREAM_AUDIO);
    }
    code = m_session->StartReaders();
    if (code == OPAL_OK)
        m_writersPaused = false;
    return code;
}

OPALError StreamingController::StartWriters() {
    const bool trick = GetState() == CONTROLLER_TRICK;
    OPALError code = m_session->video.StartWriter();
    if (code == OPAL_OK && !trick)
        code = m_session->audio.StartWriter();
    if (code == OPAL_OK && !trick)
        code = m_session->subtitles.StartWriter();
    if (code == OPAL_OK)
        m_writersPaused = false;
    return code;
}

OPALError StreamingController::PauseWriters() {
    OPALError code = m_session->video.PauseWriter();
    if (code == OPAL_OK)
        code = m_session->audio.PauseWriter();
    if (code == OPAL_OK)
        code = m_session->subtitles.PauseWriter();
    if (code == OPAL_OK)
        m_writersPaused = true;
    return code;
}

/// Into trick play at m_playRate, from one trick rate to another, or back to 1x.
OPALError StreamingController::ChangeRate(bool trick) {
    Trace(trick ? "DoTrickPlay" : "DoStopTrickPlay");
    if (trick && m_playRate == OPAL_PLAYRATE_ONEX)
        return OPAL_ERROR_OUT_OF_RANGE;
    if (trick)
        m_trickClusterArrived = false;
    int64_t position = 0;
    OPALError code = m_session->EmptyStreams(true, position);
    m_audioAhead = false;
    if (code == OPAL_OK)
        code = m_session->video.SetWriterRate(m_playRate);
    if (code != OPAL_OK)
        return code;
    m_session->jumpTarget = position;
    if (trick) {
        code = m_pReaders->StartTrickPlay(position, m_playRate);
        if (code == OPAL_OK)
            m_writersPaused = true;
        return code;
    }
    code = m_pReaders->BeginVideoStream(m_session->objects.LevelFromSwitching());
    for (opal::StreamPipe* pipe : {&m_session->audio, &m_session->video, &m_session->subtitle}) {
        int64_t target = position;
        if (code == OPAL_OK)
            code = pipe->Seek(target);
    }
    if (code == OPAL_OK)
        code = m_pReaders->SetVideoRate(OPAL_PLAYRATE_ONEX);
    if (code != OPAL_OK)
        return code;
    m_session->objects.ArmBuffering(OPAL_STREAM_VIDEO);
    m_session->objects.ArmBuffering(OPAL_STREAM_AUDIO);
    return m_session->StartReaders();
}

// A failure leaves the writers paused, and m_writersPaused says so: Play goes on.
OPALError StreamingController::SeekInternal(int64_t& positionMs) {
    opal::RecursiveLock lock(m_mutex);
    if (positionMs < 0)
        return OPAL_ERROR_INVALID_ARGUMENT;
    OPALError code = OpenFirstAudioTrack(false);
    if (code != OPAL_OK)
        return code;
    const bool saved = m_writersPaused;
    int64_t before = 0;
    m_writersPaused = true;
    code = m_session->EmptyStreams(false, before);
    m_audioAhead = false;
    if (code == OPAL_OK)
        code = MoveReaders(positionMs);
    if (code != OPAL_OK)
        return code;
    m_session->jumpTarget = positionMs;
    if (!m_pausedWhilePlaying && !saved && m_playRate == OPAL_PLAYRATE_ONEX) {
        m_session->objects.ArmBuffering(OPAL_STREAM_VIDEO);
        m_session->objects.ArmBuffering(OPAL_STREAM_AUDIO);
    } else {
        m_pausedWhilePlaying = false;
    }
    m_writersPaused = saved;
    return OPAL_OK;
}

// Audio and subtitles are sought to the requested time, not to the video cluster's.
OPALError StreamingController::MoveReaders(int64_t& positionMs) {
    int64_t audioMs = positionMs;
    int64_t subtitleMs = positionMs;
    OPALError code = m_session->audio.Seek(audioMs);
    if (code == OPAL_OK)
        code = m_session->video.Seek(positionMs);
    if (code == OPAL_OK)
        code = m_session->subtitle.Seek(subtitleMs);
    if (code != OPAL_OK)
        return code;
    if (HABTimer_SetTime(m_hTimer, static_cast<uint32_t>(positionMs)) != HAB_OK)
        return OPAL_ERROR_GENERAL;
    if (m_playRate == OPAL_PLAYRATE_ONEX) {
        Trace("DoSwitchLevel");
        code = m_session->SwitchLevel(true);
    } else {
        // A level would take the trick track's place and fetch nothing. What starts playback again
        // is a trick cluster of the new position; those of the old one may still be announced.
        m_trickClusterArrived = false;
        ++m_session->trickEpoch;
    }
    if (code == OPAL_OK)
        code = m_session->video.StartReader();
    if (code == OPAL_OK)
        code = m_session->audioRoad.StartReader();
    return code == OPAL_OK ? m_session->subtitles.StartReader() : code;
}
