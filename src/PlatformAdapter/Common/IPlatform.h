#pragma once

#include <boost/noncopyable.hpp>
#include <cstddef>
#include <cstdint>

#include "Common/OPALError.h"
#include "Common/OPALPlayRate.h"

/// A sink: the way of one kind of stream to the television's decoder.
///
/// Threading: a writer's thread (Queue, GetBlockTrailerSize, Refresh, SetClusterTime) and the
/// controller's (all others) come at once. Queue may block for as long as the decoder takes.
/// Units: milliseconds, never negative.
/// Errors: -7 from Queue: nothing of the block was taken, present it again. -1 before it is
/// configured and for any failure below.
class IPlatform : boost::noncopyable {
  public:
    virtual ~IPlatform() = default;
    virtual OPALError Initialize() = 0;
    /// Also the first step of the destructor; twice is harmless.
    virtual OPALError Finalize() = 0;
    virtual OPALError Start() = 0;
    /// The bytes may be changed in place when the block is taken.
    virtual OPALError Queue(void* data, size_t size, int64_t msTimeStamp, int64_t msDuration) = 0;
    virtual OPALError Flush() = 0;
    virtual OPALError Stop() = 0;
    virtual OPALError SetPaused(bool paused) = 0;
    /// Bytes that the writer shall cut from the end of each block before Queue.
    virtual OPALError GetBlockTrailerSize(size_t& size) = 0;
    virtual OPALError GetTime(uint32_t& ms) = 0;
    virtual OPALError GetPosition(int64_t& ms) = 0;
    /// Time queued ahead of the position.
    virtual OPALError GetBufferedDuration(int64_t& ms) = 0;
    virtual OPALError SetRate(OPALPlayRate rate) = 0;
    virtual OPALError SetClusterTime(int64_t ms) = 0;
    /// Called by the subtitle writer each time before it queues.
    virtual OPALError Refresh() = 0;
};
