#pragma once

#include <boost/noncopyable.hpp>
#include <cstddef>
#include <cstdint>

#include "Common/MemoryBuffer.h"
#include "Common/OPALError.h"
#include "StreamingDemux/EBML/BlockNode.h"

/// Takes whole clusters, one at a time, and yields their blocks forward or backward.
///
/// Threading: none; a parser belongs to one thread at a time.
/// Ownership: owns the loaded cluster's bytes until the next one or Reset.
/// Errors: -9 is the end of the cluster in that direction, or a block that the bytes do not cover;
/// -4 no cluster loaded; -1 malformed.
class IClusterParser : boost::noncopyable {
  public:
    virtual ~IClusterParser() = default;
    /// Takes the bytes over; `data` is empty afterwards. `tag` goes into each block's level. -2 for
    /// an empty `data`, -1 if the bytes do not begin with a cluster that has a time code.
    virtual OPALError SetCluster(qutl::MemoryBuffer<unsigned char>& data, uint32_t tag) = 0;
    /// `padding` zero bytes follow the payload in the block's buffer.
    virtual OPALError GetNextBlock(BlockNode& block, size_t padding) = 0;
    virtual OPALError GetPreviousBlock(BlockNode& block, size_t padding) = 0;
    /// Frees the cluster. Always 0.
    virtual OPALError Reset() = 0;
};

/// A new parser, owned by the caller.
IClusterParser* NewClusterParser();
