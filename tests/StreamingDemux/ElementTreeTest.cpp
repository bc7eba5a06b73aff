#include <gmock/gmock.h>

#include "StreamingDemux/EBML/EBMLElement.h"
#include "StreamingDemux/EBML/EBMLReader.h"
#include "StreamingDemux/EBML/EBMLSchema.h"
#include "StreamingDemux/EBML/EBMLTree.h"
#include "StreamingDemux/EbmlBytes.h"

namespace opal::test {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

TEST(EbmlReader, VariableLengthIntegers) {
    const struct {
        const char* bytes;
        bool mask;
        size_t length;
        uint64_t value;
    } cases[] = {
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
        EXPECT_EQ(ReadVInt(bytes.data(), bytes.Size(), c.mask, value), c.length) << c.bytes;
        EXPECT_EQ(value, c.value) << c.bytes;
    }
}

/// Container A0 with two data elements E7, one before and one behind a container FB that is not
/// in the schema. Under each of the three policies.
class ElementTreeTest : public testing::TestWithParam<int> {
  protected:
    ElementTreeTest() {
        m_schema.AddContainer(0xA0);
        m_schema.SetDefaultPolicy(GetParam());
    }
    static std::vector<uint64_t> Children(const EBMLTree& tree) {
        std::vector<uint64_t> ids;
        for (EBMLElement* e = tree.GetFirstChild(); e; e = tree.GetNextChild())
            ids.push_back(e->GetID());
        return ids;
    }

    EBMLSchema m_schema;
    const Bytes m_bytes = Hex("a08be78111fb83e78133e78122");
};

TEST_P(ElementTreeTest, WalksInFileOrderAndAgain) {
    const ExactBytes bytes(m_bytes);
    const EBMLTree tree(&m_schema, bytes.data(), bytes.Size());
    EXPECT_EQ(tree.GetTotalSize(), m_bytes.size());
    for (int round = 0; round < 2; ++round) {
        EXPECT_THAT(Children(tree), ElementsAre(0xE7, 0xFB, 0xE7));
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
        const ExactBytes bytes(m_bytes.substr(0, size));
        const EBMLTree tree(&m_schema, bytes.data(), bytes.Size());
        for (EBMLElement* e = tree.GetFirstChild(); e; e = tree.GetNextChild())
            EXPECT_EQ(e->GetCompleteData() != nullptr,
                      e->GetData() && e->GetData() + e->GetSize() <= bytes.data() + size);
        // Children stand at 2, 5 and 10; the identifier alone makes an element.
        EXPECT_EQ(Children(tree).size(), (size > 2) + (size > 5) + (size > 10)) << size;
        EXPECT_EQ(tree.GetID(), size > 0 ? 0xA0u : 0u);
    }
    for (const char* digits : {"a080e78111", "a08300e781", "e783e78111"}) {
        const ExactBytes bytes(Hex(digits));
        EXPECT_THAT(Children(EBMLTree(&m_schema, bytes.data(), bytes.Size())), IsEmpty()) << digits;
    }
    const EBMLTree none(&m_schema, nullptr, 10);
    EXPECT_EQ(none.GetTotalSize(), 0u);
    EXPECT_EQ(none.FindNextChild(0xE7), nullptr);
}

TEST_P(ElementTreeTest, HugeSizesEndAtTheBuffer) {
    const ExactBytes bytes(Hex("a001ffffffffffffffe78111e701ffffffffffffff22"));
    const EBMLTree tree(&m_schema, bytes.data(), bytes.Size());
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
    for (size_t i = 0; i < 2 * EBMLTree::kMaxCachedElements; ++i)
        bytes += "\xE7\x80";
    const ExactBytes exact(bytes);
    const EBMLTree tree(&schema, exact.data(), exact.Size());
    EBMLElement* first = tree.GetFirstChild();
    size_t count = 1;
    while (tree.GetNextChild())
        ++count;
    EXPECT_EQ(count, EBMLTree::kMaxCachedElements);
    EXPECT_EQ(tree.GetFirstChild(), first);
}

}  // namespace
}  // namespace opal::test
