#include "StreamingDemux/EBML/ClusterIndex.h"

#include <algorithm>

#include "StreamingDemux/EBML/EBMLElement.h"
#include "StreamingDemux/EBML/EBMLIDs.h"
#include "StreamingDemux/EBML/EBMLReader.h"
#include "StreamingDemux/EBML/EBMLTree.h"

using namespace opal::ebml;

namespace {

/// File offsets come from the file: they are added and subtracted without a check, and so without
/// a sign.
int64_t Add(int64_t offset, uint64_t value) {
    return static_cast<int64_t>(static_cast<uint64_t>(offset) + value);
}

int64_t Subtract(int64_t end, int64_t start) {
    return static_cast<int64_t>(static_cast<uint64_t>(end) - static_cast<uint64_t>(start));
}

}  // namespace

ClusterIndex::ClusterIndex(int64_t cuesOffset, int64_t segmentDataOffset)
    : m_cuesOffset(cuesOffset), m_segmentDataOffset(segmentDataOffset) {
    for (const uint64_t id : {kCues, kCuePoint, kCueTrackPositions, kCueFrameList})
        m_schema.AddContainer(id);
    for (const uint64_t id : {kCueTime, kCueClusterPosition, kCueFramePosition})
        m_schema.AddData(id);
    m_schema.SetDefaultPolicy(EBMLElementPolicy_NoCache);
}

OPALError ClusterIndex::Parse(const uint8_t* data, int64_t size) {
    if (!data || size <= 0)
        return OPAL_ERROR_INVALID_ARGUMENT;
    const EBMLTree tree(&m_schema, data, size);
    if (tree.GetID() != kCues)
        return OPAL_ERROR_GENERAL;
    m_elementBudget = std::min(size, kMaxElements);
    for (EBMLElement* child = tree.GetFirstChild(); child; child = tree.GetNextChild()) {
        if (!IsWithinBudget())
            return OPAL_ERROR_GENERAL;
        if (child->GetID() != kCuePoint)
            continue;
        const OPALError result = ReadCuePoint(*child);
        if (result != OPAL_OK)
            return result;
    }
    if (m_entries.empty())
        return OPAL_ERROR_GENERAL;
    FixSizes();
    return OPAL_OK;
}

/// An element takes two bytes at least and is visited once, so that a budget of one visit a byte
/// cannot run out, unless elements claim to reach beyond their parents: then the same bytes would
/// be read again and again, and time and memory grow with the square of the size. The fixed limit
/// bounds what the smallest elements, some of which make an entry or a frame each, take in memory.
bool ClusterIndex::IsWithinBudget() {
    return m_elementBudget-- > 0;
}

OPALError ClusterIndex::ReadCuePoint(EBMLElement& cuePoint) {
    ClusterIndexEntry entry;
    for (EBMLElement* child = cuePoint.GetFirstChild(); child; child = cuePoint.GetNextChild()) {
        if (!IsWithinBudget())
            return OPAL_ERROR_GENERAL;
        const uint64_t id = child->GetID();
        if (id == kCueTime) {
            if (const uint8_t* value = child->GetCompleteData())
                entry.time = static_cast<int64_t>(ReadUInt(value, child->GetSize()));
        } else if (id == kCueTrackPositions) {
            const OPALError result = ReadTrackPositions(*child, entry);
            if (result != OPAL_OK)
                return result;
        }
    }
    entry.index = static_cast<uint32_t>(m_entries.size());
    m_entries.push_back(std::move(entry));
    return OPAL_OK;
}

OPALError ClusterIndex::ReadTrackPositions(EBMLElement& positions, ClusterIndexEntry& entry) {
    bool hasPosition = false;
    bool hasFrameList = false;
    std::vector<uint64_t> framePositions;
    for (EBMLElement* child = positions.GetFirstChild(); child; child = positions.GetNextChild()) {
        if (!IsWithinBudget())
            return OPAL_ERROR_GENERAL;
        const uint64_t id = child->GetID();
        if (id == kCueClusterPosition && !hasPosition) {
            const uint8_t* value = child->GetCompleteData();
            if (!value)
                return OPAL_ERROR_GENERAL;
            entry.offset = Add(m_segmentDataOffset, ReadUInt(value, child->GetSize()));
            hasPosition = true;
        } else if (id == kCueFrameList && !hasFrameList) {
            const OPALError result = ReadFrameList(*child, framePositions);
            if (result != OPAL_OK)
                return result;
            hasFrameList = true;
        }
    }
    if (!hasPosition)
        return OPAL_ERROR_GENERAL;
    for (const uint64_t position : framePositions) {
        ClusterIndexFrame frame;
        frame.offset = static_cast<uint64_t>(entry.offset) + position;
        entry.frames.push_back(frame);
    }
    return OPAL_OK;
}

OPALError ClusterIndex::ReadFrameList(EBMLElement& list, std::vector<uint64_t>& positions) {
    for (EBMLElement* child = list.GetFirstChild(); child; child = list.GetNextChild()) {
        if (!IsWithinBudget())
            return OPAL_ERROR_GENERAL;
        if (const uint8_t* value = child->GetCompleteData())
            positions.push_back(ReadUInt(value, child->GetSize()));
    }
    return OPAL_OK;
}

void ClusterIndex::FixSizes() {
    for (size_t i = 0; i < m_entries.size(); ++i) {
        const int64_t end = i + 1 < m_entries.size() ? m_entries[i + 1].offset : m_cuesOffset;
        m_entries[i].size = Subtract(end, m_entries[i].offset);
        FixFrameSizes(i, end);
    }
}

void ClusterIndex::FixFrameSizes(size_t index, int64_t clusterEnd) {
    if (index >= m_entries.size() || m_entries[index].frames.empty())
        return;
    ClusterIndexEntry& entry = m_entries[index];
    // These sizes count in 32 bits. Frames out of order get sizes that no buffer has room for.
    entry.headerSize =
        static_cast<uint32_t>(entry.frames.front().offset - static_cast<uint64_t>(entry.offset));
    for (size_t i = 0; i < entry.frames.size(); ++i) {
        const uint64_t end = i + 1 < entry.frames.size() ? entry.frames[i + 1].offset
                                                         : static_cast<uint64_t>(clusterEnd);
        entry.frames[i].size = static_cast<uint32_t>(end - entry.frames[i].offset);
    }
}

OPALError ClusterIndex::GetEntry(size_t index, ClusterIndexEntry& entry) const {
    entry = ClusterIndexEntry();
    if (index >= m_entries.size())
        return OPAL_ERROR_OUT_OF_RANGE;
    CopyEntry(index, entry);
    return OPAL_OK;
}

OPALError ClusterIndex::FindByTime(int64_t time, ClusterIndexEntry& entry) const {
    entry = ClusterIndexEntry();
    if (m_entries.empty() || m_entries.back().time < m_entries.front().time)
        return OPAL_ERROR_GENERAL;
    CopyEntry(SearchByTime(time), entry);
    return OPAL_OK;
}

size_t ClusterIndex::SearchByTime(int64_t time) const {
    size_t low = 0;
    size_t high = m_entries.size() - 1;
    if (time < m_entries[low].time)
        return low;
    if (time > m_entries[high].time)
        return high;
    for (;;) {
        const size_t mid = (low + high) >> 1;
        if (mid == low) {
            const bool inLow = m_entries[low].time <= time && time < m_entries[high].time;
            return inLow ? low : high;
        }
        if (time == m_entries[mid].time)
            return mid;
        (time < m_entries[mid].time ? high : low) = mid;
    }
}

void ClusterIndex::CopyEntry(size_t index, ClusterIndexEntry& entry) const {
    const ClusterIndexEntry& source = m_entries[index];
    entry.time = source.time;
    entry.offset = source.offset;
    entry.size = source.size;
    entry.index = source.index;
}

int64_t ClusterIndex::GetTime(size_t index) const {
    return index < m_entries.size() ? m_entries[index].time : 0;
}

int64_t ClusterIndex::GetOffset(size_t index) const {
    return index < m_entries.size() ? m_entries[index].offset : 0;
}

int64_t ClusterIndex::GetSize(size_t index) const {
    return index < m_entries.size() ? m_entries[index].size : 0;
}

size_t ClusterIndex::GetFrameCount(size_t index) const {
    return index < m_entries.size() ? m_entries[index].frames.size() : 0;
}

uint32_t ClusterIndex::GetHeaderSize(size_t index) const {
    return index < m_entries.size() ? m_entries[index].headerSize : 0;
}

uint32_t ClusterIndex::GetIndex(size_t index) const {
    return index < m_entries.size() ? m_entries[index].index : 0;
}

OPALError ClusterIndex::GetFrame(size_t index, size_t frame, int64_t& offset,
                                 uint32_t& size) const {
    offset = 0;
    size = 0;
    if (frame >= GetFrameCount(index))
        return OPAL_ERROR_RANGE;
    offset = static_cast<int64_t>(m_entries[index].frames[frame].offset);
    size = m_entries[index].frames[frame].size;
    return OPAL_OK;
}

IClusterIndex* NewClusterIndex(int64_t cuesOffset, int64_t segmentDataOffset) {
    return new ClusterIndex(cuesOffset, segmentDataOffset);
}
