// What goes on between the readers' callbacks and the figures of the buffers. The callbacks run
// with the locks of a manager and its reader held, so nothing here takes m_mutex.
#include <algorithm>

#include "Common/Clock.h"
#include "SMILParser/ISMILParser.h"
#include "StreamingController/src/Session.h"
#include "StreamingDemux/EBML/IClusterBuffer.h"
#include "StreamingReader/Readers.h"

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
    const OPALStreamType stream = FoldStreamType(type);
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
    const OPALStreamType stream = FoldStreamType(type);
    if (stream == OPAL_STREAM_VIDEO || stream == OPAL_STREAM_AUDIO) {
        const bool video = stream == OPAL_STREAM_VIDEO;
        StreamSwitchingNotify::Message& sample = video ? m_lastVideoSample : m_lastAudioSample;
        sample.bufferedDuration = (video ? m_session->video : m_session->audio).BufferedDuration();
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
            m_queue.Push({MSG_TRICK_CLUSTER, m_session->trickEpoch});
            break;
        case OPAL_STREAM_NONE:
            break;
    }
}

OPALError StreamingController::BufferingProgress(size_t& percent) {
    percent = 0;
    if (!m_buffering.IsActive() || m_terminated || !m_pReaders)
        return OPAL_ERROR_NOT_READY;
    size_t inFlight = 0;
    for (opal::StreamPipe* pipe : {&m_session->video, &m_session->audio, &m_session->subtitle})
        if (!m_buffering.IsStreamComplete(pipe->Type()))
            inFlight += pipe->BytesInFlight();
    m_buffering.UpdatePercent(inFlight);
    return m_buffering.GetPercent(percent);
}
