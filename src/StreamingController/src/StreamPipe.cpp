#include "StreamingController/src/StreamPipe.h"

#include "Common/StreamKinds.h"
#include "PlatformAdapter/Common/IPlatform.h"
#include "StreamingDemux/EBML/IClusterBuffer.h"
#include "StreamingReader/IStreamingReader.h"
#include "StreamingReader/Readers.h"
#include "StreamingWriter/IStreamingWriter.h"

namespace opal {

/// The readers' operations of one kind.
struct StreamPipe::ReaderOperations {
    OPALError (Readers::*start)();
    OPALError (Readers::*stop)();
    OPALError (Readers::*cancel)();
    OPALError (Readers::*seek)(int64_t&);
    OPALError (Readers::*error)();
    OPALError (Readers::*state)(int&);
    OPALError (Readers::*bytesInFlight)(size_t&);
    size_t (Readers::*count)();
    size_t (Readers::*current)();
};

const StreamPipe::ReaderOperations& StreamPipe::OperationsOf(OPALStreamType type) {
    static const ReaderOperations video = {&Readers::StartVideo,
                                           &Readers::StopVideo,
                                           &Readers::CancelVideo,
                                           &Readers::SeekVideo,
                                           &Readers::GetVideoError,
                                           &Readers::GetVideoState,
                                           &Readers::GetVideoBytesInFlight,
                                           &Readers::GetVideoStreamCount,
                                           &Readers::GetCurrentVideo};
    static const ReaderOperations audio = {&Readers::StartAudio,
                                           &Readers::StopAudio,
                                           &Readers::CancelAudio,
                                           &Readers::SeekAudio,
                                           &Readers::GetAudioError,
                                           &Readers::GetAudioState,
                                           &Readers::GetAudioBytesInFlight,
                                           &Readers::GetAudioStreamCount,
                                           &Readers::GetCurrentAudio};
    static const ReaderOperations subtitle = {&Readers::StartSubtitle,
                                              &Readers::StopSubtitle,
                                              &Readers::CancelSubtitle,
                                              &Readers::SeekSubtitle,
                                              &Readers::GetSubtitleError,
                                              &Readers::GetSubtitleState,
                                              &Readers::GetSubtitleBytesInFlight,
                                              &Readers::GetSubtitleStreamCount,
                                              &Readers::GetCurrentSubtitle};
    return *SelectByKind(type, video, audio, subtitle);
}

StreamPipe::StreamPipe(OPALStreamType type, const SessionObjects& session,
                       boost::scoped_ptr<IClusterBuffer>& buffer,
                       boost::scoped_ptr<IStreamingWriter>& writer,
                       boost::scoped_ptr<IPlatform>& sink)
    : m_type(type),
      m_session(session),
      m_operations(OperationsOf(type)),
      m_buffer(buffer),
      m_writer(writer),
      m_sink(sink) {}

bool StreamPipe::HasStream() const {
    return m_session.readers && (m_session.readers.get()->*m_operations.count)() != 0;
}

OPALError StreamPipe::KeepBuffer(IClusterBuffer* buffer) {
    if (!m_buffer)
        m_session.Publish(m_buffer, buffer);
    return m_buffer ? OPAL_OK : OPAL_ERROR_NO_MEMORY;
}

OPALError StreamPipe::KeepSink(IPlatform* sink) {
    m_session.Publish(m_sink, sink);
    return m_sink ? m_sink->Initialize() : OPAL_ERROR_NO_MEMORY;
}

OPALError StreamPipe::CreateWriter() {
    if (m_writer)
        return OPAL_OK;
    m_session.Publish(
        m_writer, NewStreamingWriter(m_buffer.get(), m_sink.get(), m_type, m_session.writerModel));
    return m_writer ? m_writer->Initialize() : OPAL_ERROR_NO_MEMORY;
}

OPALError StreamPipe::OnReader(OPALError (Readers::*operation)()) {
    const OPALError code = (m_session.readers.get()->*operation)();
    return m_type == OPAL_STREAM_SUBTITLE ? OPAL_OK : code;
}

OPALError StreamPipe::StartReader() {
    return OnReader(m_operations.start);
}

int StreamPipe::ReaderState() {
    int state = STREAMING_READER_ERROR;
    (void)(m_session.readers.get()->*m_operations.state)(state);
    return state;
}

OPALError StreamPipe::ReaderError() {
    return HasStream() ? (m_session.readers.get()->*m_operations.error)() : OPAL_OK;
}

size_t StreamPipe::CurrentIndex() {
    return m_session.readers ? (m_session.readers.get()->*m_operations.current)()
                             : static_cast<size_t>(-1);
}

size_t StreamPipe::BytesInFlight() {
    size_t bytes = 0;
    return (m_session.readers.get()->*m_operations.bytesInFlight)(bytes) == OPAL_OK ? bytes : 0;
}

OPALError StreamPipe::StartWriter() {
    return m_writer ? m_writer->Start() : OPAL_OK;
}

OPALError StreamPipe::PauseWriter() {
    return m_writer ? m_writer->Pause() : OPAL_OK;
}

OPALError StreamPipe::WriterError() {
    return m_writer ? m_writer->GetError() : OPAL_OK;
}

OPALError StreamPipe::DiscardLevel(size_t level) {
    return m_writer ? m_writer->SetDiscardLevel(level) : OPAL_OK;
}

OPALError StreamPipe::SetWriterDisabled(bool disabled) {
    return m_writer ? m_writer->SetDisabled(disabled) : OPAL_OK;
}

OPALError StreamPipe::SetWriterRate(OPALPlayRate rate) {
    return m_writer ? m_writer->SetRate(rate) : OPAL_OK;
}

bool StreamPipe::IsEndOfStream() {
    return m_writer && m_writer->IsEndOfStream();
}

int64_t StreamPipe::BufferedDuration() {
    int64_t ms = m_buffer ? m_buffer->GetBufferedDuration() : 0;
    int64_t written = 0;
    const bool counts = m_type == OPAL_STREAM_VIDEO || HasStream();
    if (counts && m_writer && m_writer->GetBufferedDuration(written) == OPAL_OK)
        ms += written;
    return ms;
}

bool StreamPipe::GetSinkFigures(SinkEvent& figures) {
    if (m_writer)
        m_writer->GetSinkFigures(figures);
    return m_writer != nullptr;
}

OPALError StreamPipe::StopAndClear(std::initializer_list<StreamPipe*> pipes, bool wait) {
    OPALError code = OPAL_OK;
    for (StreamPipe* pipe : pipes) {
        if (code == OPAL_OK)
            code = pipe->OnReader(pipe->m_operations.stop);
        if (code == OPAL_OK)
            code = pipe->OnReader(pipe->m_operations.cancel);
    }
    for (StreamPipe* pipe : pipes)
        code = code == OPAL_OK ? pipe->PauseWriter() : code;
    if (code == OPAL_OK && wait)
        (*pipes.begin())->m_session.readers->WaitForCancelled();
    for (StreamPipe* pipe : pipes)
        if (code == OPAL_OK && pipe->m_buffer)
            code = pipe->m_buffer->Clear();
    return code;
}

OPALError StreamPipe::Flush(std::initializer_list<StreamPipe*> pipes) {
    OPALError code = OPAL_OK;
    for (StreamPipe* pipe : pipes)
        if (code == OPAL_OK && pipe->m_writer)
            code = pipe->m_writer->Flush();
    return code;
}

OPALError StreamPipe::Empty() {
    return Empty({this}, false, [] { return OPAL_OK; });
}

OPALError StreamPipe::Seek(int64_t& positionMs) {
    const OPALError code = (m_session.readers.get()->*m_operations.seek)(positionMs);
    return m_type == OPAL_STREAM_SUBTITLE ? OPAL_OK : code;
}

void StreamPipe::DropWriter() {
    if (m_writer)
        (void)m_writer->Finalize();
    m_session.Publish<IStreamingWriter>(m_writer, nullptr);
}

OPALError StreamPipe::DropSink() {
    if (!m_sink)
        return OPAL_OK;
    const OPALError flushed = m_sink->Flush();
    if (m_type == OPAL_STREAM_VIDEO)
        (void)m_sink->Stop();
    m_session.Publish<IPlatform>(m_sink, nullptr);
    return flushed;
}

void StreamPipe::DropBuffer(bool keep) {
    if (!keep)
        m_session.Publish<IClusterBuffer>(m_buffer, nullptr);
    else if (m_buffer)
        (void)m_buffer->Clear();
}

}  // namespace opal
