#include "StreamingReader/HTTPFile/MIMEParser.h"

#include <gtest/gtest.h>

#include <memory>
#include <random>
#include <string>
#include <vector>

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
    const std::unique_ptr<char[]> exact(new char[piece.size()]);
    piece.copy(exact.get(), piece.size());
    parser.AddData(exact.get(), piece.size());
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

Parts FeedInPieces(const std::string& reply, size_t pieceSize) {
    MIMEParser parser;
    Parts parts;
    for (size_t at = 0; at < reply.size(); at += pieceSize) {
        for (std::string& part : Feed(parser, reply.substr(at, pieceSize)))
            parts.push_back(std::move(part));
    }
    return parts;
}

TEST(MIMEParser, DeliversTheSamePartsHoweverTheReplyIsCut) {
    const std::string reply =
        "\r\n--B\r\nContent-Type: a/b\r\nContent-Range: bytes 5-9/99\r\n\r\nhel\r\n--lo"
        "\r\n--B\r\n\r\n-\r\n--B\r\nA: 2\r\n\r\nabc\r\n--B--\r\n";
    for (size_t size = 1; size <= reply.size(); ++size)
        EXPECT_EQ((Parts{"hel\r\n--lo", "-", "abc"}), FeedInPieces(reply, size)) << size;
    MIMEParser parser;
    const size_t second = reply.find("\r\n--B", 1);
    EXPECT_TRUE(Feed(parser, reply.substr(0, second + 4)).empty());
    EXPECT_EQ(1u, Feed(parser, reply.substr(second + 4, 1)).size()) << "closed by the next one";
    parser.Reset();
    EXPECT_EQ(0u, parser.GetPartCount());
    EXPECT_EQ(3u, Feed(parser, reply).size());
}

TEST(MIMEParser, AgreesWithThePlainScanOnRandomReplies) {
    const std::vector<std::string> words = {
        "\r\n--B", "\r\n--Bx", "\r\n--", "\r\n", "\r\n\r\n", "\r",           "\n",
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
}

}  // namespace
