#pragma once

#include <vector>

#include "StreamingDemux/EBML/EBMLSchema.h"
#include "StreamingDemux/EBML/IClusterIndex.h"

class EBMLElement;

/// The Cues of a file. Clusters have no length there: each is taken to end where the next begins,
/// the last one where the Cues begin; the same goes for the frames within a cluster. Entries keep
/// the file's order and are not checked against each other: Cues out of order make lookups wrong.
class ClusterIndex : public IClusterIndex {
  public:
    /// Elements that Parse visits before it refuses the Cues. A day of two-second clusters, with a
    /// frame listed each second, has a third of them; without a limit an index takes thirty times
    /// the memory of hostile Cues.
    static constexpr int64_t kMaxElements = int64_t{1} << 20;

    ClusterIndex(int64_t cuesOffset, int64_t segmentDataOffset);

    OPALError Parse(const uint8_t* data, int64_t size) override;
    size_t GetCount() const override { return m_entries.size(); }
    OPALError GetEntry(size_t index, ClusterIndexEntry& entry) const override;
    OPALError FindByTime(int64_t time, ClusterIndexEntry& entry) const override;
    int64_t GetTime(size_t index) const override;
    int64_t GetOffset(size_t index) const override;
    int64_t GetSize(size_t index) const override;
    size_t GetFrameCount(size_t index) const override;
    uint32_t GetHeaderSize(size_t index) const override;
    OPALError GetFrame(size_t index, size_t frame, int64_t& offset, uint32_t& size) const override;

    virtual uint32_t GetIndex(size_t index) const;
    /// Gives the frames of an entry their sizes, its last one up to `clusterEnd`, and the entry its
    /// header size.
    virtual void FixFrameSizes(size_t index, int64_t clusterEnd);

  private:
    bool IsWithinBudget();
    OPALError ReadCuePoint(EBMLElement& cuePoint);
    OPALError ReadTrackPositions(EBMLElement& positions, ClusterIndexEntry& entry);
    OPALError ReadFrameList(EBMLElement& list, std::vector<uint64_t>& positions);
    void FixSizes();
    size_t SearchByTime(int64_t time) const;
    void CopyEntry(size_t index, ClusterIndexEntry& entry) const;

    EBMLSchema m_schema;
    std::vector<ClusterIndexEntry> m_entries;
    int64_t m_cuesOffset;
    int64_t m_segmentDataOffset;
    int64_t m_elementBudget = 0;
};
