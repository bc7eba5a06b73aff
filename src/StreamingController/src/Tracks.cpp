#include "Common/CodecIDs.h"
#include "Common/logging/LogEvent.h"
#include "Common/logging/LogServer.h"
#include "SMILParser/ISMILParser.h"
#include "StreamingController/src/CallbackScope.h"
#include "StreamingDemux/EBML/IClusterBuffer.h"
#include "StreamingReader/IStreamingReader.h"
#include "StreamingReader/Readers.h"
#include "StreamingWriter/IStreamingWriter.h"

namespace {

constexpr size_t kSubtitleBufferSize = 384000;
constexpr size_t kMostSubtitleHeader = 2100000;

}  // namespace

OPALError StreamingController::SetAudioTrack(size_t index) {
    return Guarded([&] {
        if (!m_pReaders)
            return OPAL_ERROR_NOT_READY;
        if (index >= m_pSMILParser->GetAudioTrackCount())
            return OPAL_ERROR_OUT_OF_RANGE;
        return Post(MSG_SET_AUDIO_TRACK, index);
    });
}

OPALError StreamingController::SetSubtitleTrack(size_t index) {
    return Guarded([&] {
        if (!m_pReaders)
            return OPAL_ERROR_NOT_READY;
        if (index != kNone && index >= m_pSMILParser->GetSubtitleTrackCount())
            return OPAL_ERROR_OUT_OF_RANGE;
        if (m_subtitlesOn && index == m_pReaders->GetCurrentSubtitle())
            return OPAL_OK;
        return Post(MSG_SET_SUBTITLE_TRACK, index);
    });
}

// A track that the sink refuses (-23) is read all the same, by a writer that is disabled: buffers
// fill and playback starts, silently.
OPALError StreamingController::SetAudioTrackInternal(size_t index) {
    Lock lock(m_mutex);
    if (!m_pReaders || !m_pAudioBuffer)
        return OPAL_ERROR_NOT_READY;
    if (index >= m_pSMILParser->GetAudioTrackCount())
        return OPAL_ERROR_INVALID_ARGUMENT;
    if (m_pReaders->GetCurrentAudio() == index)
        return OPAL_OK;
    OPALError code = m_pReaders->GetAudioStreamCount() == 0
                         ? OpenAudio()
                         : LeaveAudioTrack(m_pReaders->GetCurrentAudio());
    int64_t position = 0;
    if (code == OPAL_OK)
        code = m_pVideoPlatform->GetPosition(position);
    if (code == OPAL_OK)
        code = m_pReaders->SetAudioStream(index);
    if (code != OPAL_OK)
        return code;
    code = ConfigureAudio();
    const bool refused = code == OPAL_ERROR_AUDIO_UNSUPPORTED;
    if (code != OPAL_OK && !refused)
        return code;
    code = StartAudioTrack(position, refused);
    if (code != OPAL_OK)
        return code;
    boost::shared_ptr<IAudioTrack> track;
    if (m_pSMILParser->GetAudioTrack(index, track) == OPAL_OK) {
        m_pSwitching->SetAudioBitrate(track->GetReservedBandwidth());
        LogServer::Instance().PostOrDestroy(LogEventFactory::Instance().NewSetAudioTrackLogEvent(
            track->GetAssetId(), m_positionSeconds));
    }
    return refused ? OPAL_ERROR_AUDIO_UNSUPPORTED : OPAL_OK;
}

OPALError StreamingController::OpenAudio() {
    const OPALError code = m_pReaders->AudioInitialize(m_pSMILParser.get(), m_pAudioBuffer.get(),
                                                       m_pReaderNotify.get(), 0);
    if (code != OPAL_OK)
        return code;
    const opal::AudioSink sink = NewAudioSink(m_hArch, m_hTimer);
    m_configureAudio = sink.configure;
    Publish(m_pAudioPlatform, sink.platform);
    return m_pAudioPlatform ? m_pAudioPlatform->Initialize() : OPAL_ERROR_NO_MEMORY;
}

OPALError StreamingController::LeaveAudioTrack(size_t index) {
    if (!m_pAudioWriter)
        return OPAL_ERROR_NOT_READY;
    OPALError code = m_pAudioWriter->SetDiscardLevel(index);
    if (code == OPAL_OK)
        code = m_pReaders->StopAudio();
    if (code == OPAL_OK)
        code = m_pAudioWriter->Pause();
    if (code == OPAL_OK)
        code = m_pReaders->CancelAudio();
    if (code == OPAL_OK)
        code = m_pAudioBuffer->Clear();
    m_audioAhead = false;
    if (code == OPAL_OK)
        code = m_pAudioWriter->Flush();
    if (code == OPAL_OK)
        RestartSwitching(OPAL_STREAM_AUDIO);
    return code;
}

OPALError StreamingController::ConfigureAudio() {
    AudioStreamInfo info;
    OPALError code = m_pReaders->GetAudioInfo(info);
    if (code != OPAL_OK)
        return code;
    const void* header = nullptr;
    size_t headerSize = 0;
    code = AdaptAudioHeader(info.codecPrivate.GetData(), info.codecPrivate.GetSize(), header,
                            headerSize);
    if (code != OPAL_OK)
        return code;
    if (!m_configureAudio)
        return OPAL_ERROR_NOT_READY;
    return m_configureAudio(info.codecID, static_cast<uint32_t>(info.samplingFrequency),
                            info.channels, static_cast<const uint8_t*>(header), headerSize, true);
}

OPALError StreamingController::StartAudioTrack(int64_t position, bool disabled) {
    OPALError code = OPAL_OK;
    if (!m_pAudioWriter) {
        Publish(m_pAudioWriter, NewStreamingWriter(m_pAudioBuffer.get(), m_pAudioPlatform.get(),
                                                   OPAL_STREAM_AUDIO, m_writerModel));
        code = m_pAudioWriter ? m_pAudioWriter->Initialize() : OPAL_ERROR_NO_MEMORY;
    }
    if (code == OPAL_OK)
        code = m_pAudioWriter->SetDisabled(disabled);
    if (code == OPAL_OK)
        code = m_pReaders->SeekAudio(position);
    if (code != OPAL_OK)
        return code;
    if (m_buffering.IsActive() && !m_buffering.IsComplete()) {
        m_buffering.ResetStream(OPAL_STREAM_AUDIO);
        ArmBuffering(false, true, false);
    }
    if (m_writersPaused || m_playRate != OPAL_PLAYRATE_ONEX)
        return OPAL_OK;
    code = m_pReaders->StartAudio();
    return code == OPAL_OK ? m_pAudioWriter->Start() : code;
}

OPALError StreamingController::SetSubtitleTrackInternal(size_t index) {
    Lock lock(m_mutex);
    if (index == kNone)
        return SwitchSubtitlesOff();
    if (!m_pReaders)
        return OPAL_ERROR_NOT_READY;
    if (index >= m_pSMILParser->GetSubtitleTrackCount())
        return OPAL_ERROR_INVALID_ARGUMENT;
    boost::shared_ptr<ISubtitleTrack> track;
    OPALError code = m_pSMILParser->GetSubtitleTrack(index, track);
    if (code != OPAL_OK)
        return code;
    if (track->GetHeaderRequestSize() > kMostSubtitleHeader)
        return OPAL_ERROR_NO_MEMORY;
    if (m_pReaders->GetSubtitleStreamCount() == 0) {
        code = OpenSubtitles(index);
        if (code != OPAL_OK)
            return code;
    }
    const size_t old = m_pReaders->GetCurrentSubtitle();
    if (old == index)
        return OPAL_OK;
    if (m_pSubtitleWriter)
        code = m_pSubtitleWriter->SetDiscardLevel(old);
    if (code == OPAL_OK)
        code = SwitchSubtitlesOff();
    if (code == OPAL_OK)
        code = m_pReaders->SetSubtitleStream(index);
    if (code == OPAL_OK)
        m_subtitlesOn = false;  // true again once the stream is prepared
    return code;
}

// The sink comes first: on a set without one nothing else is touched.
OPALError StreamingController::OpenSubtitles(size_t index) {
    opal::SubtitleSink sink;
    if (!m_pSubtitlePlatform) {
        sink = NewSubtitleSink(m_hArch, m_hTimer);
        if (!sink.platform)
            return OPAL_ERROR_NO_MEMORY;
    }
    boost::scoped_ptr<IPlatform> platform(sink.platform);
    OPALError code = CreateBuffer(m_pSubtitleBuffer, kSubtitleBufferSize);
    if (code == OPAL_OK)
        code = m_pReaders->SubtitleInitialize(m_pSMILParser.get(), m_pSubtitleBuffer.get(),
                                              m_pReaderNotify.get(), index);
    if (code != OPAL_OK || m_pSubtitlePlatform)
        return code;
    m_configureSubtitles = sink.configure;
    {
        boost::unique_lock<boost::shared_mutex> lock(m_objectsMutex);
        m_pSubtitlePlatform.swap(platform);
    }
    code = m_pSubtitlePlatform->Initialize();
    if (code != OPAL_OK)
        return code;
    auto* notify = new SubtitleNotify;
    m_pSubtitleNotify.reset(notify);
    notify->controller = this;
    if (sink.setNotify)
        sink.setNotify(notify);
    return OPAL_OK;
}

// What the stream's reader answers is not looked at: a stream that has failed is switched off too.
OPALError StreamingController::SwitchSubtitlesOff() {
    OPALError code = OPAL_OK;
    if (m_pSubtitleWriter) {
        (void)m_pReaders->StopSubtitle();
        code = m_pSubtitleWriter->Pause();
        (void)m_pReaders->CancelSubtitle();
        (void)m_pSubtitleBuffer->Clear();
        const OPALError flushed = m_pSubtitleWriter->Flush();
        code = code != OPAL_OK ? code : flushed;
        RestartSwitching(OPAL_STREAM_SUBTITLE);
    }
    m_subtitlesOn = false;
    return code;
}

OPALError StreamingController::PrepareSubtitleStream(size_t index) {
    int state = STREAMING_READER_ERROR;
    OPALError code = m_pReaders->GetSubtitleState(state);
    if (code != OPAL_OK)
        return code;
    if (state == STREAMING_READER_NOT_OPEN)
        return OPAL_ERROR_NOT_YET;
    if (state == STREAMING_READER_ERROR)
        return m_pReaders->GetSubtitleError();
    int64_t position = 0;
    code = m_pVideoPlatform->GetPosition(position);
    if (code == OPAL_OK)
        code = m_pReaders->SeekSubtitle(position);
    if (code == OPAL_OK)
        code = ConfigureSubtitles(index);
    if (code == OPAL_OK && !m_pSubtitleWriter) {
        Publish(m_pSubtitleWriter,
                NewStreamingWriter(m_pSubtitleBuffer.get(), m_pSubtitlePlatform.get(),
                                   OPAL_STREAM_SUBTITLE, m_writerModel));
        code = m_pSubtitleWriter ? m_pSubtitleWriter->Initialize() : OPAL_ERROR_NO_MEMORY;
    }
    if (code == OPAL_OK)
        code = m_pReaders->StartSubtitle();
    if (code == OPAL_OK && !m_writersPaused && m_playRate == OPAL_PLAYRATE_ONEX)
        code = m_pSubtitleWriter->Start();
    if (code == OPAL_OK)
        m_subtitlesOn = true;
    return code;
}

OPALError StreamingController::ConfigureSubtitles(size_t index) {
    boost::shared_ptr<ISubtitleTrack> track;
    OPALError code = m_pSMILParser->GetSubtitleTrack(index, track);
    if (code != OPAL_OK)
        return code;
    const void* font = nullptr;
    size_t fontSize = 0;
    if (m_pReaders->GetSubtitleFont(font, fontSize) != OPAL_OK) {
        font = nullptr;
        fontSize = 0;
    }
    code = AdaptSubtitleHeader(font, fontSize, font, fontSize);
    if (code != OPAL_OK)
        return code;
    if (!m_pSubtitlePlatform || !m_configureSubtitles)
        return OPAL_ERROR_NOT_READY;
    // The reserved bandwidth stands for width and height, which the sink does not use; deliberate.
    const int bandwidth = track->GetReservedBandwidth();
    code = m_configureSubtitles(SUBTITLECODECID_UTF8, bandwidth, bandwidth, font, fontSize);
    if (code != OPAL_OK && fontSize == 0)
        LOG4CXX_ERROR(
            logger, "The subtitle stream " << track->GetURI() << " brings no font to draw it with");
    return code;
}
