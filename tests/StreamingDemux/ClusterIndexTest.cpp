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
constexpr int64_t kCuesOffset = 100000;
constexpr int64_t kSegmentOffset = 40;

OPALError Parse(IClusterIndex& index, const Bytes& bytes, size_t size) {
    const ExactBytes exact(bytes, size);
    return index.Parse(exact.data(), exact.size());
}

OPALError Parse(IClusterIndex& index, const std::string& digits) {
    return Parse(index, Hex(digits), digits.size() / 2);
}

TEST(ClusterIndex, OffsetsSizesAndFrames) {
    ClusterIndex index(kCuesOffset, kSegmentOffset);
    ASSERT_EQ(Parse(index, kCues), OPAL_OK);
    ASSERT_EQ(index.GetCount(), 3u);
    const int64_t times[] = {0, 2000, 4000}, offsets[] = {100, 10100, 30100},
                  sizes[] = {10000, 20000, 69900};
    const uint32_t headerSizes[] = {20, 24, 0};
    for (size_t i = 0; i < 3; ++i) {
        ClusterIndexEntry entry;
        entry.frames.resize(2);
        entry.headerSize = 1;
        ASSERT_EQ(index.GetEntry(i, entry), OPAL_OK);
        EXPECT_EQ(entry.time, times[i]);
        EXPECT_EQ(entry.offset, offsets[i]);
        EXPECT_EQ(entry.size, sizes[i]);
        EXPECT_EQ(entry.index, i);
        EXPECT_EQ(entry.headerSize, 0u) << "not part of the answer";
        EXPECT_TRUE(entry.frames.empty());
        EXPECT_EQ(index.GetTime(i), times[i]);
        EXPECT_EQ(index.GetOffset(i), offsets[i]);
        EXPECT_EQ(index.GetSize(i), sizes[i]);
        EXPECT_EQ(index.GetHeaderSize(i), headerSizes[i]);
        EXPECT_EQ(index.GetIndex(i), i);
    }
    const std::vector<std::vector<std::pair<int64_t, uint32_t>>> frames = {
        {{120, 980}, {1100, 4000}, {5100, 5000}}, {{10124, 876}, {11000, 19100}}, {}};
    for (size_t i = 0; i < 3; ++i) {
        ASSERT_EQ(index.GetFrameCount(i), frames[i].size());
        int64_t offset = 1;
        uint32_t size = 1;
        for (size_t k = 0; k < frames[i].size(); ++k) {
            ASSERT_EQ(index.GetFrame(i, k, offset, size), OPAL_OK);
            EXPECT_EQ(std::make_pair(offset, size), frames[i][k]);
        }
        EXPECT_EQ(index.GetFrame(i, frames[i].size(), offset, size), OPAL_ERROR_RANGE);
        EXPECT_EQ(offset, 0);
        EXPECT_EQ(size, 0u);
    }
}

TEST(ClusterIndex, FindByTime) {
    ClusterIndex index(kCuesOffset, kSegmentOffset);
    ClusterIndexEntry entry;
    EXPECT_EQ(index.FindByTime(0, entry), OPAL_ERROR_GENERAL) << "empty";
    ASSERT_EQ(Parse(index, kCues), OPAL_OK);
    const std::pair<int64_t, uint32_t> cases[] = {
        {-5, 0},   {0, 0},    {1999, 0}, {2000, 1},
        {3999, 1}, {4000, 2}, {9999, 2}, {std::numeric_limits<int64_t>::max(), 2}};
    for (const auto& [time, expected] : cases) {
        ASSERT_EQ(index.FindByTime(time, entry), OPAL_OK) << time;
        EXPECT_EQ(entry.index, expected) << time;
        EXPECT_EQ(entry.offset, index.GetOffset(expected)) << time;
    }
    ClusterIndex single(kCuesOffset, 0);
    ASSERT_EQ(Parse(single, "1c53bb6b8abb88b38105b783f1813c"), OPAL_OK);
    for (const int64_t time : {0, 5, 6}) {
        ASSERT_EQ(single.FindByTime(time, entry), OPAL_OK);
        EXPECT_EQ(entry.size, kCuesOffset - 60);
    }
    ClusterIndex unsorted(kCuesOffset, 0);
    ASSERT_EQ(Parse(unsorted, "1c53bb6b94bb88b38105b783f18114bb88b38104b783f1810a"), OPAL_OK);
    EXPECT_EQ(unsorted.FindByTime(5, entry), OPAL_ERROR_GENERAL);
    EXPECT_EQ(unsorted.GetSize(0), -10) << "out of order: for the reader to refuse";
}

TEST(ClusterIndex, OutOfRange) {
    ClusterIndex index(kCuesOffset, kSegmentOffset);
    ASSERT_EQ(Parse(index, kCues), OPAL_OK);
    ClusterIndexEntry entry;
    for (const size_t i : {size_t{3}, static_cast<size_t>(-1)}) {
        EXPECT_EQ(index.GetEntry(i, entry), OPAL_ERROR_OUT_OF_RANGE);
        EXPECT_EQ(index.GetTime(i) + index.GetOffset(i) + index.GetSize(i), 0);
        EXPECT_EQ(index.GetFrameCount(i) + index.GetHeaderSize(i) + index.GetIndex(i), 0u);
        index.FixFrameSizes(i, 0);
    }
}

TEST(ClusterIndex, WhatIsNoIndex) {
    ClusterIndex index(kCuesOffset, kSegmentOffset);
    EXPECT_EQ(index.Parse(nullptr, 10), OPAL_ERROR_INVALID_ARGUMENT);
    EXPECT_EQ(index.Parse(Hex("1c").data(), 0), OPAL_ERROR_INVALID_ARGUMENT);
    EXPECT_EQ(Parse(index, "1f43b67580"), OPAL_ERROR_GENERAL);
    EXPECT_EQ(Parse(index, "1c53bb6b80"), OPAL_ERROR_GENERAL) << "no entry";
    EXPECT_EQ(Parse(index, "1c53bb6b87bb85b38100b780"), OPAL_ERROR_GENERAL) << "no position";
    ASSERT_EQ(index.GetCount(), 0u);
    EXPECT_EQ(Parse(index, "1c53bb6b85bb83b38107"), OPAL_OK) << "no track positions";
    EXPECT_EQ(index.GetTime(0), 7);
    EXPECT_EQ(index.GetOffset(0), 0);
}

TEST(ClusterIndex, CutAtEveryLengthYieldsAPrefix) {
    const Bytes bytes = Hex(kCues);
    const int64_t offsets[] = {100, 10100, 30100};
    for (size_t size = 1; size < bytes.size(); ++size) {
        ClusterIndex index(kCuesOffset, kSegmentOffset);
        const OPALError result = Parse(index, bytes, size);
        EXPECT_TRUE(result == OPAL_OK || result == OPAL_ERROR_GENERAL);
        for (size_t i = 0; i < index.GetCount(); ++i) {
            const bool lastAndCut = i + 1 == index.GetCount();
            EXPECT_TRUE(index.GetOffset(i) == offsets[i] || (lastAndCut && index.GetOffset(i) == 0))
                << size;
        }
    }
}

TEST(ClusterIndex, ElementsBeyondTheirParentsDoNotMultiplyTheWork) {
    // Each entry of ten bytes holds positions that claim to reach beyond the buffer's end. Taken at
    // their word, 100,000 of them are 5,000,000,000 elements to visit.
    Bytes cues = Hex("1c53bb6b01ffffffffffffff");
    const Bytes entry = Hex("bb88b71ffffffff18101");
    for (int i = 0; i < 100000; ++i)
        cues.insert(cues.end(), entry.begin(), entry.end());
    ClusterIndex index(kCuesOffset, kSegmentOffset);
    EXPECT_EQ(Parse(index, cues, cues.size()), OPAL_ERROR_GENERAL);
    EXPECT_LT(index.GetCount(), 20u);
}

TEST(ClusterIndex, OffsetsWrapWithoutOverflow) {
    ClusterIndex index(std::numeric_limits<int64_t>::min(), std::numeric_limits<int64_t>::max());
    ASSERT_EQ(Parse(index,
                    "1c53bb6b99bb97b38100b792f188ffffffffffffffff"
                    "f886f984ffffffff"),
              OPAL_OK);
    EXPECT_EQ(index.GetOffset(0), std::numeric_limits<int64_t>::max() - 1);
    EXPECT_EQ(index.GetSize(0), 2);
    EXPECT_EQ(index.GetHeaderSize(0), 0xFFFFFFFFu);
}

}  // namespace
}  // namespace opal::test
