#include "StreamingDemux/EBML/src/BlockNodeElement.h"

#include "StreamingDemux/EBML/EBMLReader.h"
#include "StreamingDemux/EBML/EBMLTree.h"

OPALError BlockNodeElement::ParseBlockHeader(int16_t& relativeTimecode) {
    m_payloadOffset = 0;
    const uint8_t* data = GetCompleteData();
    if (!data)
        return OPAL_ERROR_END_OF_DATA;
    // The file has one track, so its number is only stepped over; likewise the flags byte: a block
    // is one frame, whatever its lacing bits say.
    uint64_t trackNumber = 0;
    const size_t trackLength =
        ReadVInt(data, static_cast<int64_t>(GetBlockSize()), true, trackNumber);
    if (trackLength == 0 || GetBlockSize() - trackLength < 4)
        return OPAL_ERROR_END_OF_DATA;
    relativeTimecode = static_cast<int16_t>(ReadUInt(data + trackLength, 2));
    m_payloadOffset = trackLength + 3;
    return OPAL_OK;
}

OPALError BlockNodeElement::CopyPayload(BlockNode& block, size_t padding) const {
    const uint8_t* data = GetBlockData();
    if (!data || m_payloadOffset == 0) {
        block.data.Resize(0, false);
        return OPAL_ERROR_NOT_READY;
    }
    block.data.Assign(data + m_payloadOffset, static_cast<size_t>(GetBlockSize() - m_payloadOffset),
                      padding, true);
    return block.data.IsEmpty() ? OPAL_ERROR_NO_MEMORY : OPAL_OK;
}
