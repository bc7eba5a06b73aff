#include "StreamingController/StreamingController.h"

#include <malloc.h>

#include <csignal>
#include <cstring>

#include "Common/Assert.h"
#include "Common/Clock.h"
#include "Common/CodecIDs.h"
#include "Common/OPALVersion.h"
#include "Common/SessionEventStream.h"
#include "Common/logging/ILogEventSender.h"
#include "ContentSession/IProtectedContent.h"
#include "PlatformAdapter/Mstar/HABArch.h"
#include "SMILParser/ISMILParser.h"
#include "StreamSwitchingAlgorithm/IStreamSwitchingController.h"
#include "StreamingController/src/NoThrow.h"
#include "StreamingController/src/ProductionObjects.h"
#include "StreamingController/src/Session.h"
#include "StreamingDemux/EBML/IClusterBuffer.h"
#include "StreamingReader/Readers.h"
#include "StreamingWriter/IStreamingWriter.h"

namespace {

using ObjectsLock = opal::SharedLock;

void IgnoreSignal(int) {}

/// A cluster has a megabyte or more. The allocator maps such a block by itself at first, and gives
/// it back to the system when it is freed; but the first one that is freed moves the limit above
/// its size, and all that follow then lie in the heaps of the threads, which keep them: with many
/// jumps a process grew by 15 MB in a minute and did not shrink when the session ended. A limit
/// that is set stays where it is.
void KeepLargeBlocksApart() {
#ifdef __GLIBC__
    constexpr int kLimit = 128 * 1024;  // where it stands when a process begins
    (void)mallopt(M_MMAP_THRESHOLD, kLimit);
#endif
}

template <typename Track>
size_t FindAsset(size_t count, int64_t wanted, size_t fallback, Track track) {
    for (size_t i = 0; i < count; ++i) {
        const auto candidate = track(i);
        if (candidate && candidate->GetAssetId() == wanted)
            return i;
    }
    return fallback;
}

}  // namespace

extern "C" IStreamingController* NewStreamingController() {
    try {
        return new StreamingController;
    } catch (const std::exception&) {
        return nullptr;
    }
}

extern "C" void KMTGetVersion(OPALVersion* version) {
    if (version)
        *version = OPALVersion{OPAL_VERSION_MAJOR, OPAL_VERSION_MINOR, OPAL_VERSION_REVISION,
                               OPAL_VERSION_BUILD};
}

extern "C" const char* OPALVersionText() {
    return OPAL_VERSION_TEXT;
}

StreamingController::StreamingController()
    : logger(getLogger("opal.StreamingController")), m_session(new Session(*this)) {
    opal::RegisterProductionObjects();
    LoggerPropertyConfigure(LOGGER_PROPERTY_FILE);
    // A broken connection must not end the process. A handler, not SIG_IGN, which child processes
    // of the application would inherit.
    std::signal(SIGPIPE, &IgnoreSignal);
    KeepLargeBlocksApart();
}

StreamingController::~StreamingController() {
    OPAL_ASSERT(!m_session->reports.IsCalling(), "a controller is not deleted by its listener");
    (void)StreamingController::Finalize();
}

OPALError StreamingController::SetNotify(IStreamingControllerNotify* notify) {
    m_pNotify = notify;
    return OPAL_OK;
}

OPALError StreamingController::GetDuration(int64_t& ms) {
    opal::RecursiveLock lock(m_mutex);
    ms = m_duration;
    return OPAL_OK;
}

OPALError StreamingController::GetPlayRate(OPALPlayRate& rate) {
    opal::RecursiveLock lock(m_mutex);
    rate = m_playRate;
    return OPAL_OK;
}

OPALError StreamingController::GetBufferedDuration(OPALStreamType type, int64_t& ms) {
    ObjectsLock lock(m_objectsMutex);
    ms = 0;
    for (opal::StreamPipe* pipe : {&m_session->video, &m_session->audio, &m_session->subtitle})
        if (pipe->Type() == FoldStreamType(type))
            ms = pipe->BufferedDuration();
    return OPAL_OK;
}

OPALError StreamingController::GetBufferingProgress(size_t& percent) {
    ObjectsLock lock(m_objectsMutex);
    percent = 0;
    return m_terminated ? OPAL_ERROR_NOT_READY : m_session->GetBufferingProgress(percent);
}

OPALError StreamingController::GetVideoLevelInfo(size_t index, VideoLevelInfo& info) {
    info = VideoLevelInfo();
    ObjectsLock lock(m_objectsMutex);
    if (!m_pSMILParser)
        return OPAL_ERROR_NOT_YET;
    boost::shared_ptr<IVideoLevel> level;
    const OPALError code = m_pSMILParser->GetVideoLevel(index, level);
    if (code != OPAL_OK)
        return code;
    info.bitrate = static_cast<uint32_t>(level->GetBitrate());
    info.width = static_cast<uint32_t>(level->GetWidth());
    info.height = static_cast<uint32_t>(level->GetHeight());
    info.codecID = VIDEOCODECID_AVC;
    return OPAL_OK;
}

OPALError StreamingController::GetAudioTrackInfo(size_t index, AudioTrackInfo& info) {
    return opal::NoThrow([&]() -> OPALError {
        info = AudioTrackInfo();
        ObjectsLock lock(m_objectsMutex);
        if (!m_pSMILParser)
            return OPAL_ERROR_NOT_YET;
        boost::shared_ptr<IAudioTrack> track;
        const OPALError code = m_pSMILParser->GetAudioTrack(index, track);
        if (code != OPAL_OK)
            return code;
        info.reservedBandwidth = track->GetReservedBandwidth();
        info.mimeType = track->GetMimeType();
        info.language = track->GetLanguage();
        AudioStreamInfo stream;
        if (m_pReaders && m_pReaders->GetAudioInfo(index, stream) == OPAL_OK) {
            info.samplingFrequency = stream.samplingFrequency;
            info.channels = stream.channels;
            info.codecPrivate = stream.codecPrivate;
        }
        return OPAL_OK;
    });
}

OPALError StreamingController::GetSubtitleTrackInfo(size_t index, SubtitleTrackInfo& info) {
    return opal::NoThrow([&]() -> OPALError {
        info = SubtitleTrackInfo();
        ObjectsLock lock(m_objectsMutex);
        if (!m_pSMILParser)
            return OPAL_ERROR_NOT_YET;
        boost::shared_ptr<ISubtitleTrack> track;
        const OPALError code = m_pSMILParser->GetSubtitleTrack(index, track);
        if (code != OPAL_OK)
            return code;
        info.reservedBandwidth = track->GetReservedBandwidth();
        info.mimeType = track->GetMimeType();
        info.language = track->GetLanguage();
        return OPAL_OK;
    });
}

OPALError StreamingController::GetSubtitleFont(void* destination, size_t& size) {
    opal::RecursiveLock lock(m_mutex);  // a change of track would drop the font while it is copied
    if (!m_pReaders)
        return OPAL_ERROR_NOT_YET;
    const void* font = nullptr;
    size_t fontSize = 0;
    const OPALError code = m_session->subtitles.GetFont(font, fontSize);
    if (code != OPAL_OK)
        return code;
    const size_t room = size;
    size = fontSize;
    if (fontSize > room)
        return OPAL_ERROR_NO_MEMORY;
    if (fontSize == 0)
        return OPAL_OK;
    if (!destination)
        return OPAL_ERROR_INVALID_ARGUMENT;
    std::memcpy(destination, font, fontSize);
    return OPAL_OK;
}

size_t StreamingController::GetVideoLevelCount() {
    ObjectsLock lock(m_objectsMutex);
    return m_pSMILParser ? m_pSMILParser->GetVideoLevelCount() : 0;
}

size_t StreamingController::GetAudioTrackCount() {
    ObjectsLock lock(m_objectsMutex);
    return m_pSMILParser ? m_pSMILParser->GetAudioTrackCount() : 0;
}

size_t StreamingController::GetSubtitleTrackCount() {
    ObjectsLock lock(m_objectsMutex);
    return m_pSMILParser ? m_pSMILParser->GetSubtitleTrackCount() : 0;
}

size_t StreamingController::GetCurrentVideoLevel() {
    ObjectsLock lock(m_objectsMutex);
    return m_session->video.CurrentIndex();
}

size_t StreamingController::GetCurrentAudioTrack() {
    ObjectsLock lock(m_objectsMutex);
    return m_session->audio.CurrentIndex();
}

size_t StreamingController::GetCurrentSubtitleTrack() {
    ObjectsLock lock(m_objectsMutex);
    return m_session->subtitles.Current();
}

OPALError StreamingController::PullAudioBlock(qutl::MemoryBuffer<unsigned char>& data,
                                              int64_t& time, int64_t& duration, uint32_t& level,
                                              uint32_t& flags) {
    return opal::NoThrow([&]() -> OPALError {
        ObjectsLock lock(m_objectsMutex);
        return m_pAudioWriter ? m_pAudioWriter->PullBlock(data, time, duration, level, flags)
                              : OPAL_ERROR_NOT_READY;
    });
}

OPALError StreamingController::PullVideoBlock(qutl::MemoryBuffer<unsigned char>& data,
                                              int64_t& time, int64_t& duration, uint32_t& level,
                                              uint32_t& flags) {
    return opal::NoThrow([&]() -> OPALError {
        ObjectsLock lock(m_objectsMutex);
        return m_pVideoWriter ? m_pVideoWriter->PullBlock(data, time, duration, level, flags)
                              : OPAL_ERROR_NOT_READY;
    });
}

OPALError StreamingController::PullSubtitleBlock(qutl::MemoryBuffer<unsigned char>& data,
                                                 int64_t& time, int64_t& duration, uint32_t& level,
                                                 uint32_t& flags) {
    return opal::NoThrow([&]() -> OPALError {
        ObjectsLock lock(m_objectsMutex);
        return m_pSubtitleWriter ? m_pSubtitleWriter->PullBlock(data, time, duration, level, flags)
                                 : OPAL_ERROR_NOT_READY;
    });
}

OPALError StreamingController::GetPlatformPreferences(HABPreferences& preferences) {
    ObjectsLock lock(m_objectsMutex);
    return HABArch_GetPreferences(m_hArch, preferences) == HAB_OK ? OPAL_OK : OPAL_ERROR_GENERAL;
}

OPALError StreamingController::GetDefaultTracks(size_t& audio, size_t& subtitle) {
    audio = subtitle = kNone;
    opal::RecursiveLock lock(m_mutex);
    if (!m_pSMILParser)
        return OPAL_OK;
    const int64_t wantedAudio = m_session->ticket.PreferredAudioAsset();
    const int64_t wantedSubtitle = m_session->ticket.PreferredSubtitleAsset();
    if (const size_t count = m_pSMILParser->GetAudioTrackCount()) {
        audio = FindAsset(count, wantedAudio, 0, [this](size_t i) {
            boost::shared_ptr<IAudioTrack> track;
            (void)m_pSMILParser->GetAudioTrack(i, track);
            return track;
        });
    }
    const size_t count = m_pSMILParser->GetSubtitleTrackCount();
    if (count != 0 && m_subtitlesOn) {
        subtitle = FindAsset(count, wantedSubtitle, 0, [this](size_t i) {
            boost::shared_ptr<ISubtitleTrack> track;
            (void)m_pSMILParser->GetSubtitleTrack(i, track);
            return track;
        });
    }
    return OPAL_OK;
}

OPALError StreamingController::AdaptVideoHeader(const void* in, size_t inSize, const void*& out,
                                                size_t& outSize) {
    out = in;
    outSize = inSize;
    return OPAL_OK;
}

OPALError StreamingController::AdaptAudioHeader(const void* in, size_t inSize, const void*& out,
                                                size_t& outSize) {
    out = in;
    outSize = inSize;
    return OPAL_OK;
}

OPALError StreamingController::AdaptSubtitleHeader(const void* in, size_t inSize, const void*& out,
                                                   size_t& outSize) {
    out = in;
    outSize = inSize;
    return OPAL_OK;
}

StreamingController::ControllerState StreamingController::GetState() {
    opal::RecursiveLock lock(m_mutex);
    if (m_error != OPAL_OK && m_error != OPAL_ERROR_TERMINATED)
        return CONTROLLER_ERROR;
    if (m_error == OPAL_ERROR_TERMINATED || !m_initialized)
        return CONTROLLER_IDLE;
    if (m_playRate != OPAL_PLAYRATE_ONEX)
        return CONTROLLER_TRICK;
    return m_writersPaused ? CONTROLLER_PAUSED : CONTROLLER_PLAYING;
}

OPALError StreamingController::Post(int kind, size_t argument) {
    opal::RecursiveLock lock(m_mutex);
    if (m_terminated)
        return m_error;
    m_queue.Push(StreamingControllerMessage{kind, argument});
    return OPAL_OK;
}

bool StreamingController::IsTerminated() {
    opal::RecursiveLock lock(m_mutex);
    return m_terminated;
}

void StreamingController::Trace(const char* text) {
    LOG4CXX_TRACE(logger, text << opal::ToMilliseconds(opal::Now() - m_timeEnter));
}

void StreamingController::SubtitleNotify::OnSubtitle(int64_t msStart, int64_t msEnd,
                                                     const std::string& text) {
    if (!controller)
        return;
    opal::SessionEventStream::IfObserved([&] {
        opal::StateEvent event;
        event.state = opal::SessionState::Subtitle;
        event.valueMs = msStart;
        event.endMs = msEnd;
        event.text = text;
        controller->m_session->reports.Observe(std::move(event));
    });
    controller->m_session->reports.Tell(
        [&](IStreamingControllerNotify& listener) { listener.OnSubtitle(msStart, msEnd, text); });
}
