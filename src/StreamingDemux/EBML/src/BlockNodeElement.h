#pragma once

#include <cstddef>
#include <cstdint>

#include "Common/OPALError.h"
#include "StreamingDemux/EBML/BlockNode.h"
#include "StreamingDemux/EBML/EBMLElement.h"

/// A Block, or one of the small elements beside it in a group. As a Block its payload starts with a
/// header of its own: track number, time code relative to the cluster, flags.
class BlockNodeElement : public EBMLElement_CacheData {
  public:
    using EBMLElement_CacheData::EBMLElement_CacheData;

    virtual uint64_t GetBlockSize() const { return GetSize(); }
    /// Length of the block's own header; 0 until ParseBlockHeader has succeeded.
    virtual uint64_t GetPayloadOffset() const { return m_payloadOffset; }
    virtual const uint8_t* GetBlockData() const { return GetData(); }

    /// -9 if the buffer does not hold the whole block, or the block holds no payload.
    OPALError ParseBlockHeader(int16_t& relativeTimecode);
    /// -4 without a parsed header; `block.data` is empty after a failure.
    OPALError CopyPayload(BlockNode& block, size_t padding) const;

  private:
    uint64_t m_payloadOffset = 0;
};
