#include <boost/make_shared.hpp>
#include <fstream>

#include "Common/ObjectFactory.h"
#include "PlatformAdapter/Mstar/HABVideo.h"
#include "PlatformAdapter/Mstar/src/GoldenFileCheck.h"
#include "PlayerFixture.h"
#include "StreamingReader/HTTPFile/HTTPFile.h"
#include "support/TemporaryDirectory.h"

namespace opal::test {
namespace {

class HTTPFiles : public HTTPFileObject {
  public:
    bool Accepts(int kind) const override { return kind == 0; }
    IHTTPFile* Create(bool threaded) override { return new HTTPFile(threaded); }
};

struct Entry {
    int64_t time;
    uint32_t size;
    uint32_t crc;
};

class GoldenFileTest : public PlayerTest {
  protected:
    GoldenFileTest() {
        ObjectFactory::Instance().Register(boost::make_shared<HTTPFiles>());
        FillCrcTable(m_table);
        GoldenFiles_DetachAll();
    }
    ~GoldenFileTest() override {
        GoldenFiles_DetachAll();
        ObjectFactory::Instance().Reset();
    }

    std::string Write(const std::vector<Entry>& entries, size_t size = SIZE_MAX) {
        std::string bytes;
        for (const Entry& entry : entries) {
            std::string record(40, '\x7F');
            const uint64_t units = static_cast<uint64_t>(entry.time) * 10000 + 9999;
            const uint32_t words[] = {static_cast<uint32_t>(units >> 32),
                                      static_cast<uint32_t>(units), entry.size, entry.crc};
            const size_t offsets[] = {8, 12, 28, 32};
            for (int i = 0; i < 4; ++i)
                std::memcpy(&record[offsets[i]], &words[i], 4);
            bytes += record;
        }
        return WriteBytes(bytes.substr(0, size));
    }
    std::string WriteBytes(const std::string& bytes) {
        const std::string path = m_folder.File("golden" + std::to_string(m_files++));
        std::ofstream(path, std::ios::binary) << bytes;
        return "file://" + path;
    }
    Entry Of(int64_t time, const Bytes& bytes) {
        return {time, static_cast<uint32_t>(bytes.size()),
                CalculateCrc(m_table, bytes.data(), bytes.size())};
    }
    bool Check(OPALStreamType type, const std::vector<std::string>& urls, int64_t time,
               const Bytes& bytes) {
        GoldenFileList files;
        for (const std::string& url : urls) {
            files.push_back(boost::make_shared<GoldenFileParser>());
            if (url.empty())
                files.back().reset();
            else
                EXPECT_TRUE(files.back()->Load(url));
        }
        BlockNode block;
        block.timecode = time;
        block.data.Assign(bytes.data(), bytes.size(), 0, false);
        return CheckBlock(type, files, m_table, block);
    }

    TemporaryDirectory m_folder;
    int m_files = 0;
    CrcTable m_table;
};

TEST_F(GoldenFileTest, ReadsRecordsAndWhatIsNoGoldenFile) {
    GoldenFileParser parser;
    const GoldenRecord* record = nullptr;
    EXPECT_FALSE(parser.First(record));
    EXPECT_FALSE(parser.Load("file:///nonexistent"));
    EXPECT_FALSE(parser.Load("nonsense"));
    EXPECT_FALSE(parser.Load(WriteBytes("")));
    EXPECT_FALSE(parser.Find(0, record));

    // The time needs more than 32 bits; of three records the last is cut.
    ASSERT_TRUE(parser.Load(Write({{500000000, 1, 2}, {40, 3, 4}, {70, 5, 6}}, 100)));
    ASSERT_TRUE(parser.Find(40, record));
    EXPECT_EQ(3u, record->size);
    EXPECT_EQ(4u, record->crc);
    ASSERT_TRUE(parser.First(record));
    EXPECT_EQ(500000000, record->timestamp);
    EXPECT_TRUE(parser.Next(record));
    ASSERT_TRUE(parser.Next(record));
    EXPECT_EQ(70, record->timestamp);
    EXPECT_EQ(0u, record->size) << "what is missing reads as zeros";
    EXPECT_EQ(0u, record->crc);
    EXPECT_FALSE(parser.Next(record));
    EXPECT_EQ(nullptr, record);
    EXPECT_FALSE(parser.Find(0, record));

    ASSERT_TRUE(parser.Load(WriteBytes(std::string(size_t{64} << 20, 'g'))));
    EXPECT_FALSE(parser.Find(40, record));
    EXPECT_FALSE(parser.Load("file:///nonexistent"));
    EXPECT_FALSE(parser.First(record)) << "a file that is not there leaves the old one";
}

TEST_F(GoldenFileTest, ABlockFitsAnyFile) {
    const std::string check = "123456789";
    const Bytes block(check.begin(), check.end());
    EXPECT_EQ(0xCBF43926u, CalculateCrc(m_table, block.data(), block.size()));
    Entry right = Of(40, block);
    Entry wrongCrc = right;
    ++wrongCrc.crc;
    Entry wrongSize = right;
    ++wrongSize.size;
    const std::string good = Write({{0, 1, 1}, right});
    const std::string bad = Write({wrongCrc});

    EXPECT_FALSE(CheckVideoBlock(nullptr, BlockNode()));
    TakePrinted();
    EXPECT_TRUE(Check(OPAL_STREAM_VIDEO, {}, 40, block));
    EXPECT_TRUE(Check(OPAL_STREAM_VIDEO, {""}, 40, block));
    EXPECT_TRUE(Check(OPAL_STREAM_VIDEO, {bad, good}, 40, block));
    EXPECT_TRUE(Check(OPAL_STREAM_VIDEO, {good, bad}, 40, block));
    EXPECT_EQ("", TakePrinted());
    EXPECT_EQ(0u, VideoErrorCount());

    EXPECT_FALSE(Check(OPAL_STREAM_VIDEO, {good}, 41, block));
    EXPECT_EQ(1u, VideoErrorCount());
    EXPECT_EQ("\tERROR: timestamp (41) not found in Video goldfile: \n", TakePrinted());
    EXPECT_FALSE(Check(OPAL_STREAM_VIDEO, {Write({wrongSize})}, 40, block));
    EXPECT_EQ(3u, VideoErrorCount());
    EXPECT_EQ(
        "\tERROR: blocksize from cluster fragment:  9\n"
        "\t       does not match golden file value: 10\n"
        "\tERROR: timestamp (40) not found in Video goldfile: \n",
        TakePrinted());
    EXPECT_FALSE(Check(OPAL_STREAM_SUBTITLE, {bad}, 40, block));
    EXPECT_EQ(2u, SubtitleErrorCount());
    EXPECT_EQ(
        "\n\tERROR: CRC calculated from blockBuffer:      3421780262\n"
        "\n\t       does not match audio golden file CRC: 3421780263\n"
        "\n\tERROR: timestamp (40) not found in Audio goldfile: \n",
        TakePrinted());
    Entry wrong = wrongCrc;
    ++wrong.size;
    EXPECT_FALSE(Check(OPAL_STREAM_AUDIO, {Write({wrong})}, 40, block));
    EXPECT_EQ(3u, AudioErrorCount());
    EXPECT_EQ(3u, VideoErrorCount()) << "each kind counts for itself";
}

TEST_F(GoldenFileTest, ASessionIsVerifiedAndItsNextFlushFails) {
    // What Session queues, as it is before the video side changes it.
    const Bytes unit = {0, 0, 0, 2, 0x67, 0x64, 0, 0, 0, 2, 0x65, 0x88};
    EXPECT_FALSE(GoldenFiles_Attach(OPAL_STREAM_VIDEO, "file:///nonexistent"));
    Session session;
    session.QueueAll({0});
    EXPECT_EQ(0u, GoldenFiles_GetVerification(OPAL_STREAM_VIDEO).blocks);
    Settle();
    ASSERT_TRUE(
        GoldenFiles_Attach(OPAL_STREAM_TRICK, Write({Of(40, unit), Of(80, unit), Of(120, {1})})));
    ASSERT_TRUE(GoldenFiles_Attach(OPAL_STREAM_AUDIO, Write({Of(0, {1})})));
    session.QueueAll({40, 80});
    EXPECT_EQ(OPAL_OK, session.QueueAudio(0));
    EXPECT_EQ(OPAL_OK, session.video->Flush());
    session.QueueAll({120});
    EXPECT_EQ(OPAL_ERROR_GENERAL, session.video->Flush());
    EXPECT_EQ(OPAL_OK, session.audio->Flush());
    const GoldenVerification video = GoldenFiles_GetVerification(OPAL_STREAM_VIDEO);
    EXPECT_EQ(3u, video.blocks);
    EXPECT_THAT(video.mismatchedAt, ElementsAre(120));
    EXPECT_EQ(1u, video.flushes);
    EXPECT_EQ(3u, VideoErrorCount());
    const GoldenVerification audio = GoldenFiles_GetVerification(OPAL_STREAM_AUDIO);
    EXPECT_EQ(1u, audio.blocks);
    EXPECT_EQ(0u, audio.mismatches);
    EXPECT_EQ(HAB_FAIL, VerifiedFlushResult(OPAL_STREAM_VIDEO));
}

}  // namespace
}  // namespace opal::test
