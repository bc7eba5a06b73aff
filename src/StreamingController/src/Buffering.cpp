// What goes on between the readers' callbacks and the figures of the buffers. The callbacks run
// with the locks of a manager and its reader held, so nothing here takes m_mutex.
#include <algorithm>

#include "Common/Clock.h"
#include "SMILParser/ISMILParser.h"
#include "StreamingController/StreamingController.h"
#include "StreamingDemux/EBML/IClusterBuffer.h"
#include "StreamingReader/Readers.h"
#include "StreamingWriter/IStreamingWriter.h"

namespace {

/// Trick tracks share buffer, writer and sink with video.
OPALStreamType Fold(OPALStreamType type) {
    return type == OPAL_STREAM_TRICK ? OPAL_STREAM_VIDEO : type;
}

}  // namespace

void StreamingController::ReaderNotify::OnDownloadComplete(OPALStreamType type,
                                                           int64_t downloadTime,
                                                           int64_t downloadSize, size_t index) {
    if (controller)
        controller->OnDownloadComplete(type, downloadTime, downloadSize, index);
}

void StreamingController::ReaderNotify::OnClusterBufferWrite(OPALStreamType type) {
    if (controller)
        controller->OnClusterBufferWrite(type);
}

void StreamingController::OnDownloadComplete(OPALStreamType type, int64_t downloadTime,
                                             int64_t downloadSize, size_t index) {
    LOG4CXX_TRACE(logger, "StreamingController::ReaderNotify::OnDownloadComplete"
                              << " downloadTime=" << downloadTime
                              << " download size=" << downloadSize << " index=" << index);
    const OPALStreamType stream = Fold(type);
    if (stream != OPAL_STREAM_VIDEO && stream != OPAL_STREAM_AUDIO)
        return;
    StreamSwitchingNotify::Message sample;
    // The wall clock may be set back while a transfer runs.
    sample.downloadTime = std::max<int64_t>(0, downloadTime);
    sample.downloadSize = downloadSize;
    sample.timeSinceStart =
        std::max<int64_t>(0, opal::ToMilliseconds(opal::Now() - m_timeInitDone));
    sample.clusterIndex = index;
    if (m_buffering.IsStreamActive(stream) && !m_buffering.IsStreamComplete(stream))
        m_buffering.AddBytes(static_cast<size_t>(std::max<int64_t>(0, downloadSize)), stream);
    if (stream == OPAL_STREAM_AUDIO) {
        m_lastAudioSample = sample;
        return;
    }
    m_lastVideoSample = sample;
    m_pVideoBuffer->SetMaxDuration(m_pSwitching->GetMaxBuffer());
}

void StreamingController::OnClusterBufferWrite(OPALStreamType type) {
    LOG4CXX_TRACE(logger, "StreamingController::ReaderNotify::OnClusterBufferWrite type=" << type);
    const OPALStreamType stream = Fold(type);
    int64_t buffered = 0;
    if (BufferedDuration(type, buffered) == OPAL_OK &&
        (stream == OPAL_STREAM_VIDEO || stream == OPAL_STREAM_AUDIO)) {
        StreamSwitchingNotify::Message& sample =
            stream == OPAL_STREAM_VIDEO ? m_lastVideoSample : m_lastAudioSample;
        sample.bufferedDuration = buffered;
        m_pSwitching->GetNotify()->Notify(stream, StreamSwitchingNotify::EVENT_DOWNLOAD_COMPLETE,
                                          sample);
    }
    // Straight onto the queue: Post would take m_mutex, whose holder may wait for this reader.
    switch (type) {
        case OPAL_STREAM_VIDEO:
            m_queue.Push({MSG_VIDEO_CLUSTER, kNone});
            break;
        case OPAL_STREAM_AUDIO:
            m_queue.Push({MSG_AUDIO_CLUSTER, kNone});
            break;
        case OPAL_STREAM_SUBTITLE:
            m_queue.Push({MSG_SUBTITLE_CLUSTER, kNone});
            break;
        case OPAL_STREAM_TRICK:
            m_queue.Push({MSG_TRICK_CLUSTER, m_trickEpoch});
            break;
        case OPAL_STREAM_NONE:
            break;
    }
}

OPALError StreamingController::BufferedDuration(OPALStreamType type, int64_t& ms) {
    ms = 0;
    IClusterBuffer* buffer = nullptr;
    IStreamingWriter* writer = nullptr;
    switch (type) {
        case OPAL_STREAM_VIDEO:
        case OPAL_STREAM_TRICK:
            buffer = m_pVideoBuffer.get();
            writer = m_pVideoWriter.get();
            break;
        case OPAL_STREAM_AUDIO:
            buffer = m_pAudioBuffer.get();
            if (m_pReaders && m_pReaders->GetAudioStreamCount() != 0)
                writer = m_pAudioWriter.get();
            break;
        case OPAL_STREAM_SUBTITLE:
            buffer = m_pSubtitleBuffer.get();
            if (m_pReaders && m_pReaders->GetSubtitleStreamCount() != 0)
                writer = m_pSubtitleWriter.get();
            break;
        case OPAL_STREAM_NONE:
            break;
    }
    if (buffer)
        ms += buffer->GetBufferedDuration();
    int64_t written = 0;
    if (writer && writer->GetBufferedDuration(written) == OPAL_OK)
        ms += written;
    return OPAL_OK;
}

OPALError StreamingController::BufferingProgress(size_t& percent) {
    percent = 0;
    if (!m_buffering.IsActive() || m_terminated || !m_pReaders)
        return OPAL_ERROR_NOT_READY;
    size_t inFlight = 0;
    const auto add = [&](OPALStreamType type, OPALError (Readers::*query)(size_t&)) {
        size_t bytes = 0;
        if (!m_buffering.IsStreamComplete(type) && (m_pReaders.get()->*query)(bytes) == OPAL_OK)
            inFlight += bytes;
    };
    add(OPAL_STREAM_VIDEO, &Readers::GetVideoBytesInFlight);
    add(OPAL_STREAM_AUDIO, &Readers::GetAudioBytesInFlight);
    add(OPAL_STREAM_SUBTITLE, &Readers::GetSubtitleBytesInFlight);
    m_buffering.UpdatePercent(inFlight);
    return m_buffering.GetPercent(percent);
}

// Turns the requirement in milliseconds into the size of the next clusters of the current level.
void StreamingController::ArmBuffering(bool video, bool audio, bool subtitle) {
    const auto arm = [this](OPALStreamType type, OPALError (Readers::*query)(int64_t, size_t&)) {
        int ms = 0;
        size_t bytes = 0;
        m_pSwitching->GetBufferRequirement(ms, type);
        if ((m_pReaders.get()->*query)(ms, bytes) == OPAL_OK)
            m_buffering.SetTarget(bytes, type);
    };
    if (video)
        arm(OPAL_STREAM_VIDEO, &Readers::GetVideoBytesAhead);
    if (audio && m_pSMILParser->GetAudioTrackCount() != 0)
        arm(OPAL_STREAM_AUDIO, &Readers::GetAudioBytesAhead);
    if (subtitle && m_pReaders->GetCurrentSubtitle() != kNone &&
        m_pReaders->GetSubtitleBytesAhead(m_subtitleTargetBytes) == OPAL_OK)
        m_buffering.SetTarget(m_subtitleTargetBytes, OPAL_STREAM_SUBTITLE);
}
