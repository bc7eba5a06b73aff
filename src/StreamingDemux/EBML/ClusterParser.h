#pragma once

#include <boost/scoped_ptr.hpp>
#include <cstddef>
#include <cstdint>
#include <vector>

#include "Common/MemoryBuffer.h"
#include "StreamingDemux/EBML/EBMLSchema.h"
#include "StreamingDemux/EBML/IClusterParser.h"

class BlockNodeElement;
class EBMLElement;
class EBMLTree;

/// Cuts a cluster into blocks. The groups of the cluster are found on the first step and kept, so
/// that the direction may change at any block; nothing but the payload is copied.
///
/// The cluster's stated size is not used: a cluster header followed by only some of its groups, as
/// trick play fetches it, reads as a shorter cluster. SimpleBlocks are not seen.
class ClusterParser : public IClusterParser {
  public:
    ClusterParser();
    ~ClusterParser() override;

    OPALError SetCluster(qutl::MemoryBuffer<unsigned char>& data, uint32_t tag) override;
    OPALError GetNextBlock(BlockNode& block, size_t padding) override;
    OPALError GetPreviousBlock(BlockNode& block, size_t padding) override;
    OPALError Reset() override;

  private:
    enum class Direction { Forward, Backward };
    struct GroupElements {
        BlockNodeElement* block = nullptr;
        BlockNodeElement* duration = nullptr;
        BlockNodeElement* reference = nullptr;
    };

    OPALError GetBlock(Direction direction, BlockNode& block, size_t padding);
    OPALError Step(Direction direction);
    void CollectGroups();
    static GroupElements FindElements(EBMLElement& group);
    OPALError ReadGroup(EBMLElement& group, BlockNode& block, size_t padding) const;

    EBMLSchema m_schema;
    qutl::MemoryBuffer<unsigned char> m_clusterData;
    boost::scoped_ptr<EBMLTree> m_tree;
    std::vector<EBMLElement*> m_groups;
    size_t m_groupIndex = 0;
    int64_t m_clusterTimecode = 0;
    uint32_t m_tag = 0;
};
