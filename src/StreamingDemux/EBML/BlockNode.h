#pragma once

#include <cstdint>

#include "Common/MemoryBuffer.h"

/// One block of a media file: a video access unit, an audio frame or a text. Filled in by the
/// parser and reused by the caller for block after block.
///
/// Units: milliseconds.
class BlockNode {
  public:
    static constexpr uint32_t kKeyFrame = 16;

    virtual ~BlockNode() = default;

    qutl::MemoryBuffer<unsigned char> data;  ///< payload, and the padding the sink asked for
    int64_t timecode = 0;                    ///< absolute media time
    int64_t duration = 0;                    ///< 0 when the file gives none
    uint32_t level = 0;                      ///< level of the cluster the block came from
    uint32_t flags = 0;                      ///< kKeyFrame or 0
};
