#include "StreamingController/src/AudioRoad.h"

#include <utility>

#include "PlatformAdapter/Common/IPlatform.h"
#include "PlatformAdapter/Common/ISinks.h"
#include "SMILParser/ISMILParser.h"
#include "StreamSwitchingAlgorithm/IStreamSwitchingController.h"
#include "StreamingController/BufferingSession.h"
#include "StreamingDemux/EBML/AudioStreamInfo.h"
#include "StreamingReader/IStreamingReader.h"
#include "StreamingReader/Readers.h"

namespace opal {

AudioRoad::AudioRoad(const SessionObjects& session, const SessionReports& reports, StreamPipe& pipe,
                     RoadHooks hooks)
    : m_session(session), m_reports(reports), m_pipe(pipe), m_hooks(std::move(hooks)) {}

bool AudioRoad::NeedsOpening() const {
    return m_session.parser->GetAudioTrackCount() != 0 &&
           m_pipe.CurrentIndex() == static_cast<size_t>(-1);
}

OPALError AudioRoad::OpenFirst() {
    return m_session.readers->AudioInitialize(m_session.parser.get(), m_pipe.Buffer(),
                                              m_session.readerNotify.get(), 0);
}

OPALError AudioRoad::BeginFirst() {
    m_wanted = 0;
    m_selected = false;
    m_pending = true;
    return m_session.readers->BeginAudio(m_session.parser.get(), m_pipe.Buffer(),
                                         m_session.readerNotify.get(), 0);
}

OPALError AudioRoad::Select(size_t index) {
    if (!m_session.readers || !m_pipe.Buffer())
        return OPAL_ERROR_NOT_READY;
    if (index >= m_session.parser->GetAudioTrackCount())
        return OPAL_ERROR_INVALID_ARGUMENT;
    if (m_ready && !m_pending && m_pipe.CurrentIndex() == index)
        return OPAL_OK;
    OPALError code = OPAL_OK;
    if (!m_pipe.HasStream())
        code = BeginFirst();
    else if (m_ready && !m_pending)
        code = Leave(m_pipe.CurrentIndex());
    else if (m_pipe.HasWriter() && m_pipe.CurrentIndex() != index)
        // Or what was left first would be dropped when it comes back.
        code = m_pipe.DiscardLevel(m_pipe.CurrentIndex());
    if (code != OPAL_OK)
        return code;
    m_wanted = index;
    m_selected = false;
    m_pending = true;
    return Continue();
}

OPALError AudioRoad::Continue() {
    // The first track of a session is opened whatever track is wanted.
    if (!m_pipe.Sink()) {
        if (m_pipe.ReaderState() == STREAMING_READER_NOT_OPEN)
            return OPAL_ERROR_NOT_YET;
        if (m_pipe.ReaderError() == OPAL_OK) {
            const OPALError made = m_pipe.KeepSink(m_hooks.newSink());
            m_pending = made == OPAL_OK;
            if (made != OPAL_OK)
                return made;
        }
    }
    if (!m_selected && m_pipe.ReaderError() == OPAL_OK) {
        const OPALError selected = m_session.readers->BeginAudioStream(m_wanted);
        m_pending = selected == OPAL_OK;
        if (selected != OPAL_OK)
            return selected;
        m_selected = true;
    }
    const int state = m_pipe.ReaderState();
    if (state == STREAMING_READER_NOT_OPEN)
        return OPAL_ERROR_NOT_YET;
    m_pending = false;
    return state == STREAMING_READER_ERROR ? m_pipe.ReaderError() : Finish();
}

/// The track is open.
OPALError AudioRoad::Finish() {
    int64_t position = 0;
    OPALError code = m_hooks.position(position);
    if (code != OPAL_OK)
        return code;
    code = Configure();
    const bool refused = code == OPAL_ERROR_AUDIO_UNSUPPORTED;
    if (code != OPAL_OK && !refused)
        return code;
    m_ready = true;
    code = Start(position, refused);
    if (code != OPAL_OK)
        return code;
    boost::shared_ptr<IAudioTrack> track;
    if (m_session.parser->GetAudioTrack(m_pipe.CurrentIndex(), track) == OPAL_OK) {
        m_session.switching->SetAudioBitrate(track->GetReservedBandwidth());
        m_reports.AudioAsset(track->GetAssetId());
    }
    return refused ? OPAL_ERROR_AUDIO_UNSUPPORTED : OPAL_OK;
}

int64_t AudioRoad::CurrentAsset() const {
    boost::shared_ptr<IAudioTrack> track;
    const size_t index = m_pipe.CurrentIndex();
    return index != static_cast<size_t>(-1) &&
                   m_session.parser->GetAudioTrack(index, track) == OPAL_OK
               ? track->GetAssetId()
               : -1;
}

// Without waiting for the transfer that is cancelled: its cluster, should it come after all, is
// dropped by its level.
OPALError AudioRoad::Leave(size_t index) {
    if (!m_pipe.HasWriter())
        return OPAL_ERROR_NOT_READY;
    OPALError code = m_pipe.DiscardLevel(index);
    if (code == OPAL_OK)
        code = m_pipe.Empty();
    if (code == OPAL_OK)
        m_session.RestartSwitching(OPAL_STREAM_AUDIO);
    return code;
}

OPALError AudioRoad::Configure() {
    AudioStreamInfo info;
    OPALError code = m_session.readers->GetAudioInfo(info);
    if (code != OPAL_OK)
        return code;
    const void* header = nullptr;
    size_t headerSize = 0;
    code =
        m_hooks.adapt(info.codecPrivate.GetData(), info.codecPrivate.GetSize(), header, headerSize);
    if (code != OPAL_OK)
        return code;
    auto* sink = dynamic_cast<IAudioSink*>(m_pipe.Sink());
    if (!sink)
        return OPAL_ERROR_NOT_READY;
    return sink->Configure(info.codecID, static_cast<uint32_t>(info.samplingFrequency),
                           info.channels, static_cast<const uint8_t*>(header), headerSize, true);
}

OPALError AudioRoad::Start(int64_t position, bool disabled) {
    OPALError code = m_pipe.CreateWriter();
    if (code == OPAL_OK)
        code = m_pipe.SetWriterDisabled(disabled);
    if (code == OPAL_OK)
        code = m_pipe.Seek(position);
    if (code != OPAL_OK)
        return code;
    if (m_session.buffering.IsActive() && !m_session.buffering.IsComplete()) {
        m_session.buffering.ResetStream(OPAL_STREAM_AUDIO);
        m_session.ArmBuffering(OPAL_STREAM_AUDIO);
    }
    const bool wanted = std::exchange(m_startWanted, false);
    if (m_stopped)
        return OPAL_OK;
    if (m_session.RunsAtNormalRate() || (wanted && m_session.playRate == OPAL_PLAYRATE_ONEX))
        code = m_pipe.StartReader();
    return code == OPAL_OK && m_session.RunsAtNormalRate() ? m_pipe.StartWriter() : code;
}

// A reader that runs before it has been sought would fetch the film's beginning.
OPALError AudioRoad::StartReader() {
    m_stopped = false;
    if (m_ready && !m_pending)
        return m_pipe.StartReader();
    m_startWanted = true;
    return OPAL_OK;
}

void AudioRoad::Reset() {
    m_wanted = 0;
    m_pending = m_selected = m_ready = m_startWanted = m_stopped = false;
}

}  // namespace opal
