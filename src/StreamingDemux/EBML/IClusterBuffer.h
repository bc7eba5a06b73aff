#pragma once

#include <boost/noncopyable.hpp>
#include <cstddef>
#include <cstdint>

#include "Common/MemoryBuffer.h"
#include "Common/OPALError.h"
#include "Common/OPALStreamType.h"

/// What travels with each cluster.
struct ClusterInfo {
    OPALStreamType streamType = static_cast<OPALStreamType>(-1);
    int64_t duration = 0;       ///< nominal, ms
    uint32_t level = 0;         ///< level or track number within its kind
    int32_t clusterIndex = -1;  ///< position in the stream's index
    uint32_t clusterCount = 0;  ///< clusters of the stream
    int64_t frameDuration = 0;  ///< ns
};

/// The hand-over point between downloading and playing: a bounded first-in-first-out queue of whole
/// clusters. Bytes are handed over, never copied.
///
/// Threading: reader, writer and controller use it at once. Nothing blocks or waits.
/// Units: bytes, milliseconds of nominal playing time.
/// Errors: -18 no room, in bytes or duration; -5 nothing queued.
class IClusterBuffer : boost::noncopyable {
  public:
    virtual ~IClusterBuffer() = default;
    virtual size_t GetUsedBytes() = 0;
    virtual size_t GetFreeBytes() = 0;
    virtual size_t GetCapacity() = 0;
    /// 0 or less: no limit.
    virtual void SetMaxDuration(int64_t ms) = 0;
    /// Takes no lock; may lag behind by one operation.
    virtual int64_t GetBufferedDuration() = 0;
    /// Takes the bytes over on success; keeps its hands off `data` otherwise. -2 for empty data.
    virtual OPALError Write(qutl::MemoryBuffer<unsigned char>& data, const ClusterInfo& info) = 0;
    virtual OPALError Read(qutl::MemoryBuffer<unsigned char>& data, ClusterInfo& info) = 0;
    /// Always 0.
    virtual OPALError Clear() = 0;
};

/// A new buffer of `capacity` bytes (32 bits count), owned by the caller; null for capacity 0.
IClusterBuffer* NewClusterBuffer(size_t capacity);
