// A presentation of the test film, made once, is read back with libavformat, libavcodec and the
// library itself; then its larger level, with other times, is a source to be packaged.
#include <gmock/gmock.h>

#include <filesystem>
#include <fstream>
#include <sstream>

#include "PackageSupport.h"
#include "opal-package/AudioEncoder.h"
#include "opal-package/Dump.h"
#include "opal-package/GoldenFile.h"
#include "opal-package/Packager.h"
#include "opal-package/TimeCode.h"
#include "opal-simulate/Film.h"
#include "support/TemporaryDirectory.h"

namespace opal::package {
namespace {

using test::FailureOf;
using test::LibavView;
using test::LibraryView;
using testing::ElementsAre;
using testing::HasSubstr;

class PackagedFilm : public testing::Test {
  protected:
    /// 7.3 s at 24 frames a second, whose frames do not fall on whole milliseconds.
    static void SetUpTestSuite() {
        av_log_set_level(AV_LOG_QUIET);  // of damaged sources libavformat has much to say
        s_folder = std::make_unique<test::TemporaryDirectory>();
        PackageOptions options;
        options.folder = s_folder->File("film");
        options.testFilm.durationMs = 7300;
        options.testFilm.framesPerSecond = 24;
        options.ladder = ParseLadder("100k:160x90,300k:320x180");
        const char* text = "1\n00:00:06,000 --> 00:00:06,900\nsecond\n";
        options.subtitles = {{s_folder->Write("a.srt", text), "eng"}};
        options.golden = true;
        options.font = s_folder->Write("font.ttf", std::string("\0\1\0\0", 4) + "no outlines");
        s_film = Package(options);
    }
    static void TearDownTestSuite() { s_folder.reset(); }

    static std::string PathOf(const Entry& entry, const std::string& folder = "film") {
        return s_folder->File(folder + "/" + entry.file);
    }

    static std::string TextOf(const std::string& file) {
        std::ifstream in(s_folder->File("film/" + file), std::ios::binary);
        return {std::istreambuf_iterator<char>(in), {}};
    }

    static LibraryView ViewOf(const Entry& entry) {
        const std::string text = TextOf(entry.file);
        return LibraryView({text.begin(), text.end()}, entry.headerRequest);
    }

    /// Calls with the time and the code of each picture.
    static void ForEachCode(const LibavView& view,
                            const std::function<void(int64_t, const TimeCode&)>& take) {
        view.Decode([&](const AVFrame& frame) {
            TimeCode code;
            EXPECT_TRUE(
                ReadTimeCode(frame.data[0], frame.linesize[0], 1, frame.width, frame.height, code));
            take(frame.pts, code);
        });
    }

    /// The film's files stand in this order.
    enum File { kSmall, kLarge, kTrick, kEnglish, kGerman, kText };

    static inline std::unique_ptr<test::TemporaryDirectory> s_folder;
    static inline Presentation s_film;
};

TEST_F(PackagedFilm, LibraryAndLibavformatSeeTheSameBlocksInEveryFile) {
    ASSERT_EQ(s_film.entries.size(), 6u);
    for (const Entry& entry : s_film.entries) {
        SCOPED_TRACE(entry.file);
        LibraryView view = ViewOf(entry);
        LibavView libav(PathOf(entry));
        EXPECT_FALSE(libav.blocks.empty());
        EXPECT_EQ(libav.blocks, view.blocks);
        EXPECT_EQ(libav.context->duration, 7300 * (AV_TIME_BASE / 1000));
        EXPECT_EQ(static_cast<uint64_t>(view.index->GetOffset(0)), entry.headerRequest);
        ASSERT_EQ(view.clusters.size(), entry.clusterSizes.size());
        for (size_t i = 0; i < entry.clusterSizes.size(); ++i) {
            EXPECT_EQ(static_cast<uint64_t>(view.index->GetSize(i)), entry.clusterSizes[i]);
            EXPECT_EQ(view.index->GetTime(i), entry.clusterTimesMs[i]);
            if (entry.kind == EntryKind::Trick) {
                EXPECT_EQ(view.index->GetFrameCount(i), view.clusters[i].blocks.size());
            }
        }
        std::ostringstream dump;
        EXPECT_EQ(Dump(PathOf(entry), dump), 0) << dump.str();
    }
}

TEST_F(PackagedFilm, LevelsAreCutAlikeAndEachClusterStandsAlone) {
    for (const unsigned number : {kSmall, kLarge}) {
        SCOPED_TRACE(number);
        const Entry& level = s_film.entries[number];
        EXPECT_THAT(level.clusterTimesMs, ElementsAre(0, 2000, 4000, 6000));
        for (const Cluster& cluster : ViewOf(level).clusters) {
            EXPECT_TRUE(cluster.blocks.front().key);
            for (const Block& block : cluster.blocks)
                EXPECT_GE(block.timeMs, cluster.timeMs) << "no picture ahead of its key";
        }
        EXPECT_LE(static_cast<double>(std::filesystem::file_size(PathOf(level))),
                  level.bitrate * 7.3 / 8 + level.vbvBits / 8.0);
        int64_t picture = 0;
        ForEachCode(LibavView(PathOf(level)), [&](int64_t time, auto& code) {
            EXPECT_EQ(time, picture++ * 1000 / 24);
            EXPECT_EQ(code.timeMs, time);
            EXPECT_EQ(code.level, number);
        });
        EXPECT_EQ(picture, 176);
    }
}

TEST_F(PackagedFilm, SubtitlesManifestAndSidecar) {
    const LibraryView text = ViewOf(s_film.entries[kText]);
    EXPECT_EQ(text.clusters.size(), 4u) << "one for each two seconds, with text or without";
    ASSERT_EQ(text.blocks.size(), 1u);
    EXPECT_EQ(text.blocks[0].timeMs, 6000);
    EXPECT_EQ(text.blocks[0].durationMs, 900);
    EXPECT_EQ(std::string(text.blocks[0].data.begin(), text.blocks[0].data.end()), "second");
    std::string font;
    EXPECT_EQ(text.header.GetFontName(font), OPAL_OK);
    EXPECT_EQ(font, "font.ttf");

    const std::string sidecar = TextOf("presentation.json");
    EXPECT_EQ(SidecarText(ParseSidecar(sidecar)), sidecar);
    RewriteManifest(s_folder->File("film"), "http://tv/x/");
    EXPECT_EQ(TextOf("presentation.smil"), ManifestText(s_film, "http://tv/x"));
    EXPECT_THAT(ManifestText(s_film, ""), HasSubstr("name=\"vbv\" value=\"600000\""));
    const simulate::Film simulated = simulate::ReadFilm(s_folder->File("film/presentation.json"));
    EXPECT_THAT(simulated.levels.at(1).clusterSizes,
                testing::ElementsAreArray(s_film.entries[kLarge].clusterSizes));
}

// The blocks that the library reads are those of the golden file, record for record, at the places
// where a verifier looks.
TEST_F(PackagedFilm, GoldenFilesHoldEveryBlock) {
    for (const Entry& entry : s_film.entries) {
        SCOPED_TRACE(entry.file);
        const std::string golden = TextOf(entry.file + kGoldenEnding);
        const auto blocks = ViewOf(entry).blocks;
        ASSERT_EQ(golden.size(), 40 * blocks.size());
        std::string expected;
        const auto word = [&expected](uint64_t value) {
            for (int i = 0; i < 4; ++i)
                expected += static_cast<char>(value >> 8 * i);
        };
        for (const Block& block : blocks) {
            expected.append(8, '\0');
            word(static_cast<uint64_t>(block.timeMs) * 10000 >> 32);
            word(static_cast<uint64_t>(block.timeMs) * 10000);
            expected.append(12, '\0');
            word(block.data.size());
            word(BlockCrc(block.data.data(), block.data.size()));
            word(0);
        }
        EXPECT_TRUE(golden == expected);
        std::ostringstream listed;
        EXPECT_EQ(Dump(PathOf(entry) + kGoldenEnding, listed), 0);
        EXPECT_THAT(listed.str(), HasSubstr(", crc "));
    }
    const std::string published = "123456789";
    const auto* data = reinterpret_cast<const uint8_t*>(published.data());
    EXPECT_EQ(BlockCrc(data, published.size()), 0xCBF43926U);
    // An hour in units of 100 ns does not fit into a word: the higher one comes first.
    std::ostringstream record;
    WriteGoldenRecord(record, {3600000, 0, true, {data, data + 9}});
    EXPECT_EQ(record.str().substr(8, 8), std::string("\x08\0\0\0\x00\x68\xC4\x61", 8));
    std::ostringstream out;
    const std::string cut = s_folder->Write("cut.golden", record.str() + "xyz");
    EXPECT_EQ(Dump(cut, out), static_cast<int>(Failure::Damaged));
    EXPECT_THAT(out.str(), AllOf(HasSubstr("block 3600000 ms, 9 bytes, crc cbf43926"),
                                 HasSubstr("3 bytes behind the last record")));
}

// Cut anywhere, it is reported; any byte of the header turned over, no more is printed than a file
// of this size can give reason for.
TEST_F(PackagedFilm, DumpStandsAnyDamage) {
    const Entry& trick = s_film.entries[kTrick];
    const std::string whole = TextOf(trick.file);
    for (size_t at = 0; at < whole.size(); at += at < trick.headerRequest ? 1 : 977) {
        std::ostringstream out;
        const std::string cut = s_folder->Write("cut.mkv", whole.substr(0, at));
        EXPECT_EQ(Dump(cut, out), static_cast<int>(Failure::Damaged)) << at;
        std::string broken = whole;
        broken[at] = static_cast<char>(broken[at] ^ 0x55);
        Dump(s_folder->Write("broken.mkv", broken), out);
        EXPECT_LT(out.str().size(), 4 * whole.size()) << at;
    }
}

/// The film's larger level as a source.
class PackagedSource : public PackagedFilm {
  protected:
    PackagedSource() {
        m_options.folder = s_folder->File("out");
        m_options.preset = "ultrafast";
        m_options.ladder = {{100000, 160, 90}};
    }
    ~PackagedSource() override { std::filesystem::remove_all(m_options.folder); }

    /// Writes the source with times of its own.
    std::string Source(const std::function<int64_t(int64_t)>& timeOf) {
        const LibavView film(PathOf(s_film.entries[kLarge]));
        TrackDescription track;
        track.codecId = "V_MPEG4/ISO/AVC";
        track.codecPrivate.assign(film.parameters->extradata,
                                  film.parameters->extradata + film.parameters->extradata_size);
        track.width = 320;
        track.height = 180;
        std::vector<Cluster> clusters;
        for (Block block : film.blocks) {
            block.timeMs = timeOf(block.timeMs);
            block.durationMs = 0;
            if (block.key)
                clusters.push_back({block.timeMs, {}});
            clusters.back().blocks.push_back(std::move(block));
        }
        const BuiltFile file = BuildFile(track, clusters, timeOf(7300));
        return s_folder->Write("source.mkv", std::string(file.bytes.begin(), file.bytes.end()));
    }

    /// Expects to be refused and that nothing is left: the message.
    std::string Refusal(Failure failure = Failure::Refused) {
        std::string message;
        EXPECT_EQ(FailureOf([this] { Package(m_options); }, message), failure) << message;
        std::error_code none;
        for (const auto& file : std::filesystem::directory_iterator(m_options.folder, none))
            ADD_FAILURE() << file << " is left over";
        return message;
    }

    PackageOptions m_options;
};

TEST_F(PackagedSource, PicturesKeepTheirTimesAndGetASilentTrack) {
    // Begins at 1.7 s, and the film's key frames come late.
    const auto timeOf = [](int64_t time) { return 1700 + time + (time >= 1900 ? 130 : 0); };
    m_options.input = Source(timeOf);
    const Presentation made = Package(m_options);
    ASSERT_EQ(made.entries.size(), 3u);
    EXPECT_THAT(made.entries[0].clusterTimesMs, ElementsAre(0, 2046, 4005, 6005))
        << "a cluster begins with the first picture at or behind every second second";
    EXPECT_EQ(made.entries[0].width, 160);
    int pictures = 0;
    ForEachCode(LibavView(PathOf(made.entries[0], "out")), [&](int64_t time, auto& code) {
        EXPECT_EQ(time, timeOf(code.timeMs) - 1700);
        ++pictures;
    });
    EXPECT_EQ(pictures, 176);
    EXPECT_EQ(made.entries[2].kind, EntryKind::Audio);
    EXPECT_EQ(made.entries[2].language, "und");
}

TEST_F(PackagedSource, CopyKeepsTheCodedPicturesOrSaysHowToMendThem) {
    m_options.ladder.clear();
    m_options.copy = true;
    m_options.input = PathOf(s_film.entries[kLarge]);
    const Presentation made = Package(m_options);
    EXPECT_THAT(made.entries[0].clusterTimesMs, ElementsAre(0, 2000, 4000, 6000));
    EXPECT_EQ(LibavView(PathOf(made.entries[0], "out")).blocks, LibavView(m_options.input).blocks);
    std::filesystem::remove_all(m_options.folder);

    const std::pair<std::function<int64_t(int64_t)>, std::string> rows[] = {
        {[](int64_t time) { return time * 3 / 2; }, "2000 ms"},  // a key frame every three seconds
        {[](int64_t time) { return time < 2000 ? time : time + 300; }, "2000 ms"},  // late
        {[](int64_t time) { return time == 2041 ? 1990 : time; },
         "open group of pictures) at 1990 ms"},
    };
    for (const auto& [timeOf, reason] : rows) {
        m_options.input = Source(timeOf);
        EXPECT_THAT(Refusal(), AllOf(HasSubstr(reason), HasSubstr("ffmpeg -i '")));
    }
}

TEST_F(PackagedSource, DamagedSourcesArePackagedAsFarAsTheyGoOrRefused) {
    m_options.input = s_folder->File("none.mp4");
    Refusal(Failure::InputOutput);
    m_options.input = PathOf(s_film.entries[kEnglish]);
    EXPECT_THAT(Refusal(), HasSubstr("no video"));
    m_options.input = Source([](int64_t time) { return time < 2000 ? time : time + 3000000; });
    EXPECT_THAT(Refusal(), HasSubstr("1958 ms and 3002000 ms")) << "before it fills the disk";

    const Entry& level = s_film.entries[kLarge];
    const std::string whole = TextOf(level.file);
    for (const size_t size : {size_t{0}, size_t{20}, level.headerRequest}) {
        m_options.input = s_folder->Write("cut.mkv", whole.substr(0, size));
        EXPECT_THAT(Refusal(), HasSubstr("cut.mkv")) << size;
    }
    for (size_t part = 2; part < 8; part += 2) {
        m_options.input = s_folder->Write("cut.mkv", whole.substr(0, whole.size() * part / 8));
        const Presentation made = Package(m_options);
        EXPECT_GT(made.durationMs, 1000);
        EXPECT_LT(made.durationMs, 7000);
    }
}

TEST_F(PackagedSource, FontsThatNoPlayerWouldOpenAreRefused) {
    m_options.subtitles = {{s_folder->File("a.srt"), "eng"}};
    m_options.font = s_folder->Write("bad.ttf", "text");
    EXPECT_THAT(Refusal(), HasSubstr("TrueType"));
    m_options.font = s_folder->Write("bad.ttf", std::string("\0\1\0\0", 4).append(2100000, 'x'));
    EXPECT_THAT(Refusal(), HasSubstr("2100004"));
}

TEST(AudioEncoder, HolesBecomeSilenceAndOverlapsGo) {
    int64_t next = 0;
    AudioEncoder encoder(44100, 96000, [&next](const Block& block) {
        EXPECT_EQ(block.timeMs, next);
        next = block.timeMs + block.durationMs;
    });
    const std::vector<float> tone(44100, 0.5F);
    const float* const channels[2] = {tone.data(), tone.data()};
    // Half before the film, a hole of two seconds, nothing new, 300 ms of a second new.
    for (int64_t timeMs : {-500, 2500, 2100, 2800})
        encoder.Encode(timeMs, channels, 44100);
    encoder.Finish(4000);
    EXPECT_NEAR(static_cast<double>(next), 4025, 25);
}

}  // namespace
}  // namespace opal::package
