// Requests, and the parser of the multipart replies that they take in.
#include <gtest/gtest.h>

#include <random>
#include <string>
#include <vector>

#include "StreamingReader/HTTPFile/HTTPRequestInternal.h"
#include "StreamingReader/HTTPFile/MIMEParser.h"
#include "support/VirtualClock.h"

namespace {

using Parts = std::vector<std::string>;

/// The scan as plainly as it can be written: everything from the last boundary on, anew at each
/// arrival, byte by byte.
class PlainScan {
  public:
    Parts Feed(const std::string& piece) {
        m_data += piece;
        Parts parts;
        size_t boundary = m_data.find("\r\n--", m_scan);
        const size_t lineEnd =
            boundary == m_data.npos ? m_data.npos : m_data.find("\r\n", boundary + 4);
        if (lineEnd == m_data.npos)
            return parts;
        const std::string delimiter = m_data.substr(boundary, lineEnd - boundary);
        for (size_t position = boundary; position < m_data.size(); ++position) {
            if (m_data.compare(position, 4, "\r\n\r\n") != 0)
                continue;
            const size_t end = m_data.find(delimiter, position + 4);
            if (end == m_data.npos)
                continue;
            parts.push_back(m_data.substr(position + 4, end - position - 4));
            m_scan = end;
        }
        return parts;
    }

  private:
    std::string m_data;
    size_t m_scan = 0;
};

/// The next arrival in a block of exactly its size, so that a sanitizer sees every over-read.
Parts Feed(MIMEParser& parser, const std::string& piece) {
    const std::vector<char> exact(piece.begin(), piece.end());
    parser.AddData(exact.data(), exact.size());
    Parts parts;
    qutl::MemoryBuffer<unsigned char> part;
    for (size_t n = parser.GetPartCount(); n != 0; --n) {
        EXPECT_EQ(0, parser.GetNextPart(part));
        parts.emplace_back(part.GetData(), part.GetData() + part.GetSize());
    }
    EXPECT_NE(0, parser.GetNextPart(part));
    EXPECT_TRUE(part.IsEmpty());
    return parts;
}

TEST(MIMEParser, AgreesWithThePlainScanOnRandomReplies) {
    const Parts words = {"\r\n--B", "\r\n--Bx", "\r\n--", "\r\n", "\r\n\r\n", "\r",           "\n",
                         "-",       "B",        "x",      "--",   "A: 1",     "\r\n--B--\r\n"};
    const unsigned seed = std::random_device()();
    SCOPED_TRACE(testing::Message() << "seed " << seed);
    std::mt19937 random(seed);
    for (int round = 0; round < 3000 && !HasFailure(); ++round) {
        MIMEParser parser;
        PlainScan plain;
        for (auto arrival = random() % 12; arrival != 0; --arrival) {
            std::string piece;
            for (auto n = random() % 9; n != 0; --n)
                piece += words[random() % words.size()];
            if (!piece.empty() && random() % 2)
                piece.pop_back();
            ASSERT_EQ(plain.Feed(piece), Feed(parser, piece)) << "round " << round;
        }
    }
}

TEST(MIMEParser, WorkStaysLinear) {
    // A quadratic search of these replies takes minutes, and the test's time-out ends it.
    std::string emptyLines = "\r\n--B";
    for (int n = 0; n < 100000; ++n)
        emptyLines += "\r\n\r\n";
    MIMEParser parser;
    for (size_t at = 0; at < emptyLines.size(); at += 100)
        ASSERT_TRUE(Feed(parser, emptyLines.substr(at, 100)).empty());
    parser.AddData("\r\n--B", 5);
    EXPECT_EQ(199999u, parser.GetPartCount());
    MIMEParser endlessLine;
    ASSERT_TRUE(Feed(endlessLine, "\r\n--").empty());
    for (int n = 0; n < 100000; ++n)
        ASSERT_TRUE(Feed(endlessLine, "\r").empty());
    MIMEParser largePart;
    ASSERT_TRUE(Feed(largePart, "\r\n--B\r\n\r\n").empty());
    const std::string piece(100, 'x');
    for (int n = 0; n < 100000; ++n)
        ASSERT_TRUE(Feed(largePart, piece).empty());
}

TEST(HTTPRequest, HoldsTheSameHoweverTheReplyIsCutAndNeverMoreThanWasAskedFor) {
    const std::string parts = "\r\n--B\r\nA: 1\r\n\r\nhello\r\n--B\r\nA: 2\r\n\r\nabc\r\n--B--\r\n";
    const std::string zeros(5, '\0');
    const struct {
        const char* what;
        std::vector<ByteRange> ranges;
        std::string reply;
        std::string data;
        uint64_t received;
    } kCases[] = {
        {"parts back to back", {{0, 5}, {10, 3}}, parts, "helloabc", 8},
        {"a body with half a boundary",
         {{5, 9}, {20, 1}, {30, 3}},
         "\r\n--B\r\nContent-Type: a/b\r\nContent-Range: bytes 5-13/99\r\n\r\nhel\r\n--lo"
         "\r\n--B\r\n\r\n-\r\n--B\r\nA: 2\r\n\r\nabc\r\n--B--\r\n",
         "hel\r\n--lo-abc",
         13},
        {"the first boundary is cut off", {{0, 5}, {10, 3}}, parts.substr(2), "abc" + zeros, 3},
        {"a stray part shifts what follows",
         {{0, 8}, {20, 3}},
         "\r\n--B\r\n\r\nhe\r\n\r\nlo\r\n--B\r\n\r\nabc\r\n--B--\r\n",
         "he\r\n\r\nlolo\x61",
         11},
        {"one part without a boundary", {{0, 5}, {5, 3}}, "hellobye", std::string(8, '\0'), 0},
        {"the whole file instead", {{100, 5}}, std::string(1000, 'x'), "xxxxx", 5},
    };
    for (const auto& test : kCases) {
        for (size_t size = 1; size <= test.reply.size(); ++size) {
            SCOPED_TRACE(testing::Message() << test.what << ", in pieces of " << size);
            HTTPRequestInternal request(test.ranges, nullptr);
            for (size_t at = 0; at < test.reply.size(); at += size) {
                const std::string piece = test.reply.substr(at, size);
                ASSERT_EQ(OPAL_OK, request.Write(piece.data(), piece.size()));
            }
            const unsigned char* bytes = request.GetData()->GetData();
            EXPECT_EQ(test.data, std::string(bytes, bytes + request.GetData()->GetSize()));
            EXPECT_EQ(test.received, request.GetBytesReceived());
        }
    }
}

TEST(HTTPRequest, RefusesWhatGrowsWithoutEnd) {
    HTTPRequestInternal endless({{0, 5}, {10, 5}}, nullptr);
    const std::string rest(10 + (1 << 20) + 2 * 4096, 'x');
    EXPECT_EQ(OPAL_OK, endless.Write(rest.data(), rest.size()));
    EXPECT_EQ(OPAL_ERROR_NO_MEMORY, endless.Write("x", 1));
    HTTPRequestInternal large({{0, int64_t{1} << 32}}, nullptr);
    EXPECT_EQ(OPAL_ERROR_NO_MEMORY, large.Write("x", 1));
    HTTPRequestInternal wrapping({{0, INT64_MAX}, {0, INT64_MAX}, {0, 4}}, nullptr);
    EXPECT_EQ(OPAL_ERROR_NO_MEMORY, wrapping.Write("x", 1)) << "lengths that add up to 2 mod 2^64";
}

TEST(HTTPRequest, ListenersAreToldTheNumbers) {
    struct Listener : HTTPRequestNotify {
        void OnRequestComplete(const HTTPRequest& request) override {
            told = std::to_string(request.GetBytesReceived()) + " bytes in " +
                   std::to_string(request.GetDurationMs()) + " ms";
        }
        std::string told;
    } listener;
    opal::test::VirtualClock clock;
    HTTPRequestInternal request({{7, 3}}, &listener);
    request.MarkStart();
    ASSERT_EQ(OPAL_OK, request.Write("abc", 3));
    clock.Advance(1234);
    request.MarkEnd();
    request.Notify();
    EXPECT_EQ("3 bytes in 1234 ms", listener.told);
    EXPECT_EQ(0, request.GetOffset(1)) << "out of bounds";
}

}  // namespace
