#include <gmock/gmock.h>

#include <memory>

#include "StreamingDemux/EBML/ClusterParser.h"
#include "StreamingDemux/EbmlBytes.h"

namespace opal::test {
namespace {

/// Two blocks: 4999, a key frame of one byte, and 5040, 40 ms, of two bytes.
const std::string kHead = "1f43b675a4e7821388", kGroup1 = "a087a18581ffff8041",
                  kGroup2 = "a3858100008044a08ea1868100280042439b8128fb81d8",
                  kCluster = kHead + kGroup1 + kGroup2;
const std::string kBlock1 = "4999 key 0 ms 41", kBlock2 = "5040 40 ms 4243";

class ClusterParserTest : public testing::Test {
  protected:
    OPALError Load(const Bytes& bytes) {
        const ExactBytes exact(bytes);
        qutl::MemoryBuffer<unsigned char> buffer;
        buffer.Assign(exact.data(), exact.size(), 0, false);
        const OPALError result = m_parser->SetCluster(buffer, 3);
        EXPECT_TRUE(buffer.IsEmpty());
        return result;
    }
    std::string Next(size_t padding = 0) {
        return Describe(m_parser->GetNextBlock(m_block, padding));
    }
    std::string Previous() { return Describe(m_parser->GetPreviousBlock(m_block, 0)); }
    /// "time [key] duration payload" of the last block, or the error's number.
    std::string Describe(OPALError result) const {
        if (result != OPAL_OK)
            return std::to_string(result);
        EXPECT_EQ(m_block.level, 3u);
        return std::to_string(m_block.timecode) + (m_block.flags == 0 ? " " : " key ") +
               std::to_string(m_block.duration) + " ms " + ToHex(m_block.data);
    }

    std::unique_ptr<IClusterParser> m_parser{NewClusterParser()};
    BlockNode m_block;
};

TEST_F(ClusterParserTest, StepsBothWays) {
    EXPECT_EQ(Next(), "-4");
    ASSERT_EQ(Load(Hex(kCluster)), OPAL_OK);
    EXPECT_EQ(Next(), kBlock1);
    EXPECT_EQ(Next(), kBlock2);
    EXPECT_EQ(Next(), "-9");
    EXPECT_EQ(Previous(), kBlock1);
    EXPECT_EQ(Previous(), "-9");

    ASSERT_EQ(Load(Hex(kCluster)), OPAL_OK);
    EXPECT_EQ(Previous(), kBlock2) << "a fresh cluster begins with its last block backward";
    EXPECT_EQ(Previous(), kBlock1);
    EXPECT_EQ(Previous(), "-9");

    EXPECT_EQ(m_parser->Reset(), OPAL_OK);
    EXPECT_EQ(Next(), "-4");
    ASSERT_EQ(Load(Hex(kCluster)), OPAL_OK);
    EXPECT_EQ(Next(2), kBlock1 + "0000") << "padding is zero and part of the buffer";
}

TEST_F(ClusterParserTest, ReadsTheGroupsThatAreThere) {
    const std::string head = "1f43b6757ffee7821388";
    const struct {
        const char* what;
        std::string cluster;
        std::vector<std::string> steps;
    } cases[] = {
        {"some of the groups that the header claims", head + kGroup2.substr(14), {kBlock2, "-9"}},
        {"unknown size", "1f43b67501ffffffffffffffe7821388" + kGroup1, {kBlock1, "-9"}},
        {"a group of 2^56-1 bytes takes in all that follows",
         kHead + "a001ffffffffffffff" + kGroup1.substr(4) + kGroup2,
         {kBlock1, "-9"}},
        {"simple blocks are not seen", "1f43b6758be7821388a3858100008044", {"-9"}},
        {"a two-byte track number; lacing is not looked at",
         head + "a08fa187400100010641429b8200c8",
         {"5001 key 200 ms 4142"}},
        {"signed times", head + "a08aa18581800080419b81c8", {"-27768 key -56 ms 41"}},
        {"a duration of nine bytes",
         head + "a090a18581000000419b89000000000000000001",
         {"5000 key 0 ms 41"}},
        {"the latest time", head + "a08aa185817fff80419b80", {"37767 key 0 ms 41"}},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.what);
        ASSERT_EQ(Load(Hex(c.cluster)), OPAL_OK);
        for (const std::string& step : c.steps)
            EXPECT_EQ(Next(), step);
    }
    for (const char* size : {"80", "81", "83", "84", "ff"}) {
        SCOPED_TRACE(size);
        ASSERT_EQ(Load(Hex(kHead + "a087a1" + size + kGroup1.substr(8) + kGroup2)), OPAL_OK);
        EXPECT_EQ(Next(), "-9");
        EXPECT_EQ(Next(), kBlock2) << "the group's size still leads to the next one";
    }
}

TEST_F(ClusterParserTest, WhatIsNoCluster) {
    EXPECT_EQ(Load(""), OPAL_ERROR_INVALID_ARGUMENT);
    for (const std::string& digits : {kGroup1, "1f43b67589" + kGroup1, std::string("00000000")})
        EXPECT_EQ(Load(Hex(digits)), OPAL_ERROR_GENERAL) << digits;
    EXPECT_EQ(Next(), "-9") << "loaded, but nothing in it";
}

TEST_F(ClusterParserTest, CutAtEveryLength) {
    const Bytes bytes = Hex(kCluster);
    for (size_t size = 1; size <= bytes.size(); ++size) {
        SCOPED_TRACE(size);
        const OPALError loaded = Load(bytes.substr(0, size));
        EXPECT_EQ(loaded, size < 9 ? OPAL_ERROR_GENERAL : OPAL_OK);
        if (loaded != OPAL_OK)
            continue;
        const auto isGroupWithoutBlock = [size](size_t start) {
            return size > start && size < start + 3;
        };
        EXPECT_EQ(Next(), size >= 18 ? kBlock1 : isGroupWithoutBlock(9) ? "-1" : "-9");
        if (size >= 18) {
            const std::string second = Next();
            if (size >= 35)
                EXPECT_THAT(second, testing::EndsWith("ms 4243"));
            else
                EXPECT_EQ(second, isGroupWithoutBlock(25) ? "-1" : "-9");
        }
    }
}

}  // namespace
}  // namespace opal::test
