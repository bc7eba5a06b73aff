// A presentation of the test film, made once, is read back with libavformat, libavcodec and the
// library itself.
#include <gtest/gtest.h>

#include <cmath>
#include <filesystem>
#include <map>
#include <random>
#include <sstream>

#include "PackageSupport.h"
#include "opal-package/AvcStream.h"
#include "opal-package/Dump.h"
#include "opal-package/Error.h"
#include "opal-package/Packager.h"
#include "opal-package/TimeCode.h"
#include "support/TemporaryDirectory.h"

namespace opal::package {
namespace {

using test::LibavView;
using test::LibraryView;

constexpr const char* kSubRip =
    "1\n00:00:00,500 --> 00:00:01,500\nfirst\n\n2\n00:00:06,000 --> 00:00:06,900\nsecond\n";

class PackagedFilm : public testing::Test {
  protected:
    /// 7.3 s at 24 frames a second, whose frames do not fall on whole milliseconds.
    static void SetUpTestSuite() {
        s_folder = new test::TemporaryDirectory;
        PackageOptions options;
        options.folder = s_folder->File("film");
        options.testFilm.durationMs = 7300;
        options.testFilm.framesPerSecond = 24;
        options.ladder = ParseLadder("100k:160x90,300k:320x180");
        options.baseUrl = "http://origin/film";
        options.subtitles = {{s_folder->Write("a.srt", kSubRip), "eng"}};
        options.font = s_folder->Write("font.ttf", std::string("\0\1\0\0", 4) + "no outlines");
        PackageEvents events;
        events.progress = [](int64_t done, int64_t) { s_progress.push_back(done); };
        s_presentation = Package(options, events);
    }

    static void TearDownTestSuite() {
        delete s_folder;
        s_folder = nullptr;
        s_progress.clear();
    }

    static std::string PathOf(const Entry& entry) { return s_folder->File("film/" + entry.file); }

    static std::vector<Entry> EntriesOf(EntryKind kind) {
        std::vector<Entry> entries;
        for (const Entry& entry : s_presentation.entries) {
            if (entry.kind == kind) {
                entries.push_back(entry);
            }
        }
        return entries;
    }

    static LibraryView ViewOf(const Entry& entry) {
        return LibraryView(test::ReadBytes(PathOf(entry)), entry.headerRequest);
    }

    static test::TemporaryDirectory* s_folder;
    static Presentation s_presentation;
    static std::vector<int64_t> s_progress;
};

test::TemporaryDirectory* PackagedFilm::s_folder = nullptr;
Presentation PackagedFilm::s_presentation;
std::vector<int64_t> PackagedFilm::s_progress;

TEST_F(PackagedFilm, LibraryAndLibavformatSeeTheSameBlocksInEveryFile) {
    ASSERT_EQ(s_presentation.entries.size(), 6u);
    for (const Entry& entry : s_presentation.entries) {
        SCOPED_TRACE(entry.file);
        const auto bytes = test::ReadBytes(PathOf(entry));
        LibraryView view(bytes, entry.headerRequest);
        const auto blocks = view.Blocks();
        LibavView libav(PathOf(entry));
        ASSERT_EQ(libav.blocks.size(), blocks.size());
        EXPECT_EQ(libav.blocks, blocks);
        EXPECT_FALSE(blocks.empty());
        EXPECT_EQ(libav.context->duration, 7300 * (AV_TIME_BASE / 1000));
        // The header request reaches exactly to the first cluster.
        EXPECT_EQ(static_cast<uint64_t>(view.index->GetOffset(0)), entry.headerRequest);
        EXPECT_EQ(bytes[entry.headerRequest], 0x1F);
        ASSERT_EQ(view.index->GetCount(), entry.clusterSizes.size());
        for (size_t i = 0; i < entry.clusterSizes.size(); ++i) {
            EXPECT_EQ(static_cast<uint64_t>(view.index->GetSize(i)), entry.clusterSizes[i]);
            EXPECT_EQ(view.index->GetTime(i), entry.clusterTimesMs[i]);
        }
    }
}

TEST_F(PackagedFilm, LevelsAreCutAlikeAndEachClusterStandsAlone) {
    for (const Entry& level : EntriesOf(EntryKind::Level)) {
        SCOPED_TRACE(level.file);
        EXPECT_EQ(level.clusterTimesMs, (std::vector<int64_t>{0, 2000, 4000, 6000}));
        std::vector<int64_t> times;
        for (const auto& cluster : ViewOf(level).clusters) {
            EXPECT_TRUE(cluster.front().key);
            for (const auto& block : cluster) {
                times.push_back(block.timeMs);
                EXPECT_GE(block.timeMs, cluster.front().timeMs) << "no picture ahead of its key";
                std::vector<NalUnit> units;
                ASSERT_TRUE(SplitLengthPrefixed(block.data.data(), block.data.size(), 4, units));
                ParameterSets sets;
                CollectParameterSets(units, sets);
                EXPECT_EQ(!sets.sps.empty() && !sets.pps.empty(), block.key);
            }
        }
        std::sort(times.begin(), times.end());
        ASSERT_EQ(times.size(), 176u);
        for (size_t i = 0; i < times.size(); ++i) {
            EXPECT_EQ(times[i], static_cast<int64_t>(i) * 1000 / 24);
        }
        EXPECT_LE(level.bitrate * 7.3 / 8 * 1.2, level.bitrate * 7.3 / 8 + level.vbvBits / 8.0)
            << "the buffer allows for what the next line tests";
        uint64_t bytes = 0;
        for (uint64_t size : level.clusterSizes) {
            bytes += size;
        }
        EXPECT_LE(static_cast<double>(bytes), level.bitrate * 7.3 / 8 + level.vbvBits / 8.0);
    }
}

TEST_F(PackagedFilm, PicturesShowTheirTimeAndLevel) {
    unsigned number = 0;
    for (const Entry& level : EntriesOf(EntryKind::Level)) {
        SCOPED_TRACE(level.file);
        int pictures = 0;
        LibavView(PathOf(level)).Decode([&](const AVFrame& frame) {
            TimeCode code;
            ASSERT_EQ(frame.width, level.width);
            ASSERT_TRUE(
                ReadTimeCode(frame.data[0], frame.linesize[0], 1, frame.width, frame.height, code));
            EXPECT_EQ(code.timeMs, frame.pts);
            EXPECT_EQ(code.level, number);
            ++pictures;
        });
        EXPECT_EQ(pictures, 176);
        ++number;
    }
}

TEST_F(PackagedFilm, TrickTrackIsAnEvenGridOfKeyFrames) {
    const Entry trick = EntriesOf(EntryKind::Trick).at(0);
    LibraryView view = ViewOf(trick);
    EXPECT_EQ(trick.clusterTimesMs, (std::vector<int64_t>{0, 6000}));
    int64_t frameDuration = 0;
    ASSERT_EQ(view.header.GetDefaultDuration(frameDuration), OPAL_OK);
    // What a reader takes for the number of frames in a cluster must be the number there is.
    EXPECT_EQ((view.index->GetTime(1) - view.index->GetTime(0)) * 1000000 / frameDuration, 12);
    ASSERT_EQ(view.index->GetFrameCount(0), 12u);
    EXPECT_EQ(view.index->GetFrameCount(1), 3u);
    EXPECT_GT(view.index->GetHeaderSize(0), 0u);
    int64_t time = 0;
    for (const auto& block : view.Blocks()) {
        EXPECT_TRUE(block.key);
        EXPECT_EQ(block.timeMs, time);
        time += 500;
    }
    // Each frame can be decoded without the others, as a jump leaves them out.
    LibavView libav(PathOf(trick));
    libav.blocks = {libav.blocks[9], libav.blocks[3]};
    std::vector<uint32_t> seen;
    libav.Decode([&seen](const AVFrame& frame) {
        TimeCode code;
        if (ReadTimeCode(frame.data[0], frame.linesize[0], 1, frame.width, frame.height, code)) {
            EXPECT_EQ(code.level, kTrickLevel);
            seen.push_back(code.timeMs);
        }
    });
    std::sort(seen.begin(), seen.end());
    EXPECT_EQ(seen, (std::vector<uint32_t>{1500, 4500}));
}

TEST_F(PackagedFilm, AudioTracksAreGaplessAndSoundDifferent) {
    std::map<std::string, int> crossings;
    for (const Entry& track : EntriesOf(EntryKind::Audio)) {
        SCOPED_TRACE(track.file);
        LibraryView view = ViewOf(track);
        AudioStreamInfo info;
        ASSERT_EQ(view.header.GetAudioInfo(info), OPAL_OK);
        EXPECT_EQ(info.codecID, "A_AAC");
        EXPECT_EQ(info.samplingFrequency, 48000);
        EXPECT_EQ(info.channels, 2u);
        int64_t next = 0;
        for (const auto& block : view.Blocks()) {
            EXPECT_EQ(block.timeMs, next);
            next = block.timeMs + block.durationMs;
        }
        EXPECT_GE(next, 7300);
        EXPECT_LE(next, 7300 + 2 * 22);
        ASSERT_EQ(view.clusters.size(), 4u);
        for (size_t i = 1; i < view.clusters.size(); ++i) {
            const int64_t start = view.index->GetTime(i);
            EXPECT_EQ(start, view.clusters[i].front().timeMs);
            EXPECT_GE(start, static_cast<int64_t>(i) * 2000);
            EXPECT_LT(start, static_cast<int64_t>(i) * 2000 + 22);
        }
        int& count = crossings[track.language];
        float last = 0;
        LibavView(PathOf(track)).Decode([&](const AVFrame& frame) {
            const auto* samples = reinterpret_cast<const float*>(frame.data[0]);
            for (int i = 0; i < frame.nb_samples && frame.pts < 7000; ++i) {
                count += last < -0.05F && samples[i] >= -0.05F ? 1 : 0;
                last = samples[i];
            }
        });
    }
    // Seven seconds, each with 0.9 s of tone.
    EXPECT_NEAR(crossings["eng"], 7 * 0.9 * TestTone(0), 30);
    EXPECT_NEAR(crossings["ger"], 7 * 0.9 * TestTone(1), 30);
}

TEST_F(PackagedFilm, SubtitlesComeWithTheirFontInTheHeader) {
    const Entry text = EntriesOf(EntryKind::Subtitle).at(0);
    LibraryView view = ViewOf(text);
    ASSERT_EQ(view.clusters.size(), 4u);
    const auto blocks = view.Blocks();
    ASSERT_EQ(blocks.size(), 2u);
    EXPECT_EQ(blocks[1].timeMs, 6000);
    EXPECT_EQ(blocks[1].durationMs, 900);
    EXPECT_EQ(std::string(blocks[1].data.begin(), blocks[1].data.end()), "second");
    std::string name;
    EXPECT_EQ(view.header.GetFontName(name), OPAL_OK);
    EXPECT_EQ(name, "font.ttf");
}

TEST_F(PackagedFilm, ManifestAndSidecarAgreeWithTheFiles) {
    const auto read = [](const char* name) {
        const auto bytes = test::ReadBytes(s_folder->File(std::string("film/") + name));
        return std::string(bytes.begin(), bytes.end());
    };
    EXPECT_EQ(read(kSidecarName), SidecarText(s_presentation));
    EXPECT_EQ(read(kManifestName), ManifestText(s_presentation, "http://origin/film"));
    EXPECT_EQ(s_presentation.durationMs, 7300);
    const auto levels = EntriesOf(EntryKind::Level);
    EXPECT_EQ(levels[1].bitrate, 300000);
    EXPECT_EQ(levels[1].vbvBits, 600000);
    const auto audio = EntriesOf(EntryKind::Audio);
    EXPECT_EQ(audio[0].reservedBandwidth, 128000);
    EXPECT_EQ(audio[1].assetId, 2);
    EXPECT_TRUE(std::is_sorted(s_progress.begin(), s_progress.end()));
    EXPECT_EQ(s_progress.back(), 7300);
}

std::string DumpText(const std::string& path, int expected) {
    std::ostringstream out;
    EXPECT_EQ(Dump(path, out), expected) << path;
    return out.str();
}

TEST_F(PackagedFilm, DumpShowsHeaderIndexAndBlocks) {
    const Entry trick = EntriesOf(EntryKind::Trick).at(0);
    const std::string text = DumpText(PathOf(trick), 0);
    for (const char* part :
         {"CodecID: V_MPEG4/ISO/AVC", "DefaultDuration: 500000000", "Duration: 7300",
          "index: 2 clusters", "12 key frames", "cluster 1: 6000 ms", "block 7000 ms key"}) {
        EXPECT_NE(text.find(part), std::string::npos) << part;
    }
    EXPECT_EQ(text.find("damaged"), std::string::npos);
    for (const Entry& entry : s_presentation.entries) {
        DumpText(PathOf(entry), 0);
    }
}

TEST_F(PackagedFilm, DumpStandsAnyDamage) {
    const auto bytes = test::ReadBytes(PathOf(EntriesOf(EntryKind::Trick).at(0)));
    const std::string whole(bytes.begin(), bytes.end());
    for (size_t cut = 0; cut < whole.size(); cut += cut < 400 ? 1 : 977) {
        const std::string path = s_folder->Write("cut.mkv", whole.substr(0, cut));
        EXPECT_NE(DumpText(path, static_cast<int>(Failure::Damaged)).find("damaged"),
                  std::string::npos)
            << cut;
    }
    // Any byte of header and index, turned over: read to the end or reported, and no more output
    // than a file of this size can give reason for.
    const size_t header = EntriesOf(EntryKind::Trick).at(0).headerRequest + 20;
    std::mt19937 random(1);
    for (size_t at = 0; at < whole.size(); at = at < header ? at + 1 : at + whole.size() / 40) {
        std::string broken = whole;
        broken[at] = static_cast<char>(broken[at] ^ static_cast<char>(1 + random() % 255));
        std::ostringstream out;
        Dump(s_folder->Write("broken.mkv", broken), out);
        EXPECT_LT(out.str().size(), 4 * whole.size()) << at;
    }
    EXPECT_THROW(DumpText(s_folder->File("none.mkv"), 0), PackageError);
}

}  // namespace
}  // namespace opal::package
