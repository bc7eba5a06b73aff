#include "StreamingDemux/EBML/ClusterParser.h"

#include <boost/make_shared.hpp>

#include "StreamingDemux/EBML/EBMLIDs.h"
#include "StreamingDemux/EBML/EBMLReader.h"
#include "StreamingDemux/EBML/EBMLTree.h"
#include "StreamingDemux/EBML/src/BlockNodeElement.h"

using namespace opal::ebml;

ClusterParser::ClusterParser() {
    m_schema.SetDefaultPolicy(EBMLElementPolicy_CacheTree);
    m_schema.AddContainer(kCluster);
    m_schema.AddContainer(kBlockGroup);
    m_schema.AddData(kTimecode);
    for (const uint64_t id : {kBlock, kBlockDuration, kReferenceBlock}) {
        m_schema.AddFactory(
            id, boost::make_shared<EBMLSchema::ElementFactory_Templ<BlockNodeElement>>());
    }
}

ClusterParser::~ClusterParser() = default;

OPALError ClusterParser::SetCluster(qutl::MemoryBuffer<unsigned char>& data, uint32_t tag) {
    if (data.IsEmpty())
        return OPAL_ERROR_INVALID_ARGUMENT;
    m_groups.clear();
    m_groupIndex = 0;
    m_clusterTimecode = 0;
    m_tree.reset();
    m_clusterData.Attach(data);
    m_tree.reset(new EBMLTree(&m_schema, m_clusterData.GetData(),
                              static_cast<int64_t>(m_clusterData.GetSize())));
    if (m_tree->GetID() != kCluster)
        return OPAL_ERROR_GENERAL;
    const EBMLElement* timecode = m_tree->FindFirstChild(kTimecode);
    const uint8_t* value = timecode ? timecode->GetCompleteData() : nullptr;
    if (!value)
        return OPAL_ERROR_GENERAL;
    m_clusterTimecode = static_cast<int64_t>(ReadUInt(value, timecode->GetSize()));
    m_tag = tag;
    return OPAL_OK;
}

OPALError ClusterParser::GetNextBlock(BlockNode& block, size_t padding) {
    return GetBlock(Direction::Forward, block, padding);
}

OPALError ClusterParser::GetPreviousBlock(BlockNode& block, size_t padding) {
    return GetBlock(Direction::Backward, block, padding);
}

OPALError ClusterParser::Reset() {
    m_groups.clear();
    m_groupIndex = 0;
    m_clusterTimecode = 0;
    m_tag = 0;
    m_tree.reset();
    m_clusterData.Resize(0, false);
    return OPAL_OK;
}

OPALError ClusterParser::GetBlock(Direction direction, BlockNode& block, size_t padding) {
    if (!m_tree)
        return OPAL_ERROR_NOT_READY;
    const OPALError result = Step(direction);
    return result == OPAL_OK ? ReadGroup(*m_groups[m_groupIndex], block, padding) : result;
}

OPALError ClusterParser::Step(Direction direction) {
    if (m_groups.empty()) {
        CollectGroups();
        if (m_groups.empty())
            return OPAL_ERROR_END_OF_DATA;
        m_groupIndex = direction == Direction::Forward ? 0 : m_groups.size() - 1;
        return OPAL_OK;
    }
    if (direction == Direction::Forward) {
        if (m_groupIndex + 1 == m_groups.size())
            return OPAL_ERROR_END_OF_DATA;
        ++m_groupIndex;
    } else {
        if (m_groupIndex == 0)
            return OPAL_ERROR_END_OF_DATA;
        --m_groupIndex;
    }
    return OPAL_OK;
}

void ClusterParser::CollectGroups() {
    for (EBMLElement* group = m_tree->FindFirstChild(kBlockGroup); group;
         group = m_tree->FindNextChild(kBlockGroup))
        m_groups.push_back(group);
}

OPALError ClusterParser::ReadGroup(EBMLElement& group, BlockNode& block, size_t padding) const {
    const GroupElements elements = FindElements(group);
    if (!elements.block)
        return OPAL_ERROR_GENERAL;
    int16_t relativeTimecode = 0;
    OPALError result = elements.block->ParseBlockHeader(relativeTimecode);
    if (result != OPAL_OK)
        return result;
    block.timecode = static_cast<int64_t>(static_cast<uint64_t>(m_clusterTimecode) +
                                          static_cast<uint64_t>(int64_t{relativeTimecode}));
    result = elements.block->CopyPayload(block, padding);
    if (result != OPAL_OK)
        return result;
    block.flags = elements.reference ? 0 : BlockNode::kKeyFrame;
    const uint8_t* duration = elements.duration ? elements.duration->GetCompleteData() : nullptr;
    // Signed, deliberately: a single byte above 0x7F is a negative duration.
    block.duration = duration ? ReadInt(duration, elements.duration->GetSize()) : 0;
    block.level = m_tag;
    return OPAL_OK;
}

ClusterParser::GroupElements ClusterParser::FindElements(EBMLElement& group) {
    GroupElements elements;
    for (EBMLElement* child = group.GetFirstChild(); child; child = group.GetNextChild()) {
        const uint64_t id = child->GetID();
        BlockNodeElement** place = id == kBlock            ? &elements.block
                                   : id == kBlockDuration  ? &elements.duration
                                   : id == kReferenceBlock ? &elements.reference
                                                           : nullptr;
        // The schema makes these three BlockNodeElements. The first of each kind counts.
        if (place && !*place)
            *place = static_cast<BlockNodeElement*>(child);
    }
    return elements;
}

IClusterParser* NewClusterParser() {
    return new ClusterParser;
}
