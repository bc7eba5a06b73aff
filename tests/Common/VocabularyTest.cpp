#include <gmock/gmock.h>

#include <cstring>
#include <set>
#include <stdexcept>
#include <string>

#include "Common/Assert.h"
#include "Common/MemoryBuffer.h"
#include "Common/OPALError.h"
#include "Common/OPALPlayRate.h"
#include "Common/XmlParse.h"

using Buffer = qutl::MemoryBuffer<unsigned char>;

TEST(OPALError, DownloadLoopsRestOnTheTwoClasses) {
    const struct {
        int code;
        bool fatal;
        bool wait;
    } rows[] = {{0, false, true},    {-7, false, false}, {-9, false, true},
                {-18, false, false}, {-28, false, true}, {-8, true, false},
                {-1, true, false},   {-5, true, false},  {-14, true, false}};
    for (const auto& row : rows) {
        EXPECT_EQ(IsFatalError(static_cast<OPALError>(row.code)), row.fatal) << row.code;
        EXPECT_EQ(IsWaitError(static_cast<OPALError>(row.code)), row.wait) << row.code;
    }
}

TEST(OPALError, EachNumberHasATextOfItsOwn) {
    std::set<std::string> texts;
    int named = 0;
    for (int code = 1; code >= -40; --code) {
        const std::string text = OPALErrorText(static_cast<OPALError>(code));
        named += text == "unknown error" ? 0 : 1;
        texts.insert(text);
    }
    EXPECT_EQ(named, 24) << "0 to -28 without those that are none";
    EXPECT_EQ(texts.size(), 22u) << "four of the service share one, and one is for all others";
}

TEST(OPALPlayRate, WhatIsNoRateAsserts) {
    static std::string place;
    const opal::AssertionHandler previous =
        opal::SetAssertionHandler([](const char* text, const char* file, int, const char*) {
            place = std::string(text) + " in " + file;
            throw std::logic_error("trapped");
        });
    for (int i : {0, 12, -1}) {
        const auto rate = static_cast<OPALPlayRate>(i);
        place.clear();
        EXPECT_THROW(GetRateValue(rate), std::logic_error);
        EXPECT_THAT(place, testing::AllOf(testing::StartsWith("0 in "),
                                          testing::EndsWith("OPALPlayRate.cpp")));
        size_t take = 9;
        size_t skip = 9;
        EXPECT_FALSE(GetRateFrameStep(rate, &take, &skip));
        EXPECT_EQ(take + skip, 0u);
    }
    opal::SetAssertionHandler(previous);
}

TEST(MemoryBuffer, ResizeKeepsStorageOfTheSameSizeOrLeavesItEmpty) {
    Buffer buffer;
    buffer.Resize(16, false);
    unsigned char* const storage = buffer.GetData();
    ASSERT_NE(storage, nullptr);
    std::memset(storage, 0xAB, 16);
    buffer.Resize(16, true);
    EXPECT_EQ(buffer.GetData(), storage);
    EXPECT_EQ(std::string(storage, storage + 16), std::string(16, '\0'));
    buffer.Resize(SIZE_MAX / 2, false);
    EXPECT_TRUE(buffer.IsEmpty());
    const unsigned char byte = 1;
    buffer.Assign(&byte, 1, SIZE_MAX, true);
    EXPECT_EQ(buffer.GetSize(), 0u);
}

TEST(MemoryBuffer, CopiesAreDeepAndAttachMovesTheStorage) {
    Buffer source;
    source.Assign(reinterpret_cast<const unsigned char*>("abcd"), 4, 4, true);
    ASSERT_EQ(source.GetSize(), 8u);
    EXPECT_EQ(std::memcmp(source.GetData(), "abcd\0\0\0\0", 8), 0);

    Buffer copy(source);
    EXPECT_NE(copy.GetData(), source.GetData());
    copy = *&copy;
    EXPECT_EQ(copy.GetSize(), 8u);

    unsigned char* const storage = source.GetData();
    copy.Attach(source);
    EXPECT_EQ(copy.GetData(), storage);
    EXPECT_TRUE(source.IsEmpty());
    copy.Attach(copy);
    EXPECT_EQ(copy.GetData(), storage);
}

// Markup that a lenient parser and a scanner may take differently must not hide the nesting.
TEST(XmlNesting, NothingHidesTooManyTags) {
    const auto bounded = [](const std::string& text) {
        return opal::IsXmlNestingBounded(text.data(), text.size());
    };
    std::string tags;
    for (int i = 0; i < opal::kMaxXmlTags; ++i)
        tags += "<a>";
    EXPECT_TRUE(bounded(""));
    EXPECT_TRUE(bounded(tags));
    for (const char* start :
         {"<a>", "<1 '>", "<?xml version='><!--'?>", "<a>\xF0</a>", "<!--", "<![CDATA["})
        EXPECT_FALSE(bounded(start + tags)) << start;
}
