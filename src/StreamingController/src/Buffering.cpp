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
    if (!controller)
        return;
    StreamingController& c = *controller;
    LOG4CXX_TRACE(c.logger, "StreamingController::ReaderNotify::OnDownloadComplete"
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
        std::max<int64_t>(0, opal::ToMilliseconds(opal::Now() - c.m_timeInitDone));
    sample.clusterIndex = index;
    if (c.m_buffering.IsStreamActive(stream) && !c.m_buffering.IsStreamComplete(stream))
        c.m_buffering.AddBytes(static_cast<size_t>(std::max<int64_t>(0, downloadSize)), stream);
    if (stream == OPAL_STREAM_AUDIO) {
        c.m_lastAudioSample = sample;
        return;
    }
    c.m_lastVideoSample = sample;
    c.m_pVideoBuffer->SetMaxDuration(c.m_pSwitching->GetMaxBuffer());
}

void StreamingController::ReaderNotify::OnClusterBufferWrite(OPALStreamType type) {
    if (!controller)
        return;
    StreamingController& c = *controller;
    LOG4CXX_TRACE(c.logger,
                  "StreamingController::ReaderNotify::OnClusterBufferWrite type=" << type);
    const OPALStreamType stream = FoldStreamType(type);
    if (stream == OPAL_STREAM_VIDEO || stream == OPAL_STREAM_AUDIO) {
        const bool video = stream == OPAL_STREAM_VIDEO;
        StreamSwitchingNotify::Message& sample = video ? c.m_lastVideoSample : c.m_lastAudioSample;
        sample.bufferedDuration =
            (video ? c.m_session->video : c.m_session->audio).BufferedDuration();
        c.m_pSwitching->GetNotify()->Notify(stream, StreamSwitchingNotify::EVENT_DOWNLOAD_COMPLETE,
                                            sample);
    }
    // Straight onto the queue: Post would take m_mutex, whose holder may wait for this reader.
    switch (type) {
        case OPAL_STREAM_VIDEO:
            c.m_queue.Push({MSG_VIDEO_CLUSTER, kNone});
            break;
        case OPAL_STREAM_AUDIO:
            c.m_queue.Push({MSG_AUDIO_CLUSTER, kNone});
            break;
        case OPAL_STREAM_SUBTITLE:
            c.m_queue.Push({MSG_SUBTITLE_CLUSTER, kNone});
            break;
        case OPAL_STREAM_TRICK:
            c.m_queue.Push({MSG_TRICK_CLUSTER, c.m_session->trickEpoch});
            break;
        case OPAL_STREAM_NONE:
            break;
    }
}
