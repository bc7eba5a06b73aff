// What the packager makes of sources: real containers, odd ones, and those it must refuse.
#include <gtest/gtest.h>

#include <filesystem>
#include <random>

#include "PackageSupport.h"
#include "opal-package/AudioEncoder.h"
#include "opal-package/Error.h"
#include "opal-package/Packager.h"
#include "opal-package/TimeCode.h"
#include "opal-package/VideoEncoder.h"
#include "support/TemporaryDirectory.h"

namespace opal::package {
namespace {

using test::LibavView;
using test::LibraryView;

class PackagedSource : public testing::Test {
  protected:
    PackagedSource() {
        av_log_set_level(AV_LOG_QUIET);  // of damaged sources libavformat has much to say
    }

    /// A source of H.264 pictures with time codes, a key frame wherever `key` says, as Matroska.
    /// Returns its path.
    template <typename Key>
    std::string MakeSource(const std::string& name, const std::vector<int64_t>& timesMs, Key key) {
        std::vector<Block> blocks;
        VideoEncoder encoder({160, 120, {10, 1}, 0, false, "ultrafast"},
                             [&blocks](Block block) { blocks.push_back(std::move(block)); });
        for (int64_t time : timesMs) {
            const AvPtr<AVFrame> frame = NewPicture(160, 120);
            for (int plane = 0; plane < 3; ++plane) {
                std::fill_n(frame->data[plane], frame->linesize[plane] * (plane == 0 ? 120 : 60),
                            uint8_t{110});
            }
            DrawTimeCode({{frame->data[0], frame->data[1], frame->data[2]},
                          {frame->linesize[0], frame->linesize[1], frame->linesize[2]},
                          160,
                          120},
                         {static_cast<uint32_t>(time), 0});
            encoder.Encode(*frame, time, key(time));
        }
        encoder.Drain();
        TrackDescription track;
        track.codecId = "V_MPEG4/ISO/AVC";
        track.codecPrivate = MakeConfiguration(encoder.Sets());
        track.width = 160;
        track.height = 120;
        std::vector<Cluster> clusters;
        for (Block& block : blocks) {
            if (block.key) {
                clusters.push_back({block.timeMs, {}});
            }
            clusters.back().blocks.push_back(std::move(block));
        }
        const BuiltFile file = BuildFile(track, clusters, timesMs.back() + 100);
        return m_folder.Write(name, std::string(file.bytes.begin(), file.bytes.end()));
    }

    static std::vector<int64_t> Tenths(int64_t durationMs, int64_t startMs = 0) {
        std::vector<int64_t> times;
        for (int64_t time = startMs; time < startMs + durationMs; time += 100) {
            times.push_back(time);
        }
        return times;
    }

    PackageOptions Options(const std::string& input) const {
        PackageOptions options;
        options.input = input;
        options.folder = m_folder.File("out");
        options.preset = "ultrafast";
        options.ladder = {{100000, 96, 72}};
        return options;
    }

    /// Packages, expecting to be refused: returns the message, and sees to it that nothing is left.
    std::string Refusal(const PackageOptions& options, Failure failure = Failure::Refused) {
        std::string message;
        try {
            Package(options, m_events);
            ADD_FAILURE() << options.input << " was packaged";
        } catch (const PackageError& error) {
            message = error.what();
            EXPECT_EQ(error.GetFailure(), failure) << message;
        }
        std::error_code none;
        for (const auto& file : std::filesystem::directory_iterator(options.folder, none)) {
            ADD_FAILURE() << file << " is left over";
        }
        return message;
    }

    LibraryView ViewOf(const Entry& entry) const {
        return LibraryView(test::ReadBytes(m_folder.File("out/" + entry.file)),
                           entry.headerRequest);
    }

    test::TemporaryDirectory m_folder;
    std::vector<std::string> m_notes;
    PackageEvents m_events{[this](const std::string& text) { m_notes.push_back(text); }, {}};
};

bool Contains(const std::string& text, const std::string& part) {
    return text.find(part) != std::string::npos;
}

TEST_F(PackagedSource, PicturesKeepTheirTimesAndGetASilentTrack) {
    // Begins at 1.7 s; its frames fall unevenly; its own key frames do not matter.
    std::vector<int64_t> times = Tenths(5000, 1700);
    times.erase(times.begin() + 20);
    times[31] += 37;
    const auto input =
        MakeSource("a.mkv", times, [](int64_t time) { return time == 1700 || time == 4500; });
    const Presentation made = Package(Options(input), m_events);
    ASSERT_EQ(made.entries.size(), 3u);
    EXPECT_EQ(made.entries[0].clusterTimesMs, (std::vector<int64_t>{0, 2100, 4000}))
        << "a cluster begins with the first picture at or behind every second second";
    size_t pictures = 0;
    LibavView(m_folder.File("out/" + made.entries[0].file)).Decode([&](const AVFrame& frame) {
        TimeCode code;
        ASSERT_TRUE(
            ReadTimeCode(frame.data[0], frame.linesize[0], 1, frame.width, frame.height, code));
        EXPECT_EQ(code.timeMs, times[pictures]);
        EXPECT_EQ(frame.pts, times[pictures] - 1700);
        ++pictures;
    });
    EXPECT_EQ(pictures, times.size());
    EXPECT_EQ(made.entries[2].kind, EntryKind::Audio);
    EXPECT_EQ(made.entries[2].language, "und");
    EXPECT_TRUE(Contains(m_notes.back(), "silent")) << m_notes.back();
}

TEST_F(PackagedSource, FilmThatThePackagerMadeCanBePackagedAgain) {
    PackageOptions first = Options("");
    first.folder = m_folder.File("first");
    first.testFilm.durationMs = 2400;
    first.ladder = {{200000, 160, 120}};
    const Presentation made = Package(first);
    PackageOptions again = Options(m_folder.File("first/" + made.entries[0].file));
    again.ladder = ParseLadder("50k:80x60,5M:1920x1080");
    const Presentation second = Package(again, m_events);
    EXPECT_EQ(second.durationMs, 2400);
    EXPECT_EQ(second.entries[1].width, 160) << "never larger than the source";
    EXPECT_EQ(second.entries[0].clusterTimesMs, second.entries[1].clusterTimesMs);
}

TEST_F(PackagedSource, CopyKeepsTheCodedPictures) {
    const auto input =
        MakeSource("a.mkv", Tenths(5000), [](int64_t time) { return time % 1000 == 0; });
    PackageOptions options = Options(input);
    options.ladder.clear();
    options.copy = true;
    const Presentation made = Package(options, m_events);
    const Entry& level = made.entries[0];
    EXPECT_EQ(level.clusterTimesMs, (std::vector<int64_t>{0, 2000, 4000}));
    EXPECT_EQ(ViewOf(level).Blocks(), LibavView(input).blocks);
    EXPECT_GT(level.bitrate, 0);
    EXPECT_EQ(level.vbvBits, 2 * level.bitrate);
    EXPECT_EQ(level.width, 160);
}

TEST_F(PackagedSource, CopyRefusesMisplacedKeyFramesAndSaysHowToMendThem) {
    PackageOptions options =
        Options(MakeSource("a.mkv", Tenths(7000), [](int64_t time) { return time % 3000 == 0; }));
    options.ladder.clear();
    options.copy = true;
    const std::string message = Refusal(options);
    EXPECT_TRUE(Contains(message, options.input)) << message;
    EXPECT_TRUE(Contains(message, "2000 ms")) << message;
    EXPECT_TRUE(Contains(message, "ffmpeg -i")) << message;
    // A key frame, but too late behind the start of the cluster.
    options.input =
        MakeSource("b.mkv", Tenths(5000), [](int64_t time) { return time == 0 || time == 2300; });
    EXPECT_TRUE(Contains(Refusal(options), "2000 ms"));
}

TEST_F(PackagedSource, CopyRefusesAnOpenGroupOfPictures) {
    const auto input =
        MakeSource("a.mkv", Tenths(4000), [](int64_t time) { return time % 2000 == 0; });
    const LibavView view(input);
    // One picture of the second group shown ahead of that group's key frame.
    std::vector<Cluster> clusters = {{0, {}}};
    for (const auto& block : view.blocks) {
        const int64_t time = block.timeMs == 2100 ? 1950 : block.timeMs;
        clusters[0].blocks.push_back({time, 0, block.key, block.data});
    }
    TrackDescription track;
    track.codecId = "V_MPEG4/ISO/AVC";
    const AVCodecParameters& parameters = *view.context->streams[0]->codecpar;
    track.codecPrivate.assign(parameters.extradata,
                              parameters.extradata + parameters.extradata_size);
    track.width = 160;
    track.height = 120;
    track.defaultDurationNs = 100000000;
    const BuiltFile file = BuildFile(track, clusters, 4000);
    PackageOptions options =
        Options(m_folder.Write("b.mkv", std::string(file.bytes.begin(), file.bytes.end())));
    options.ladder.clear();
    options.copy = true;
    const std::string message = Refusal(options);
    EXPECT_TRUE(Contains(message, "open group of pictures) at 1950 ms")) << message;
}

TEST_F(PackagedSource, SourcesWithoutPicturesAreRefused) {
    Refusal(Options(m_folder.File("none.mp4")), Failure::InputOutput);
    std::string noise(20000, 0);
    std::mt19937 random(3);
    for (char& c : noise) {
        c = static_cast<char>(random());
    }
    EXPECT_TRUE(
        Contains(Refusal(Options(m_folder.Write("noise.mp4", noise))), "is it a video file"));
    Refusal(Options(m_folder.Write("empty.mkv", "")));

    PackageOptions film = Options("");
    film.folder = m_folder.File("film");
    film.testFilm.durationMs = 300;
    const Presentation made = Package(film);
    EXPECT_TRUE(Contains(Refusal(Options(m_folder.File("film/audio0-eng.mka"))), "no video"));

    // A header that promises pictures, and none that can be decoded.
    const auto level = test::ReadBytes(m_folder.File("film/" + made.entries[0].file));
    const std::string header(level.begin(),
                             level.begin() + static_cast<long>(made.entries[0].headerRequest));
    Refusal(Options(m_folder.Write("header.mkv", header)));
}

TEST_F(PackagedSource, TruncatedSourceIsPackagedAsFarAsItGoesOrRefused) {
    const auto bytes = test::ReadBytes(
        MakeSource("a.mkv", Tenths(3000), [](int64_t time) { return time % 1000 == 0; }));
    const std::string whole(bytes.begin(), bytes.end());
    for (size_t part = 1; part < 8; ++part) {
        const std::string cut = m_folder.Write("cut.mkv", whole.substr(0, whole.size() * part / 8));
        try {
            const Presentation made = Package(Options(cut), m_events);
            EXPECT_GT(made.durationMs, 0);
            EXPECT_LT(made.durationMs, 3000);
            EXPECT_FALSE(ViewOf(made.entries[0]).Blocks().empty());
        } catch (const PackageError& error) {
            EXPECT_EQ(error.GetFailure(), Failure::Refused);
            EXPECT_TRUE(Contains(error.what(), "cut.mkv")) << error.what();
        }
    }
}

TEST_F(PackagedSource, HolesInTimeAreRefusedBeforeTheyFillTheDisk) {
    std::vector<int64_t> times = Tenths(1000);
    times.push_back(3000000);
    const std::string message = Refusal(Options(
        MakeSource("a.mkv", times, [](int64_t time) { return time == 0 || time == 3000000; })));
    EXPECT_TRUE(Contains(message, "900 ms and 3000000 ms")) << message;
}

TEST_F(PackagedSource, SubtitlesFontAndFolderAreTestedBeforeAnythingIsEncoded) {
    PackageOptions options = Options("");
    options.testFilm.durationMs = 1000;
    options.subtitles = {{m_folder.File("none.srt"), "eng"}};
    EXPECT_TRUE(Contains(Refusal(options, Failure::InputOutput), "none.srt"));
    options.subtitles = {{m_folder.Write("a.srt", "1\n00:00:00,100 --> 00:00:00,900\nx\n"), "eng"}};
    options.font = m_folder.File("none.ttf");
    EXPECT_TRUE(Contains(Refusal(options, Failure::InputOutput), "none.ttf"));
    options.font = m_folder.Write("text.ttf", "not a font");
    EXPECT_TRUE(Contains(Refusal(options), "TrueType"));
    options.font =
        m_folder.Write("large.ttf", std::string("\0\1\0\0", 4) + std::string(2100000, 'x'));
    EXPECT_TRUE(Contains(Refusal(options), "2100000"));
    options.subtitles[0].language = "english";
    Refusal(options, Failure::Usage);
    options.subtitles.clear();
    options.trickIntervalMs = 700;
    Refusal(options, Failure::Usage);
    options.trickIntervalMs = 500;
    options.preset = "warp";
    EXPECT_TRUE(Contains(Refusal(options, Failure::InputOutput), "warp"));
    options.preset = "ultrafast";
    options.folder = m_folder.Write("file", "") + "/below";
    Refusal(options, Failure::InputOutput);
}

TEST(AudioEncoder, HolesBecomeSilenceAndOverlapsGo) {
    std::vector<Block> blocks;
    AudioEncoder encoder(44100, 96000, [&blocks](Block block) { blocks.push_back(block); });
    const std::vector<float> tone(44100, 0.5F);
    const float* const channels[2] = {tone.data(), tone.data()};
    encoder.Encode(-500, channels, 44100);  // half of it lies before the film
    encoder.Encode(490, channels, 22050);   // close enough to where the last one ended
    encoder.Encode(2500, channels, 22050);  // a hole of a second and a half
    encoder.Encode(2000, channels, 44100);  // nothing new
    encoder.Encode(2800, channels, 22050);  // 300 ms of it are new
    encoder.Finish(4000);
    int64_t next = 0;
    for (const Block& block : blocks) {
        EXPECT_EQ(block.timeMs, next);
        next = block.timeMs + block.durationMs;
    }
    EXPECT_GE(next, 4000);
    EXPECT_LT(next, 4050);
    EXPECT_EQ(encoder.Configuration().at(0), 0x12);
    EXPECT_EQ(encoder.Configuration().at(1), 0x10);
}

}  // namespace
}  // namespace opal::package
