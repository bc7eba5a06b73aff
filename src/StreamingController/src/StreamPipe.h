#pragma once

#include <boost/scoped_ptr.hpp>
#include <cstddef>
#include <cstdint>
#include <initializer_list>

#include "Common/OPALError.h"
#include "Common/OPALPlayRate.h"
#include "Common/OPALStreamType.h"
#include "Common/SessionEvents.h"
#include "StreamingController/src/SessionObjects.h"

class IClusterBuffer;
class IPlatform;
class IStreamingWriter;

namespace opal {

/// One kind of stream from its reader to its sink: a view of what the controller owns of that kind,
/// with what is done to all of it. A kind that the film has not, or that is not open yet, is a pipe
/// that has nothing to do and answers 0.
///
/// A failed subtitle stream ends no film, so the subtitle pipe does not answer with what its reader
/// says; whoever selects subtitles looks at that error.
///
/// Threading: under the session's lock. BufferedDuration and BytesInFlight: under it, or shared
/// with the accessors' lock, or on a reader's thread.
/// Ownership: refers to the controller's pointers.
/// Units: milliseconds, bytes.
class StreamPipe {
  public:
    StreamPipe(OPALStreamType type, const SessionObjects& session,
               boost::scoped_ptr<IClusterBuffer>& buffer,
               boost::scoped_ptr<IStreamingWriter>& writer, boost::scoped_ptr<IPlatform>& sink);

    OPALStreamType Type() const { return m_type; }
    IClusterBuffer* Buffer() const { return m_buffer.get(); }
    IPlatform* Sink() const { return m_sink.get(); }
    /// The readers have a stream of this kind.
    bool HasStream() const;
    bool HasWriter() const { return m_writer != nullptr; }

    /// Takes the buffer over, unless there is one. -5 for null.
    OPALError KeepBuffer(IClusterBuffer* buffer);
    /// Takes the sink over and initialises it. -5 for null.
    OPALError KeepSink(IPlatform* sink);
    /// Unless there is one.
    OPALError CreateWriter();

    OPALError StartReader();
    int ReaderState();
    OPALError ReaderError();
    size_t CurrentIndex();
    size_t BytesInFlight();

    OPALError StartWriter();
    OPALError PauseWriter();
    OPALError WriterError();
    OPALError DiscardLevel(size_t level);
    OPALError SetWriterDisabled(bool disabled);
    OPALError SetWriterRate(OPALPlayRate rate);
    bool IsEndOfStream();
    /// What the buffer, the writer and the sink hold.
    int64_t BufferedDuration();
    /// False without a writer.
    bool GetSinkFigures(SinkEvent& figures);

    /// Empties the pipes for a jump or a change of track, in this order: readers stopped and their
    /// transfers cancelled, writers paused, buffers cleared, `between` run, writers flushed. With
    /// `wait`, nothing of what was cancelled reaches a buffer afterwards; without, a cluster of the
    /// track that is left may, and DiscardLevel is to drop it. The first failure is returned.
    template <typename Between>
    static OPALError Empty(std::initializer_list<StreamPipe*> pipes, bool wait, Between between) {
        OPALError code = StopAndClear(pipes, wait);
        if (code == OPAL_OK)
            code = between();
        return code == OPAL_OK ? Flush(pipes) : code;
    }
    OPALError Empty();  ///< this one, without waiting
    OPALError Seek(int64_t& positionMs);

    /// The end of a session: writer, then sink. Answers what the sink's last flush answered.
    void DropWriter();
    OPALError DropSink();
    void DropBuffer(bool keep);

  private:
    struct ReaderOperations;
    static const ReaderOperations& OperationsOf(OPALStreamType type);
    static OPALError StopAndClear(std::initializer_list<StreamPipe*> pipes, bool wait);
    static OPALError Flush(std::initializer_list<StreamPipe*> pipes);
    OPALError OnReader(OPALError (Readers::*operation)());

    const OPALStreamType m_type;
    const SessionObjects& m_session;
    const ReaderOperations& m_operations;
    boost::scoped_ptr<IClusterBuffer>& m_buffer;
    boost::scoped_ptr<IStreamingWriter>& m_writer;
    boost::scoped_ptr<IPlatform>& m_sink;
};

}  // namespace opal
