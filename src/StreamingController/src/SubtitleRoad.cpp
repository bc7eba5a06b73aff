#include "StreamingController/src/SubtitleRoad.h"

#include <memory>
#include <utility>

#include "Common/CodecIDs.h"
#include "Common/logging/Logger.h"
#include "PlatformAdapter/Common/IPlatform.h"
#include "PlatformAdapter/Common/ISinks.h"
#include "SMILParser/ISMILParser.h"
#include "StreamingController/BufferingSession.h"
#include "StreamingReader/IStreamingReader.h"
#include "StreamingReader/Readers.h"
#include "StreamingWriter/IStreamingWriter.h"

namespace opal {
namespace {

constexpr size_t kMostSubtitleHeader = 2100000;

}  // namespace

SubtitleRoad::SubtitleRoad(const SessionObjects& session, StreamPipe& pipe, const Figures& figures,
                           RoadHooks hooks, std::function<IClusterBuffer*()> newBuffer,
                           std::function<IPlatformSubtitleNotify*()> newNotify)
    : m_session(session),
      m_pipe(pipe),
      m_figures(figures),
      m_hooks(std::move(hooks)),
      m_newBuffer(std::move(newBuffer)),
      m_newNotify(std::move(newNotify)) {}

SubtitleRoad::State SubtitleRoad::GetState() const {
    if (Error() != OPAL_OK)
        return State::Failed;
    if (IsPending())
        return State::Opening;
    return IsOn() ? State::On : State::Off;
}

size_t SubtitleRoad::Current() const {
    return IsOn() ? m_pipe.CurrentIndex() : kNone;
}

int64_t SubtitleRoad::CurrentAsset() const {
    boost::shared_ptr<ISubtitleTrack> track;
    const size_t index = Current();
    return index != kNone && m_session.parser->GetSubtitleTrack(index, track) == OPAL_OK
               ? track->GetAssetId()
               : -1;
}

OPALError SubtitleRoad::Select(size_t index) {
    if (index == kNone)
        return TurnOff();
    if (!m_session.readers)
        return OPAL_ERROR_NOT_READY;
    if (index >= m_session.parser->GetSubtitleTrackCount())
        return OPAL_ERROR_INVALID_ARGUMENT;
    boost::shared_ptr<ISubtitleTrack> track;
    OPALError code = m_session.parser->GetSubtitleTrack(index, track);
    if (code != OPAL_OK)
        return code;
    if (track->GetHeaderRequestSize() > kMostSubtitleHeader)
        return OPAL_ERROR_NO_MEMORY;
    if (!m_pipe.HasStream()) {
        code = Open(index);
        if (code != OPAL_OK)
            return code;
    }
    const size_t old = m_pipe.CurrentIndex();
    if (old == index)
        return m_session.readers->SetSubtitleStream(index);  // which may have been given up
    code = m_pipe.DiscardLevel(old);
    if (code == OPAL_OK)
        code = TurnOff();
    if (code == OPAL_OK)
        code = m_session.readers->SetSubtitleStream(index);
    return code;
}

// The sink comes first: on a television without one nothing else is touched.
OPALError SubtitleRoad::Open(size_t index) {
    std::unique_ptr<IPlatform> sink;
    if (!m_pipe.Sink()) {
        sink.reset(m_hooks.newSink());
        if (!sink)
            return OPAL_ERROR_NO_MEMORY;
    }
    OPALError code = m_pipe.KeepBuffer(m_pipe.Buffer() ? nullptr : m_newBuffer());
    if (code == OPAL_OK)
        code = m_session.readers->SubtitleInitialize(m_session.parser.get(), m_pipe.Buffer(),
                                                     m_session.readerNotify.get(), index);
    if (code != OPAL_OK || !sink)
        return code;
    auto* subtitleSink = dynamic_cast<ISubtitleSink*>(sink.get());
    code = m_pipe.KeepSink(sink.release());
    if (code != OPAL_OK)
        return code;
    m_figures.notify.reset(m_newNotify());
    if (subtitleSink)
        subtitleSink->SetNotify(m_figures.notify.get());
    return OPAL_OK;
}

// What the stream's reader answers is not looked at: a stream that has failed is turned off too. A
// stream that is still being opened is not opened any further.
OPALError SubtitleRoad::TurnOff() {
    OPALError code = OPAL_OK;
    if (m_pipe.HasWriter()) {
        code = m_pipe.Empty();
        m_session.RestartSwitching(OPAL_STREAM_SUBTITLE);
    }
    if (m_session.readers)
        m_session.readers->GiveUpOpeningSubtitle();
    m_figures.on = false;
    return code;
}

void SubtitleRoad::BeginPending(size_t index, bool writersPaused) {
    if (!IsPending())
        m_figures.savedWritersPaused = writersPaused;
    m_pending = index;
    m_figures.on = false;
}

void SubtitleRoad::ArmBuffering() {
    m_session.buffering.ResetStream(OPAL_STREAM_SUBTITLE);
    if (m_pipe.CurrentIndex() != kNone &&
        m_session.readers->GetSubtitleBytesAhead(m_figures.targetBytes) == OPAL_OK)
        m_session.buffering.SetTarget(m_figures.targetBytes, OPAL_STREAM_SUBTITLE);
}

OPALError SubtitleRoad::Continue(size_t index) {
    const int state = m_pipe.ReaderState();
    if (state == STREAMING_READER_NOT_OPEN)
        return Error() == OPAL_OK ? OPAL_ERROR_NOT_YET : Error();
    if (state == STREAMING_READER_ERROR)
        return m_pipe.ReaderError();
    int64_t position = 0;
    OPALError code = m_hooks.position(position);
    if (code == OPAL_OK)
        code = m_session.readers->SeekSubtitle(position);
    if (code == OPAL_OK)
        code = Configure(index);
    if (code == OPAL_OK)
        code = m_pipe.CreateWriter();
    if (code == OPAL_OK)
        code = m_session.readers->StartSubtitle();
    if (code == OPAL_OK && m_session.RunsAtNormalRate())
        code = m_pipe.StartWriter();
    if (code == OPAL_OK)
        m_figures.on = true;
    return code;
}

OPALError SubtitleRoad::Configure(size_t index) {
    boost::shared_ptr<ISubtitleTrack> track;
    OPALError code = m_session.parser->GetSubtitleTrack(index, track);
    if (code != OPAL_OK)
        return code;
    const void* font = nullptr;
    size_t fontSize = 0;
    if (m_session.readers->GetSubtitleFont(font, fontSize) != OPAL_OK) {
        font = nullptr;
        fontSize = 0;
    }
    code = m_hooks.adapt(font, fontSize, font, fontSize);
    if (code != OPAL_OK)
        return code;
    auto* sink = dynamic_cast<ISubtitleSink*>(m_pipe.Sink());
    if (!sink)
        return OPAL_ERROR_NOT_READY;
    // The reserved bandwidth stands for width and height, which the sink does not use; deliberate.
    const int bandwidth = track->GetReservedBandwidth();
    code = sink->Configure(SUBTITLECODECID_UTF8, bandwidth, bandwidth, font, fontSize);
    if (code != OPAL_OK && fontSize == 0)
        LOG4CXX_ERROR(
            getLogger("opal.StreamingController"),
            "The subtitle stream " << track->GetURI() << " brings no font to draw it with");
    return code;
}

bool SubtitleRoad::EndPending(bool& writersPaused) {
    if (!IsPending())
        return false;
    m_pending = kNone;
    m_session.buffering.AddBytes(m_figures.targetBytes, OPAL_STREAM_SUBTITLE);
    if (m_session.buffering.IsActive() && m_session.buffering.IsComplete())
        m_session.buffering.Reset();
    writersPaused = m_figures.savedWritersPaused;
    return true;
}

OPALError SubtitleRoad::Error() const {
    const OPALError code = m_pipe.ReaderError();
    return code == OPAL_ERROR_TERMINATED ? OPAL_OK : code;
}

bool SubtitleRoad::DropFailed() {
    const bool wanted = IsPending() || IsOn();
    (void)TurnOff();
    // Or the track that was left for the failed one would be dropped when it comes back.
    (void)m_pipe.DiscardLevel(kNone);
    (void)m_session.readers->FinalizeSubtitle();
    return wanted;
}

OPALError SubtitleRoad::GetFont(const void*& font, size_t& size) const {
    if (m_pipe.HasStream() && m_pipe.ReaderState() == STREAMING_READER_NOT_OPEN)
        return OPAL_ERROR_NOT_YET;
    return m_session.readers->GetSubtitleFont(font, size);
}

OPALError SubtitleRoad::StartReader() {
    return IsOn() ? m_pipe.StartReader() : OPAL_OK;
}

OPALError SubtitleRoad::StartWriter() {
    return IsOn() ? m_pipe.StartWriter() : OPAL_OK;
}

OPALError SubtitleRoad::PauseWriter() {
    return IsOn() ? m_pipe.PauseWriter() : OPAL_OK;
}

void SubtitleRoad::Reset() {
    m_pending = kNone;
    m_figures.on = false;
    m_figures.savedWritersPaused = false;
    m_figures.targetBytes = 0;
}

}  // namespace opal
