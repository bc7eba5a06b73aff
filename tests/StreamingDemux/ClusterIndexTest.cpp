#include <gtest/gtest.h>

#include <limits>

#include "StreamingDemux/EBML/ClusterIndex.h"
#include "StreamingDemux/EbmlBytes.h"

namespace opal::test {
namespace {

/// Clusters at 60, 10060 and 30060 of the Segment's payload, at 0, 2000 and 4000 ms; frames at 20,
/// 1000 and 5000 of the first, 24 and 900 of the second.
const char* const kCues =
    "1c53bb6bb8bb95b38100b790f1813cf88bf98114f98203e8f9821388bb93b38207d0"
    "b78df182274cf887f98118f9820384bb8ab3820fa0b784f182756c";

class ClusterIndexTest : public testing::Test {
  protected:
    OPALError Parse(const Bytes& bytes) {
        const ExactBytes exact(bytes);
        return m_index.Parse(exact.data(), exact.Size());
    }

    /// "time: offset+size", the entry's and, behind its header size, those of its frames.
    std::string Describe(size_t i) const {
        const auto extent = [](int64_t offset, int64_t size) {
            return ' ' + std::to_string(offset) + '+' + std::to_string(size);
        };
        std::string text = std::to_string(m_index.GetTime(i)) + ':' +
                           extent(m_index.GetOffset(i), m_index.GetSize(i)) + ", " +
                           std::to_string(m_index.GetHeaderSize(i)) + ':';
        int64_t offset = 1;
        uint32_t size = 1;
        size_t frame = 0;
        for (; m_index.GetFrame(i, frame, offset, size) == OPAL_OK; ++frame)
            text += extent(offset, size);
        EXPECT_EQ(offset + size, 0);
        EXPECT_EQ(frame, m_index.GetFrameCount(i));
        return text;
    }

    ClusterIndex m_index{100000, 40};
    ClusterIndexEntry m_entry;
};

TEST_F(ClusterIndexTest, OffsetsSizesAndFrames) {
    ASSERT_EQ(Parse(Hex(kCues)), OPAL_OK);
    ASSERT_EQ(m_index.GetCount(), 3u);
    EXPECT_EQ(Describe(0), "0: 100+10000, 20: 120+980 1100+4000 5100+5000");
    EXPECT_EQ(Describe(1), "2000: 10100+20000, 24: 10124+876 11000+19100");
    EXPECT_EQ(Describe(2), "4000: 30100+69900, 0:");
    for (const size_t beyond : {size_t{3}, static_cast<size_t>(-1)}) {
        EXPECT_EQ(Describe(beyond), "0: 0+0, 0:");
        EXPECT_EQ(m_index.GetEntry(beyond, m_entry), OPAL_ERROR_OUT_OF_RANGE);
        m_index.FixFrameSizes(beyond, 0);
    }
}

TEST_F(ClusterIndexTest, FindByTime) {
    EXPECT_EQ(m_index.FindByTime(0, m_entry), OPAL_ERROR_GENERAL) << "empty";
    ASSERT_EQ(Parse(Hex(kCues)), OPAL_OK);
    const std::pair<int64_t, uint32_t> cases[] = {
        {-5, 0},   {0, 0},    {1999, 0}, {2000, 1},
        {3999, 1}, {4000, 2}, {9999, 2}, {std::numeric_limits<int64_t>::max(), 2}};
    for (const auto& [time, expected] : cases) {
        m_entry.frames.resize(2);
        ASSERT_EQ(m_index.FindByTime(time, m_entry), OPAL_OK) << time;
        EXPECT_EQ(m_entry.index, expected) << time;
        EXPECT_EQ(m_entry.offset, m_index.GetOffset(expected)) << time;
        EXPECT_TRUE(m_entry.frames.empty()) << "not part of the answer";
    }
}

TEST_F(ClusterIndexTest, EntriesOutOfOrderAreForTheReaderToRefuse) {
    ASSERT_EQ(Parse(Hex("1c53bb6b94bb88b38105b783f18114bb88b38104b783f1810a")), OPAL_OK);
    EXPECT_EQ(m_index.FindByTime(5, m_entry), OPAL_ERROR_GENERAL);
    EXPECT_EQ(m_index.GetSize(0), -10);
}

TEST_F(ClusterIndexTest, WhatIsNoIndex) {
    EXPECT_EQ(m_index.Parse(nullptr, 10), OPAL_ERROR_INVALID_ARGUMENT);
    EXPECT_EQ(m_index.Parse(ExactBytes("x").data(), 0), OPAL_ERROR_INVALID_ARGUMENT);
    EXPECT_EQ(Parse(Hex("1f43b67580")), OPAL_ERROR_GENERAL);
    EXPECT_EQ(Parse(Hex("1c53bb6b80")), OPAL_ERROR_GENERAL) << "no entry";
    EXPECT_EQ(Parse(Hex("1c53bb6b87bb85b38100b780")), OPAL_ERROR_GENERAL) << "no position";
    ASSERT_EQ(m_index.GetCount(), 0u);
    EXPECT_EQ(Parse(Hex("1c53bb6b85bb83b38107")), OPAL_OK) << "no track positions";
    EXPECT_EQ(Describe(0), "7: 0+100000, 0:");
}

TEST_F(ClusterIndexTest, CutAtEveryLengthYieldsAPrefix) {
    const Bytes bytes = Hex(kCues);
    const int64_t offsets[] = {100, 10100, 30100};
    for (size_t size = 1; size < bytes.size(); ++size) {
        ClusterIndex index(100000, 40);
        const ExactBytes cut(bytes.substr(0, size));
        const OPALError result = index.Parse(cut.data(), cut.Size());
        EXPECT_TRUE(result == OPAL_OK || result == OPAL_ERROR_GENERAL);
        for (size_t i = 0; i < index.GetCount(); ++i) {
            const bool lastAndCut = i + 1 == index.GetCount();
            EXPECT_TRUE(index.GetOffset(i) == offsets[i] || (lastAndCut && index.GetOffset(i) == 0))
                << size;
        }
    }
}

TEST_F(ClusterIndexTest, WorkAndMemoryAreBounded) {
    // Each entry of ten bytes holds positions that claim to reach beyond the buffer's end. Taken at
    // their word, 100,000 of them are 5,000,000,000 elements to visit.
    Bytes overlapping = Hex("1c53bb6b01ffffffffffffff");
    for (int i = 0; i < 100000; ++i)
        overlapping += Hex("bb88b71ffffffff18101");
    EXPECT_EQ(Parse(overlapping), OPAL_ERROR_GENERAL);
    EXPECT_LT(m_index.GetCount(), 20u);

    // Two bytes an entry, which take thirty times as much in memory.
    Bytes empty = Hex("1c53bb6b01ffffffffffffff");
    for (size_t i = 0; i <= ClusterIndex::kMaxElements; ++i)
        empty += "\xBB\x80";
    ClusterIndex index(100000, 40);
    const ExactBytes exact(empty);
    EXPECT_EQ(index.Parse(exact.data(), exact.Size()), OPAL_ERROR_GENERAL);
    EXPECT_EQ(index.GetCount(), static_cast<size_t>(ClusterIndex::kMaxElements));
}

TEST(ClusterIndex, OffsetsWrapWithoutOverflow) {
    ClusterIndex index(std::numeric_limits<int64_t>::min(), std::numeric_limits<int64_t>::max());
    const ExactBytes bytes(Hex("1c53bb6b99bb97b38100b792f188fffffffffffffffff886f984ffffffff"));
    ASSERT_EQ(index.Parse(bytes.data(), bytes.Size()), OPAL_OK);
    EXPECT_EQ(index.GetOffset(0), std::numeric_limits<int64_t>::max() - 1);
    EXPECT_EQ(index.GetSize(0), 2);
    EXPECT_EQ(index.GetHeaderSize(0), 0xFFFFFFFFu);
    int64_t offset = 0;
    uint32_t size = 0;
    EXPECT_EQ(index.GetFrame(0, 0, offset, size), OPAL_OK);
    EXPECT_EQ(size, 3u) << "3 - 2^32 in 32 bits";
}

}  // namespace
}  // namespace opal::test
