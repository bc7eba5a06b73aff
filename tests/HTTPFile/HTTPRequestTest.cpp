#include <gtest/gtest.h>

#include <string>

#include "StreamingReader/HTTPFile/HTTPRequestInternal.h"
#include "support/VirtualClock.h"

namespace {

OPALError Write(HTTPRequestInternal& request, const std::string& bytes, size_t pieceSize) {
    for (size_t at = 0; at < bytes.size(); at += pieceSize) {
        const std::string piece = bytes.substr(at, pieceSize);
        const OPALError result = request.Write(piece.data(), piece.size());
        if (result != OPAL_OK)
            return result;
    }
    return OPAL_OK;
}

std::string Data(const HTTPRequest& request) {
    const unsigned char* data = request.GetData()->GetData();
    return data ? std::string(data, data + request.GetData()->GetSize()) : std::string();
}

TEST(HTTPRequest, PacksThePartsOfAMultipartReplyBackToBack) {
    const std::string reply = "\r\n--B\r\nA: 1\r\n\r\nhello\r\n--B\r\nA: 2\r\n\r\nabc\r\n--B--\r\n";
    for (const size_t pieceSize : {size_t{1}, size_t{2}, size_t{7}, reply.size()}) {
        HTTPRequestInternal request({{0, 5}, {10, 3}}, nullptr);
        EXPECT_EQ("0-4,10-12", request.BuildRangeString());
        ASSERT_EQ(OPAL_OK, Write(request, reply, pieceSize));
        EXPECT_EQ("helloabc", Data(request));
        EXPECT_EQ(8u, request.GetBytesReceived());
    }
    HTTPRequestInternal headless({{0, 5}, {10, 3}}, nullptr);
    ASSERT_EQ(OPAL_OK, Write(headless, reply.substr(2), 7));
    EXPECT_EQ(3u, headless.GetBytesReceived());
    EXPECT_EQ("abc" + std::string(5, '\0'), Data(headless)) << "what did not come is zero";
}

TEST(HTTPRequest, NeverHoldsMoreThanWasAskedFor) {
    HTTPRequestInternal stray({{0, 8}, {20, 3}}, nullptr);
    ASSERT_EQ(OPAL_OK,
              Write(stray, "\r\n--B\r\n\r\nhe\r\n\r\nlo\r\n--B\r\n\r\nabc\r\n--B--\r\n", 99));
    EXPECT_EQ("he\r\n\r\nlolo\x61", Data(stray)) << "the stray part shifts what follows";
    EXPECT_EQ(11u, stray.GetBytesReceived());

    HTTPRequestInternal single({{100, 10}}, nullptr);
    ASSERT_EQ(OPAL_OK, Write(single, std::string(1000, 'x'), 300)) << "the whole file instead";
    EXPECT_EQ(std::string(10, 'x'), Data(single));
    EXPECT_EQ(10u, single.GetBytesReceived());

    HTTPRequestInternal endless({{0, 5}, {10, 5}}, nullptr);
    const uint64_t limit = 10 + (1 << 20) + 2 * 4096;
    ASSERT_EQ(OPAL_OK, Write(endless, std::string(limit, 'x'), 4096));
    EXPECT_EQ(OPAL_ERROR_NO_MEMORY, Write(endless, "x", 1));
}

TEST(HTTPRequest, RefusesBadWritesAndSizes) {
    HTTPRequestInternal large({{0, int64_t{1} << 32}}, nullptr);
    EXPECT_EQ(OPAL_ERROR_NO_MEMORY, large.Write("x", 1));
    HTTPRequestInternal wrapping({{0, INT64_MAX}, {0, INT64_MAX}, {0, 4}}, nullptr);
    EXPECT_EQ(OPAL_ERROR_NO_MEMORY, wrapping.Write("x", 1)) << "lengths that add up to 2 mod 2^64";
    EXPECT_EQ(OPAL_ERROR_INVALID_ARGUMENT, large.Write(nullptr, 1));
    EXPECT_EQ(OPAL_ERROR_INVALID_ARGUMENT, large.Write("x", 0));
}

TEST(HTTPRequest, HandsItsBytesOverAndKeepsItsNumbers) {
    struct Listener : HTTPRequestNotify {
        void OnRequestComplete(const HTTPRequest& request) override {
            told = std::to_string(request.GetBytesReceived()) + " bytes in " +
                   std::to_string(request.GetDurationMs()) + " ms" +
                   (request.GetData()->IsEmpty() ? "" : ", with data");
        }
        std::string told;
    } listener;
    opal::test::VirtualClock clock;
    HTTPRequestInternal request({{7, 3}}, &listener);
    request.MarkStart();
    ASSERT_EQ(OPAL_OK, Write(request, "abc", 1));
    clock.Advance(1234);
    request.MarkEnd();
    request.Notify();
    EXPECT_EQ("3 bytes in 1234 ms", listener.told);

    const unsigned char* const bytes = request.GetData()->GetData();
    HTTPRequestInternal copy(request);
    EXPECT_EQ(bytes, copy.GetData()->GetData()) << "the copy takes the block itself";
    EXPECT_TRUE(request.GetData()->IsEmpty());
    EXPECT_EQ(3, copy.GetLength(0));
    EXPECT_EQ(0, copy.GetOffset(1)) << "out of bounds";
    qutl::MemoryBuffer<unsigned char> taken;
    copy.TakeData(taken);
    EXPECT_EQ(bytes, taken.GetData());
    copy.Reset();
    EXPECT_TRUE(copy.IsEmpty());
    copy.Notify();
    EXPECT_EQ("0 bytes in 0 ms", listener.told) << "a reset keeps the listener";
}

}  // namespace
