#include <gmock/gmock.h>

#include <cstring>
#include <memory>
#include <stdexcept>
#include <string>

#include "Common/LockedQueue.h"
#include "Common/MemoryBuffer.h"
#include "Common/OPALError.h"
#include "Common/OPALPlayRate.h"
#include "Common/XmlNesting.h"
#include "support/AssertionTrap.h"

using opal::test::AssertionTextOf;
using Buffer = qutl::MemoryBuffer<unsigned char>;

TEST(OPALError, DownloadLoopsRestOnTheTwoClasses) {
    struct Row {
        int code;
        bool fatal;
        bool wait;
    };
    for (const Row& row : {Row{0, false, true},
                           {-7, false, false},
                           {-9, false, true},
                           {-18, false, false},
                           {-28, false, true},
                           {-8, true, false},
                           {-1, true, false},
                           {-5, true, false},
                           {-14, true, false}}) {
        EXPECT_EQ(IsFatalError(static_cast<OPALError>(row.code)), row.fatal) << row.code;
        EXPECT_EQ(IsWaitError(static_cast<OPALError>(row.code)), row.wait) << row.code;
    }
}

TEST(OPALPlayRate, EveryRateHasItsFactorNameAndStep) {
    const int factors[] = {1, 2, -2, 4, -4, 8, -8, 16, -16, 32, -32};
    for (int i = 1; i <= 11; ++i) {
        const auto rate = static_cast<OPALPlayRate>(i);
        const int factor = GetRateValue(rate);
        EXPECT_EQ(factor, factors[i - 1]);
        EXPECT_EQ(GetRateLogText(rate), std::to_string(factor) + "x");
        size_t take = 9;
        size_t skip = 9;
        ASSERT_TRUE(GetRateFrameStep(rate, &take, &skip));
        EXPECT_EQ(take, 1u);
        const int speed = std::abs(factor);
        EXPECT_EQ(skip, speed <= 2 ? 0u : static_cast<size_t>(speed / 2 - 1)) << speed;
    }
    EXPECT_STREQ(GetRateName(OPAL_PLAYRATE_THIRTYTWOXRW), "OPAL_PLAYRATE_THIRTYTWOXRW");
}

TEST(OPALPlayRate, WhatIsNoRateIsNamedUnknownAndAsserts) {
    for (int i : {0, 12, -1}) {
        const auto rate = static_cast<OPALPlayRate>(i);
        EXPECT_STREQ(GetRateName(rate), "UNKNOWN");
        EXPECT_EQ(AssertionTextOf([rate] { GetRateValue(rate); }), "0");
        size_t take = 9;
        size_t skip = 9;
        EXPECT_FALSE(GetRateFrameStep(rate, &take, &skip));
        EXPECT_EQ(take + skip, 0u);
    }
}

TEST(OPALPlayRate, TheAssertionStandsWhereLogsAreSearchedForIt) {
    static int line = 0;
    const opal::AssertionHandler previous =
        opal::SetAssertionHandler([](const char*, const char*, int at, const char*) {
            line = at;
            throw std::logic_error("trapped");
        });
    EXPECT_THROW(GetRateValue(static_cast<OPALPlayRate>(0)), std::logic_error);
    opal::SetAssertionHandler(previous);
    EXPECT_EQ(line, 76);
}

TEST(MemoryBuffer, ResizeKeepsStorageOfTheSameSizeOnly) {
    Buffer buffer;
    EXPECT_TRUE(buffer.IsEmpty());
    buffer.Resize(16, false);
    unsigned char* const storage = buffer.GetData();
    ASSERT_NE(storage, nullptr);
    std::memset(storage, 0xAB, 16);
    buffer.Resize(16, true);
    EXPECT_EQ(buffer.GetData(), storage);
    EXPECT_EQ(std::string(storage, storage + 16), std::string(16, '\0'));
    buffer.Resize(0, true);
    EXPECT_TRUE(buffer.IsEmpty());
    EXPECT_EQ(buffer.GetSize(), 0u);
}

TEST(MemoryBuffer, FailedOrImpossibleAllocationsLeaveItEmpty) {
    const unsigned char byte = 1;
    Buffer buffer;
    buffer.Assign(&byte, 1, 0, false);
    buffer.Resize(SIZE_MAX / 2, false);
    EXPECT_TRUE(buffer.IsEmpty());
    EXPECT_EQ(buffer.GetSize(), 0u);
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

TEST(LockedQueue, IsFirstInFirstOutAndLeavesTheValueAloneWhenEmpty) {
    LockedQueue<int> queue;
    int value = 42;
    EXPECT_FALSE(queue.Pop(value));
    EXPECT_EQ(value, 42);
    queue.Push(1);
    queue.Push(2);
    EXPECT_EQ(queue.Size(), 2u);
    ASSERT_TRUE(queue.Pop(value));
    EXPECT_EQ(value, 1);
    ASSERT_TRUE(queue.Pop(value));
    EXPECT_EQ(value, 2);
    EXPECT_TRUE(queue.IsEmpty());
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
