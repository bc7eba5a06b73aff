// A real film, packaged, fetched, decoded and looked at.
#include <gmock/gmock.h>
#include <png.h>

#include <filesystem>
#include <fstream>
#include <map>
#include <optional>
#include <thread>

#include "opal-package/Av.h"
#include "opal-package/Packager.h"
#include "opal-package/TimeCode.h"
#include "support/TemporaryDirectory.h"
#include "system/SessionFixture.h"

using namespace opal::test;
using opal::package::TimeCode;

namespace {

constexpr int64_t kFilmMs = 160000;
constexpr int64_t kTrickIntervalMs = 1000;

class FilmTest : public SessionFixture {
  protected:
    FilmTest() : SessionFixture(2, tvset::Decoding::Libav) {
        for (const auto& entry : std::filesystem::directory_iterator(s_folder->File("film"))) {
            std::ifstream in(entry.path(), std::ios::binary);
            m_origin.AddFile(entry.path().filename().string(),
                             std::string(std::istreambuf_iterator<char>(in), {}));
        }
        m_origin.AddFile("film.smil",
                         opal::package::ManifestText(s_presentation, m_origin.Url("")));
        tvset::SetPictureListener([this](uint32_t pts) {
            const std::lock_guard<std::mutex> lock(m_mutex);
            m_shown.push_back(pts);
        });
    }
    ~FilmTest() override { tvset::SetPictureListener({}); }

    static void SetUpTestSuite() {
        s_folder = std::make_unique<TemporaryDirectory>();
        opal::package::PackageOptions film;
        film.testFilm.durationMs = kFilmMs;
        film.testFilm.width = 160;
        film.testFilm.height = 90;
        film.testFilm.languages = {"eng"};
        film.ladder = opal::package::ParseLadder("100k:160x90");
        film.preset = "ultrafast";
        film.trickIntervalMs = kTrickIntervalMs;
        film.folder = s_folder->File("film");
        s_presentation = opal::package::Package(film);
    }
    static void TearDownTestSuite() { s_folder.reset(); }

    /// What is written on the screen; nothing while there is no picture, or a new one just came.
    std::optional<TimeCode> Screen() const {
        const uint32_t before = tvset::GetStatistics().shownPts;
        const std::string path = s_folder->File("screen.png");
        if (!tvset::WriteSnapshot(path))
            return {};
        png_image png{};
        png.version = PNG_IMAGE_VERSION;
        EXPECT_NE(png_image_begin_read_from_file(&png, path.c_str()), 0);
        std::vector<uint8_t> rgb(PNG_IMAGE_SIZE(png));
        EXPECT_NE(png_image_finish_read(&png, nullptr, rgb.data(), 0, nullptr), 0);
        TimeCode code;
        const auto width = static_cast<int>(png.width);
        if (!opal::package::ReadTimeCode(rgb.data(), 3 * width, 3, width,
                                         static_cast<int>(png.height), code) ||
            before != tvset::GetStatistics().shownPts)
            return {};
        // The television names its picture a moment after it shows it. Trick times it gets scaled.
        if (code.level != opal::package::kTrickLevel && code.timeMs != before)
            return {};
        return code;
    }
    [[nodiscard]] bool Shows(unsigned level, int64_t fromMs, int64_t toMs) const {
        return Eventually([&] {
            const auto code = Screen();
            return code && code->level == level && code->timeMs >= fromMs && code->timeMs < toMs;
        });
    }
    std::vector<int64_t> Shown() const {
        const std::lock_guard<std::mutex> lock(m_mutex);
        return m_shown;
    }
    void ForgetShown() {
        const std::lock_guard<std::mutex> lock(m_mutex);
        m_shown.clear();
    }
    void Play() {
        ASSERT_EQ(Initialize(), OPAL_OK);
        ASSERT_EQ(m_player->Play(), OPAL_OK);
        ASSERT_TRUE(m_listener.WaitFor("OnPlay 1 0 -1"));
    }
    void SeekTo(int64_t askedMs, int64_t expectedMs) {
        SCOPED_TRACE(askedMs);
        const size_t plays = m_listener.Count("OnPlay 1 0 -1");
        int64_t position = askedMs;
        ASSERT_EQ(m_player->Seek(position), OPAL_OK);
        ForgetShown();
        EXPECT_EQ(position, expectedMs);
        ASSERT_TRUE(m_listener.WaitFor("OnPlay 1 0 -1", plays + 1));
        ASSERT_TRUE(Eventually([this] { return !Shown().empty(); }));
        EXPECT_LT(Shown().front(), expectedMs + 1000);
        ASSERT_TRUE(Shows(0, expectedMs, kFilmMs));
        EXPECT_THAT(Shown(), testing::Each(testing::Ge(expectedMs)));
    }

    static inline std::unique_ptr<TemporaryDirectory> s_folder;
    static inline opal::package::Presentation s_presentation;

  private:
    mutable std::mutex m_mutex;
    std::vector<int64_t> m_shown;
};

/// NAL units behind start codes in place of their lengths, as the television gets them.
std::vector<uint8_t> WithStartCodes(std::vector<uint8_t> unit) {
    for (size_t at = 0; at + 4 <= unit.size();) {
        const size_t length = static_cast<size_t>(unit[at]) << 24 |
                              static_cast<size_t>(unit[at + 1]) << 16 |
                              static_cast<size_t>(unit[at + 2]) << 8 | unit[at + 3];
        unit[at] = unit[at + 1] = unit[at + 2] = 0;
        unit[at + 3] = 1;
        at += 4 + length;
    }
    return unit;
}

struct Packet {
    std::vector<uint8_t> bytes;
    int64_t durationMs = 0;
};
using Packets = std::map<int64_t, Packet>;  // by time

/// What libavformat reads from a file.
Packets ReadPackets(const std::string& path) {
    AVFormatContext* opened = nullptr;
    EXPECT_EQ(avformat_open_input(&opened, path.c_str(), nullptr, nullptr), 0);
    const opal::package::AvPtr<AVFormatContext> context(opened);
    const opal::package::AvPtr<AVPacket> packet(av_packet_alloc());
    Packets packets;
    while (opened && av_read_frame(opened, packet.get()) >= 0) {
        packets[packet->pts] = {{packet->data, packet->data + packet->size}, packet->duration};
        av_packet_unref(packet.get());
    }
    return packets;
}

}  // namespace

TEST_F(FilmTest, ASeekShowsThePictureOfItsTime) {
    Play();
    ASSERT_TRUE(Shows(0, 0, 20000));
    SeekTo(41000, 40000);
    SeekTo(9000, 8000);
    ASSERT_EQ(m_player->Pause(), OPAL_OK);
    ASSERT_TRUE(m_listener.WaitFor("OnPause"));
    SeekTo(61999, 60000);
    SeekTo(INT64_MAX, kFilmMs - 2000);
    ASSERT_TRUE(m_listener.WaitFor("OnEndOfStream"));
    EXPECT_LT(FinalizeMs(), 3000);
}

TEST_F(FilmTest, EveryTrickRateShowsItsPicturesInOrder) {
    Play();
    const auto rate = [this](OPALPlayRate value, bool forward) {
        SCOPED_TRACE(GetRateName(value));
        ASSERT_EQ(m_player->SetPlayRate(value), OPAL_OK);
        ASSERT_TRUE(m_listener.WaitFor("OnPlayRateChanged " + std::to_string(value)));
        std::vector<int64_t> seen;
        ASSERT_TRUE(Eventually([&] {
            const auto code = Screen();
            if (code && code->level == opal::package::kTrickLevel &&
                (seen.empty() || seen.back() != code->timeMs))
                seen.push_back(code->timeMs);
            return seen.size() >= 4;
        })) << testing::PrintToString(seen);
        for (size_t i = 2; i < seen.size(); ++i) {  // the first may be of the rate before
            EXPECT_EQ(seen[i] % kTrickIntervalMs, 0);
            EXPECT_EQ(seen[i] > seen[i - 1], forward) << testing::PrintToString(seen);
        }
    };
    const auto backToNormal = [this] {
        const size_t plays = m_listener.Count("OnPlay 1 0 -1");
        ASSERT_EQ(m_player->SetPlayRate(OPAL_PLAYRATE_ONEX), OPAL_OK);
        ASSERT_TRUE(m_listener.WaitFor("OnPlay 1 0 -1", plays + 1));
    };
    SeekTo(20000, 20000);
    for (int value = OPAL_PLAYRATE_THIRTYTWOXFF; value >= OPAL_PLAYRATE_TWOXFF; value -= 2)
        rate(static_cast<OPALPlayRate>(value), true);
    backToNormal();
    SeekTo(150000, 150000);
    for (int value = OPAL_PLAYRATE_THIRTYTWOXRW; value >= OPAL_PLAYRATE_TWOXRW; value -= 2)
        rate(static_cast<OPALPlayRate>(value), false);
    ASSERT_EQ(m_player->SetPlayRate(OPAL_PLAYRATE_THIRTYTWOXRW), OPAL_OK);
    ASSERT_TRUE(Shows(opal::package::kTrickLevel, 0, 1)) << "back at the start of the file";
    backToNormal();
    ASSERT_TRUE(Shows(0, 0, 20000));
    EXPECT_EQ(m_listener.Count("OnUnderflow"), 0u);
    EXPECT_LT(FinalizeMs(), 3000);
}

// Both models yield, in count, time and bytes, what libavformat reads from the same files.
TEST_F(FilmTest, TheBlocksAreThePacketsOfTheFile) {
    Packets packets[2];
    for (const auto& entry : s_presentation.entries) {
        if (entry.kind == opal::package::EntryKind::Audio)
            packets[kAudio] = ReadPackets(s_folder->File("film/" + entry.file));
        if (entry.kind == opal::package::EntryKind::Level)
            packets[kVideo] = ReadPackets(s_folder->File("film/" + entry.file));
    }
    ASSERT_EQ(packets[kVideo].size(), static_cast<size_t>(kFilmMs / 40));
    ASSERT_EQ(Initialize(OPAL_WRITER_MODEL_PULL), OPAL_OK);
    ASSERT_EQ(m_player->Play(), OPAL_OK);
    const auto pullAll = [this, &packets](decltype(&IStreamingController::PullVideoBlock) pull,
                                          uint32_t type) {
        qutl::MemoryBuffer<unsigned char> data;
        int64_t time = 0;
        int64_t duration = 0;
        uint32_t level = 0;
        uint32_t flags = 0;
        size_t blocks = 0;
        size_t keys = 0;
        OPALError code = OPAL_OK;
        const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(60);
        while ((code == OPAL_OK || code == OPAL_ERROR_NOT_YET) &&
               std::chrono::steady_clock::now() < end) {
            code = (m_player.get()->*pull)(data, time, duration, level, flags);
            if (code != OPAL_OK) {
                std::this_thread::sleep_for(std::chrono::milliseconds(1));
                continue;
            }
            const std::vector<uint8_t> bytes(data.GetData(), data.GetData() + data.GetSize());
            const Packet& packet = packets[type][time];
            EXPECT_EQ(bytes, packet.bytes) << type << " at " << time;
            EXPECT_EQ(duration, packet.durationMs) << type << " at " << time;
            ++blocks;
            keys += flags == 16 ? 1 : 0;
        }
        EXPECT_EQ(code, OPAL_ERROR_END_OF_DATA);
        EXPECT_EQ(blocks, packets[type].size());
        EXPECT_EQ(keys, type == kVideo ? kFilmMs / 2000 : blocks);
    };
    std::thread audio(pullAll, &IStreamingController::PullAudioBlock, kAudio);
    pullAll(&IStreamingController::PullVideoBlock, kVideo);
    audio.join();
    EXPECT_LT(FinalizeMs(), 3000);

    m_listener.Clear();
    Play();
    SeekTo(INT64_MAX, kFilmMs - 2000);
    ASSERT_TRUE(m_listener.WaitFor("OnEndOfStream"));
    const std::vector<SeenBlock> pushed = Pushed(kVideo);
    EXPECT_GT(pushed.size(), 50u);
    for (const SeenBlock& block : pushed) {
        const std::vector<uint8_t> bytes = WithStartCodes(packets[kVideo][block.timeMs].bytes);
        EXPECT_EQ(block.size, bytes.size()) << block.timeMs;
        EXPECT_EQ(block.crc, Crc(bytes.data(), bytes.size())) << block.timeMs;
    }
    EXPECT_LT(FinalizeMs(), 3000);
}
