#pragma once

#include <boost/noncopyable.hpp>
#include <cstddef>
#include <cstdint>

#include "Common/MemoryBuffer.h"
#include "Common/OPALError.h"
#include "Common/OPALPlayRate.h"
#include "Common/OPALStreamType.h"
#include "Common/OPALWriterModel.h"
#include "Common/SessionEvents.h"

class IClusterBuffer;
class IPlatform;

/// The consumer of a cluster buffer: takes clusters out in order, cuts them into blocks and hands
/// the blocks to one sink. In the push model a thread of its own does so; in the pull model the
/// application asks for each block.
///
/// Threading: Start, SetRate, Flush, PullBlock, GetLevelForTime and WriteBlocks exclude each other
/// and wait for a round that runs, so that none runs after Pause. Pause tells the sink before it
/// waits, which ends a round that the sink holds up. GetError, GetBufferedDuration, IsEndOfStream
/// and SetDiscardLevel never wait for a round. Finalize waits for the thread, hence must not come
/// from a call of the sink's.
/// Ownership: buffer and sink are not owned.
/// Units: milliseconds.
/// Errors: -7 nothing now, -9 end of the stream; any other failure ends the loop and sticks.
class IStreamingWriter : boost::noncopyable {
  public:
    virtual ~IStreamingWriter() = default;
    virtual OPALError Initialize() = 0;
    virtual OPALError Start() = 0;
    virtual OPALError Pause() = 0;
    virtual OPALError SetRate(OPALPlayRate rate) = 0;
    /// The last cluster has been taken, and at most 500 ms of it wait in the sink.
    virtual bool IsEndOfStream() = 0;
    virtual OPALError Finalize() = 0;
    virtual OPALError GetError() = 0;
    /// What the sink and the cluster in hand still hold.
    virtual OPALError GetBufferedDuration(int64_t& ms) = 0;
    virtual OPALError Flush() = 0;
    /// Clusters of this level are dropped until the first one of another.
    virtual OPALError SetDiscardLevel(size_t level) = 0;
    /// A disabled writer takes nothing to its sink.
    virtual OPALError SetDisabled(bool disabled) = 0;
    /// Pull model only, else -3. `data` is the block as the file holds it: video with the lengths
    /// of its NAL units. The sink is offered a copy; that it is full (-7) is not told, since the
    /// caller has the block.
    virtual OPALError PullBlock(qutl::MemoryBuffer<unsigned char>& data, int64_t& time,
                                int64_t& duration, uint32_t& level, uint32_t& flags) = 0;
    /// Which level is on the screen at `timeMs`; -1, with `level` as it was, if not known. Video
    /// only.
    virtual OPALError GetLevelForTime(int64_t timeMs, size_t& level) = 0;
    /// One round of the loop.
    virtual OPALError WriteBlocks() = 0;
    /// What the sink has taken so far, for the session's observer.
    virtual void GetSinkFigures(opal::SinkEvent&) {}
};

/// A new writer, owned by the caller; null for a null buffer, and for a null sink in the push
/// model.
IStreamingWriter* NewStreamingWriter(IClusterBuffer* buffer, IPlatform* sink,
                                     OPALStreamType streamType, OPALWriterModel model);
