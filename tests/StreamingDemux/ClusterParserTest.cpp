#include <gtest/gtest.h>

#include <memory>

#include "StreamingDemux/EBML/ClusterParser.h"
#include "StreamingDemux/EbmlBytes.h"

namespace opal::test {
namespace {

/// Two blocks: 4999, a key frame of one byte, and 5040, 40 ms, of two bytes.
const char* const kCluster =
    "1f43b675a4e7821388a087a18581ffff8041a3858100008044a08ea186810028004243"
    "9b8128fb81d8";
const size_t kClusterHeader = 9;

class ClusterParserTest : public testing::Test {
  protected:
    OPALError Load(const Bytes& bytes, size_t size, uint32_t tag = 3) {
        qutl::MemoryBuffer<unsigned char> buffer;
        Fill(buffer, bytes, size);
        const OPALError result = m_parser->SetCluster(buffer, tag);
        EXPECT_TRUE(buffer.IsEmpty());
        return result;
    }
    OPALError Load(const std::string& digits) { return Load(Hex(digits), digits.size() / 2); }

    void ExpectFirst() {
        EXPECT_EQ(m_block.timecode, 4999);
        EXPECT_EQ(m_block.flags, BlockNode::kKeyFrame);
        EXPECT_EQ(m_block.duration, 0);
        EXPECT_EQ(m_block.level, 3u);
        EXPECT_EQ(ToHex(m_block.data), "41");
    }
    void ExpectSecond() {
        EXPECT_EQ(m_block.timecode, 5040);
        EXPECT_EQ(m_block.flags, 0u);
        EXPECT_EQ(m_block.duration, 40);
        EXPECT_EQ(m_block.level, 3u);
        EXPECT_EQ(ToHex(m_block.data), "4243");
    }
    OPALError Next(size_t padding = 0) { return m_parser->GetNextBlock(m_block, padding); }
    OPALError Previous() { return m_parser->GetPreviousBlock(m_block, 0); }

    std::unique_ptr<IClusterParser> m_parser{NewClusterParser()};
    BlockNode m_block;
};

TEST_F(ClusterParserTest, StepsBothWays) {
    EXPECT_EQ(Next(), OPAL_ERROR_NOT_READY);
    ASSERT_EQ(Load(kCluster), OPAL_OK);
    ASSERT_EQ(Next(), OPAL_OK);
    ExpectFirst();
    ASSERT_EQ(Next(), OPAL_OK);
    ExpectSecond();
    EXPECT_EQ(Next(), OPAL_ERROR_END_OF_DATA);
    ASSERT_EQ(Previous(), OPAL_OK);
    ExpectFirst();
    EXPECT_EQ(Previous(), OPAL_ERROR_END_OF_DATA);

    ASSERT_EQ(Load(kCluster), OPAL_OK);
    ASSERT_EQ(Previous(), OPAL_OK) << "a fresh cluster begins with its last block backward";
    ExpectSecond();
    ASSERT_EQ(Previous(), OPAL_OK);
    ExpectFirst();
    EXPECT_EQ(Previous(), OPAL_ERROR_END_OF_DATA);

    EXPECT_EQ(m_parser->Reset(), OPAL_OK);
    EXPECT_EQ(Next(), OPAL_ERROR_NOT_READY);
}

TEST_F(ClusterParserTest, PaddingIsZeroAndPartOfTheBuffer) {
    ASSERT_EQ(Load(kCluster), OPAL_OK);
    ASSERT_EQ(Next(2), OPAL_OK);
    EXPECT_EQ(ToHex(m_block.data), "410000");
}

TEST_F(ClusterParserTest, StatedSizeOfTheClusterIsNotUsed) {
    const std::string header = "1f43b6757ffee7821388", second =
                                                           "a08ea186810028004243"
                                                           "9b8128fb81d8";
    ASSERT_EQ(Load(header + second), OPAL_OK);
    ASSERT_EQ(Next(), OPAL_OK);
    ExpectSecond();
    EXPECT_EQ(Next(), OPAL_ERROR_END_OF_DATA);

    ASSERT_EQ(Load("1f43b67501ffffffffffffffe7821388"
                   "a087a18581ffff8041"),
              OPAL_OK);
    ASSERT_EQ(Next(), OPAL_OK);
    ExpectFirst();
    EXPECT_EQ(Next(), OPAL_ERROR_END_OF_DATA);
}

TEST_F(ClusterParserTest, CutAtEveryLength) {
    const Bytes bytes = Hex(kCluster);
    EXPECT_EQ(Load(bytes, 0), OPAL_ERROR_INVALID_ARGUMENT);
    for (size_t size = 1; size <= bytes.size(); ++size) {
        SCOPED_TRACE(size);
        if (size < kClusterHeader) {
            EXPECT_EQ(Load(bytes, size), OPAL_ERROR_GENERAL);
            continue;
        }
        ASSERT_EQ(Load(bytes, size), OPAL_OK);
        const OPALError first = Next();
        if (size == 9) {
            EXPECT_EQ(first, OPAL_ERROR_END_OF_DATA);
        } else if (size < 12) {
            EXPECT_EQ(first, OPAL_ERROR_GENERAL) << "a group without a block";
        } else if (size < 18) {
            EXPECT_EQ(first, OPAL_ERROR_END_OF_DATA);
        } else {
            ASSERT_EQ(first, OPAL_OK);
            ExpectFirst();
            const bool hasSecondBlock = size >= 35;
            const bool hasSecondGroup = size > 25;
            EXPECT_EQ(Next(), hasSecondBlock                ? OPAL_OK
                              : hasSecondGroup && size < 28 ? OPAL_ERROR_GENERAL
                                                            : OPAL_ERROR_END_OF_DATA);
            if (hasSecondBlock) {
                EXPECT_EQ(ToHex(m_block.data), "4243");
            }
        }
    }
}

TEST_F(ClusterParserTest, MalformedSizes) {
    const std::string cluster = kCluster;
    // The first group claims 2^56-1 bytes, and so takes in all that follows.
    ASSERT_EQ(Load(cluster.substr(0, 20) + "01ffffffffffffff" + cluster.substr(22)), OPAL_OK);
    ASSERT_EQ(Next(), OPAL_OK);
    ExpectFirst();
    EXPECT_EQ(Next(), OPAL_ERROR_END_OF_DATA);

    for (const char* size : {"80", "81", "83", "84", "ff"}) {
        ASSERT_EQ(Load(cluster.substr(0, 24) + size + cluster.substr(26)), OPAL_OK);
        EXPECT_EQ(Next(), OPAL_ERROR_END_OF_DATA) << "first block of size " << size;
        EXPECT_EQ(Next(), OPAL_OK) << "the group's size still leads to the next one";
    }
}

TEST_F(ClusterParserTest, WhatIsNoCluster) {
    EXPECT_EQ(Load("a087a18581ffff8041"), OPAL_ERROR_GENERAL);
    EXPECT_EQ(Load("1f43b67589a087a18581ffff8041"), OPAL_ERROR_GENERAL) << "no time code";
    EXPECT_EQ(Load("00000000"), OPAL_ERROR_GENERAL);
    EXPECT_EQ(Next(), OPAL_ERROR_END_OF_DATA) << "loaded, but nothing in it";
    ASSERT_EQ(Load("1f43b6758be7821388a3858100008044"), OPAL_OK);
    EXPECT_EQ(Next(), OPAL_ERROR_END_OF_DATA) << "simple blocks are not seen";
}

TEST_F(ClusterParserTest, BlockFields) {
    struct {
        const char* group;
        int64_t timecode;
        int64_t duration;
        const char* data;
    } const cases[] = {
        // A two-byte track number; lacing bits are not looked at; the duration is signed.
        {"a08fa1874001000106"
         "41429b8200c8",
         5001, 200, "4142"},
        {"a08aa18581800080419b81c8", 5000 - 32768, -56, "41"},
        {"a08aa185817fff80419b80", 5000 + 32767, 0, "41"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.group);
        ASSERT_EQ(Load(std::string("1f43b675ffe7821388") + c.group), OPAL_OK);
        ASSERT_EQ(Next(), OPAL_OK);
        EXPECT_EQ(m_block.timecode, c.timecode);
        EXPECT_EQ(m_block.duration, c.duration);
        EXPECT_EQ(ToHex(m_block.data), c.data);
    }
}

}  // namespace
}  // namespace opal::test
