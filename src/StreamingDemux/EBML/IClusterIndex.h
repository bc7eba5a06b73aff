#pragma once

#include <boost/noncopyable.hpp>
#include <cstddef>
#include <cstdint>
#include <vector>

#include "Common/OPALError.h"

struct ClusterIndexFrame {
    uint64_t offset = 0;  ///< file offset of the frame's BlockGroup
    uint32_t size = 0;    ///< bytes up to the next frame, or to the cluster's end
};

struct ClusterIndexEntry {
    int64_t time = 0;    ///< ms
    int64_t offset = 0;  ///< file offset of the Cluster element
    int64_t size = 0;    ///< bytes
    uint32_t index = 0;  ///< position of this entry in the index
    uint32_t headerSize =
        0;  ///< bytes from the cluster's start to its first frame; 0 without frames
    std::vector<ClusterIndexFrame> frames;
};

/// What is known of a stream's body without reading it: where each cluster lies, when it starts,
/// and which key frames it holds.
///
/// Threading: parsed once, by one thread; read-only and lock-free afterwards.
/// Units: milliseconds, bytes.
/// Errors: queries out of range give 0, GetEntry -3, GetFrame -6.
class IClusterIndex : boost::noncopyable {
  public:
    virtual ~IClusterIndex() = default;
    /// Reads a whole Cues element. -1 if it is none, names a cluster without a position, or no
    /// cluster.
    virtual OPALError Parse(const uint8_t* data, int64_t size) = 0;
    virtual size_t GetCount() const = 0;
    /// Time, offset, size and index; `headerSize` and `frames` stay empty.
    virtual OPALError GetEntry(size_t index, ClusterIndexEntry& entry) const = 0;
    /// The last cluster that starts at or before `time`, clamped to the stream; filled like
    /// GetEntry's.
    virtual OPALError FindByTime(int64_t time, ClusterIndexEntry& entry) const = 0;
    virtual int64_t GetTime(size_t index) const = 0;
    virtual int64_t GetOffset(size_t index) const = 0;
    virtual int64_t GetSize(size_t index) const = 0;
    virtual size_t GetFrameCount(size_t index) const = 0;
    virtual uint32_t GetHeaderSize(size_t index) const = 0;
    virtual OPALError GetFrame(size_t index, size_t frame, int64_t& offset,
                               uint32_t& size) const = 0;
};

/// A new, empty index, owned by the caller. `cuesOffset`: file offset of the Cues element, which is
/// also the end of the last cluster; `segmentDataOffset`: of the Segment's payload, which positions
/// in the file are relative to.
IClusterIndex* NewClusterIndex(int64_t cuesOffset, int64_t segmentDataOffset);
