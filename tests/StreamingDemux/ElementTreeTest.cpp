#include <gmock/gmock.h>

#include <cmath>
#include <limits>

#include "StreamingDemux/EBML/EBMLElement.h"
#include "StreamingDemux/EBML/EBMLReader.h"
#include "StreamingDemux/EBML/EBMLSchema.h"
#include "StreamingDemux/EBML/EBMLTree.h"
#include "StreamingDemux/EbmlBytes.h"
#include "support/AssertionTrap.h"

namespace opal::test {
namespace {

using testing::ElementsAre;

TEST(EbmlReader, VariableLengthIntegers) {
    struct {
        const char* bytes;
        bool mask;
        size_t length;
        uint64_t value;
    } const cases[] = {
        {"1a45dfa3", false, 4, 0x1A45DFA3},
        {"81", true, 1, 1},
        {"7ffe", true, 2, 16382},
        {"01ffffffffffffff", true, 8, 0xFFFFFFFFFFFFFF},
        {"01ffffffffffffff", false, 8, 0x1FFFFFFFFFFFFFF},
        {"030102030405ff", true, 7, 0x10102030405FF},
        {"00ff", true, 0, 0},
        {"1a45df", false, 0, 0},
        {"", false, 0, 0},
    };
    for (const auto& c : cases) {
        const ExactBytes bytes(Hex(c.bytes));
        uint64_t value = 99;
        EXPECT_EQ(ReadVInt(bytes.data(), bytes.size(), c.mask, value), c.length) << c.bytes;
        EXPECT_EQ(value, c.value) << c.bytes;
    }
    uint64_t value = 99;
    EXPECT_EQ(ReadVInt(nullptr, 8, true, value), 0u);
    EXPECT_EQ(value, 0u);
}

TEST(EbmlReader, FixedLengthNumbers) {
    const Bytes bytes = Hex("ff7f8001020304050607");
    EXPECT_EQ(ReadUInt(bytes.data(), 0), 0u);
    EXPECT_EQ(ReadUInt(bytes.data(), 2), 0xFF7Fu);
    EXPECT_EQ(ReadUInt(bytes.data(), 8), 0xFF7F800102030405u);
    EXPECT_EQ(ReadUInt(bytes.data(), 9), 0u);
    EXPECT_EQ(ReadInt(bytes.data(), 2), -129);
    EXPECT_EQ(ReadInt(bytes.data() + 1, 2), 0x7F80);
    EXPECT_EQ(ReadInt(bytes.data(), 8), static_cast<int64_t>(0xFF7F800102030405u));
    EXPECT_EQ(ReadInt(bytes.data(), 9), 0);
}

TEST(EbmlReader, FloatsOutOfReachReadAsZero) {
    const auto read = [](const char* digits) {
        const ExactBytes bytes(Hex(digits));
        return ReadFloat(bytes.data(), static_cast<uint64_t>(bytes.size()));
    };
    EXPECT_EQ(read("41700000"), 15.0f);
    EXPECT_EQ(read("c1700000"), -15.0f);
    EXPECT_EQ(read("472c4400"), 44100.0f);
    EXPECT_EQ(read("00000000"), 0.0f);
    EXPECT_EQ(read("7f800000"), 0.0f) << "infinity";
    EXPECT_EQ(read("7fc00000"), 0.0f) << "not a number";
    EXPECT_EQ(read("71800000"), 0.0f) << "2^100";
    EXPECT_EQ(read("0d800000"), 0.0f) << "2^-100";
    EXPECT_EQ(read("402e000000000000"), 0.0f) << "eight bytes";
}

/// Container A0 with two data elements E7, one before and one behind a container FB that is not
/// in the schema.
class ElementTreeTest : public testing::TestWithParam<int> {
  protected:
    ElementTreeTest() {
        EXPECT_TRUE(m_schema.AddContainer(0xA0));
        EXPECT_FALSE(m_schema.AddContainer(0));
        EXPECT_FALSE(m_schema.AddFactory(0, nullptr));
        m_schema.SetDefaultPolicy(GetParam());
    }

    EBMLSchema m_schema;
    const Bytes m_bytes =
        Hex("a08b"
            "e78111"
            "fb83e78133"
            "e78122");
};

TEST_P(ElementTreeTest, WalksInFileOrderAndAgain) {
    const ExactBytes bytes(m_bytes);
    const EBMLTree tree(&m_schema, bytes.data(), bytes.size());
    EXPECT_EQ(tree.GetTotalSize(), m_bytes.size());
    for (int round = 0; round < 2; ++round) {
        std::vector<uint64_t> ids;
        for (EBMLElement* e = tree.GetFirstChild(); e; e = tree.GetNextChild())
            ids.push_back(e->GetID());
        EXPECT_THAT(ids, ElementsAre(0xE7, 0xFB, 0xE7));

        EBMLElement* first = tree.FindFirstChild(0xE7);
        ASSERT_NE(first, nullptr);
        EXPECT_EQ(*first->GetData(), 0x11);
        EBMLElement* second = tree.FindNextChild(0xE7);
        ASSERT_NE(second, nullptr);
        EXPECT_EQ(*second->GetData(), 0x22);
        EXPECT_EQ(tree.FindNextChild(0xE7), nullptr);
        EBMLElement* unknown = tree.FindFirstChild(0xFB);
        ASSERT_NE(unknown, nullptr);
        EXPECT_EQ(unknown->FindFirstChild(0xE7), nullptr) << "not a container";
    }
}

TEST_P(ElementTreeTest, WalkEndsWhereTheBytesEnd) {
    for (size_t size = 0; size <= m_bytes.size(); ++size) {
        const ExactBytes bytes(m_bytes, size);
        const EBMLTree tree(&m_schema, bytes.data(), bytes.size());
        size_t count = 0;
        for (EBMLElement* e = tree.GetFirstChild(); e; e = tree.GetNextChild()) {
            EXPECT_EQ(e->GetCompleteData() != nullptr,
                      e->GetData() && e->GetData() + e->GetSize() <= bytes.data() + size);
            ++count;
        }
        // Children stand at 2, 5 and 10; the identifier alone makes an element.
        EXPECT_EQ(count, (size > 2) + (size > 5) + (size > 10)) << size;
        EXPECT_EQ(tree.GetID(), size > 0 ? 0xA0u : 0u);
    }
}

TEST_P(ElementTreeTest, NothingToWalk) {
    const EBMLTree none(&m_schema, nullptr, 10);
    EXPECT_EQ(none.GetID() + none.GetSize() + none.GetTotalSize(), 0u);
    EXPECT_EQ(none.GetStart(), nullptr);
    EXPECT_EQ(none.GetFirstChild(), nullptr);
    EXPECT_EQ(none.FindNextChild(0xE7), nullptr);

    for (const char* digits : {"a080e78111", "a08300e781", "a0"}) {
        const ExactBytes bytes(Hex(digits));
        const EBMLTree tree(&m_schema, bytes.data(), bytes.size());
        EXPECT_EQ(tree.GetFirstChild(), nullptr) << digits;
        EXPECT_EQ(tree.GetNextChild(), nullptr) << digits;
    }
}

TEST_P(ElementTreeTest, HugeSizesEndAtTheBuffer) {
    const ExactBytes bytes(
        Hex("a001ffffffffffffff"
            "e78111"
            "e701ffffffffffffff22"));
    const EBMLTree tree(&m_schema, bytes.data(), bytes.size());
    ASSERT_NE(tree.FindFirstChild(0xE7), nullptr);
    EBMLElement* last = tree.FindNextChild(0xE7);
    ASSERT_NE(last, nullptr);
    EXPECT_EQ(last->GetSize(), 0xFFFFFFFFFFFFFFu);
    EXPECT_EQ(last->GetCompleteData(), nullptr);
    EXPECT_EQ(tree.GetNextChild(), nullptr);
}

INSTANTIATE_TEST_SUITE_P(Policies, ElementTreeTest, testing::Values(0, 1, 2));

TEST(ElementTree, CachedChildrenStayAndAreBounded) {
    EBMLSchema schema;
    schema.AddContainer(0xA0);
    schema.SetDefaultPolicy(EBMLElementPolicy_CacheTree);
    Bytes bytes = Hex("a001ffffffffffffff");
    bytes.resize(9 + 3 * EBMLTree::kMaxCachedElements);
    for (size_t i = 9; i < bytes.size(); i += 2) {
        bytes[i] = 0xE7;
        if (i + 1 < bytes.size())
            bytes[i + 1] = 0x80;
    }
    const EBMLTree tree(&schema, bytes.data(), static_cast<int64_t>(bytes.size()));
    EBMLElement* first = tree.GetFirstChild();
    size_t count = 1;
    while (tree.GetNextChild())
        ++count;
    EXPECT_EQ(count, EBMLTree::kMaxCachedElements);
    EXPECT_EQ(tree.GetFirstChild(), first);
}

TEST(ElementTree, UnknownPolicyIsAProgrammingError) {
    EBMLSchema schema;
    schema.SetDefaultPolicy(3);
    const Bytes bytes = Hex("a080");
    EXPECT_EQ(AssertionTextOf([&] { EBMLTree tree(&schema, bytes.data(), 2); }), "false");
}

}  // namespace
}  // namespace opal::test
