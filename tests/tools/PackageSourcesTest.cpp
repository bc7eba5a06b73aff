// Films as they come out of telephones, recorders and screen grabbers, and the folder that is made
// of them.
#include <gmock/gmock.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <numeric>

#include "PackageSupport.h"
#include "SourceMaker.h"
#include "opal-package/OutputFolder.h"
#include "opal-package/Packager.h"
#include "support/TemporaryDirectory.h"

namespace opal::package {
namespace {

using test::FailureOf;
using test::Fill;
using test::LibavView;
using test::OddSource;
using testing::AllOf;
using testing::Contains;
using testing::ElementsAre;
using testing::HasSubstr;

class OddFilm : public testing::Test {
  protected:
    OddFilm() {
        av_log_set_level(AV_LOG_QUIET);
        m_options.folder = m_folder.File("out");
        m_options.preset = "ultrafast";
        m_options.trickIntervalMs = 0;
        m_source.paint = [](AVFrame& picture, size_t) { Fill(picture, 100, 128, 128); };
        m_source.timesMs = Times(10);
    }

    static std::vector<int64_t> Times(size_t count) {
        std::vector<int64_t> times(count);
        for (size_t i = 0; i < count; ++i)
            times[i] = static_cast<int64_t>(i) * 40;
        return times;
    }

    Presentation Make(const std::string& ending = ".mkv") {
        m_options.input = test::SourceMaker::Make(m_source, m_folder.File("source" + ending));
        if (m_options.ladder.empty() && !m_options.copy)
            m_options.ladder = {{400000, m_source.width, m_source.height}};
        return Package(m_options, Events());
    }

    PackageEvents Events() {
        PackageEvents events;
        events.note = [this](const std::string& text) { m_notes.push_back(text); };
        return events;
    }

    LibavView Level(const Presentation& made, size_t number = 0) const {
        return LibavView(m_options.folder + "/" + made.entries[number].file);
    }

    std::vector<std::string> Files() const {
        std::vector<std::string> names;
        for (const auto& file : std::filesystem::directory_iterator(m_options.folder))
            names.push_back(file.path().filename().string());
        std::sort(names.begin(), names.end());
        return names;
    }

    test::TemporaryDirectory m_folder;
    PackageOptions m_options;
    OddSource m_source;
    std::vector<std::string> m_notes;
};

// Where a corner ends up is what the matrix makes of it, whatever the filters are called.
TEST_F(OddFilm, TurnedAndMirroredPicturesAreSetUpright) {
    m_source.paint = [](AVFrame& picture, size_t) {
        Fill(picture, 40, 128, 128);
        for (int y = 0; y < picture.height; ++y)
            for (int x = 0; x < picture.width; ++x)
                picture.data[0][y * picture.linesize[0] + x] = static_cast<uint8_t>(
                    40 + (x >= picture.width / 2 ? 50 : 0) + (y >= picture.height / 2 ? 100 : 0));
    };
    const std::vector<int32_t> matrices[] = {{0, 1, -1, 0}, {-1, 0, 0, -1}, {0, -1, 1, 0},
                                             {-1, 0, 0, 1}, {0, 1, 1, 0},   {0, -1, -1, 0}};
    for (const auto& matrix : matrices) {
        SCOPED_TRACE(testing::PrintToString(matrix));
        m_source.matrix = matrix;
        m_options.ladder = {{400000, 1000, 1000}};  // larger than the source, which is taken
        const Presentation made = Make(".mp4");
        const bool sideways = matrix[0] == 0;
        EXPECT_EQ(made.entries[0].width, sideways ? 96 : 128);
        EXPECT_EQ(made.entries[0].height, sideways ? 128 : 96);
        Level(made).Decode([&](const AVFrame& frame) {
            for (const int sx : {-1, 1}) {
                for (const int sy : {-1, 1}) {
                    const int x = matrix[0] * sx + matrix[2] * sy;
                    const int y = matrix[1] * sx + matrix[3] * sy;
                    const int column = frame.width / 2 + x * frame.width / 4;
                    const int row = frame.height / 2 + y * frame.height / 4;
                    EXPECT_NEAR(frame.data[0][row * frame.linesize[0] + column],
                                40 + (sx > 0 ? 50 : 0) + (sy > 0 ? 100 : 0), 6);
                }
            }
        });
    }
    m_options.copy = true;
    m_options.ladder.clear();
    std::string message;
    EXPECT_EQ(FailureOf([this] { Make(".mp4"); }, message), Failure::Refused);
    EXPECT_THAT(message, HasSubstr("turned"));
}

// The same green, however it was coded, is the same numbers in every level, and file and bit stream
// say which.
TEST_F(OddFilm, ColourIsConvertedAndDescribed) {
    struct Row {
        const char* name;
        AVPixelFormat format;
        Colour colour;
        int y, cb, cr;
        int expectedY, expectedCb, expectedCr, tolerance;
    };
    const Colour unknown = {AVCOL_PRI_UNSPECIFIED, AVCOL_TRC_UNSPECIFIED, AVCOL_SPC_UNSPECIFIED,
                            AVCOL_RANGE_UNSPECIFIED};
    Colour full;
    full.range = AVCOL_RANGE_JPEG;
    const Colour pq = {AVCOL_PRI_BT2020, AVCOL_TRC_SMPTE2084, AVCOL_SPC_BT2020_NCL,
                       AVCOL_RANGE_MPEG};
    Colour hlg = pq;
    hlg.transfer = AVCOL_TRC_ARIB_STD_B67;
    const Row rows[] = {
        {"BT.601, unsaid", AV_PIX_FMT_YUV420P, unknown, 145, 54, 34, 173, 42, 26, 3},
        {"BT.709", AV_PIX_FMT_YUV420P, {}, 173, 42, 26, 173, 42, 26, 2},
        {"full range", AV_PIX_FMT_YUV420P, full, 182, 30, 12, 173, 42, 26, 3},
        // A grey of 100 cd/m2 and one of 1000, which is the brightest there is.
        {"PQ, middle", AV_PIX_FMT_YUV420P10, pq, 509, 512, 512, 201, 128, 128, 4},
        {"PQ, peak", AV_PIX_FMT_YUV420P10, pq, 723, 512, 512, 235, 128, 128, 12},
        {"HLG, peak", AV_PIX_FMT_YUV420P10, hlg, 940, 512, 512, 235, 128, 128, 20},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.name);
        m_source.format = row.format;
        m_source.paint = [&row](AVFrame& picture, size_t) { Fill(picture, row.y, row.cb, row.cr); };
        m_source.describe = [&row](AVCodecContext& encoder) {
            encoder.color_primaries = row.colour.primaries;
            encoder.color_trc = row.colour.transfer;
            encoder.colorspace = row.colour.matrix;
            encoder.color_range = row.colour.range;
        };
        m_options.ladder = {{200000, 64, 48}, {400000, 128, 96}};
        const Presentation made = Make();
        for (size_t level = 0; level < 2; ++level) {
            LibavView view = Level(made, level);
            AVCodecParameters& said = *view.context->streams[0]->codecpar;
            EXPECT_EQ(said.color_space, AVCOL_SPC_BT709);
            EXPECT_EQ(said.color_range, AVCOL_RANGE_MPEG);
            said.color_space = AVCOL_SPC_UNSPECIFIED;  // the bit stream says it by itself
            said.color_range = AVCOL_RANGE_UNSPECIFIED;
            view.Decode([&row](const AVFrame& frame) {
                EXPECT_EQ(frame.colorspace, AVCOL_SPC_BT709);
                EXPECT_EQ(frame.color_range, AVCOL_RANGE_MPEG);
                EXPECT_NEAR(frame.data[0][0], row.expectedY, row.tolerance);
                EXPECT_NEAR(frame.data[1][0], row.expectedCb, row.tolerance);
                EXPECT_NEAR(frame.data[2][0], row.expectedCr, row.tolerance);
            });
        }
    }
    EXPECT_THAT(m_notes, Contains(HasSubstr("high dynamic range")));
    m_source.format = AV_PIX_FMT_YUV444P10;
    m_source.width = 127;
    m_source.height = 95;
    m_source.paint = [](AVFrame& picture, size_t) {
        for (int plane = 0; plane < 3; ++plane)
            std::memset(picture.data[plane], 0,
                        static_cast<size_t>(picture.linesize[plane] * picture.height));
    };
    EXPECT_EQ(Make().entries.size(), 3u) << "odd sizes";
}

/// How far lines stand out from their neighbours.
int64_t Combing(const AVFrame& frame) {
    int64_t sum = 0;
    for (int row = 1; row + 1 < frame.height; ++row) {
        const uint8_t* line = frame.data[0] + row * frame.linesize[0];
        for (int x = 0; x < frame.width; ++x) {
            const int between = (line[x - frame.linesize[0]] + line[x + frame.linesize[0]]) / 2;
            sum += std::abs(line[x] - between);
        }
    }
    return sum;
}

TEST_F(OddFilm, InterlacedPicturesAreDeinterlaced) {
    m_source.interlaced = true;
    int64_t source = 0;
    m_source.paint = [&source](AVFrame& picture, size_t number) {
        Fill(picture, 40, 128, 128);
        for (int row = 0; row < picture.height; ++row) {
            const size_t left = 4 * (2 * number + static_cast<size_t>(row % 2));
            std::memset(picture.data[0] + row * picture.linesize[0] + left, 200, 24);
        }
        source += Combing(picture);
    };
    int64_t shown = 0;
    size_t pictures = 0;
    Level(Make()).Decode([&](const AVFrame& frame) {
        shown += Combing(frame);
        ++pictures;
    });
    EXPECT_EQ(pictures, m_source.timesMs.size());
    EXPECT_LT(shown, source / 3);
}

// A slide show: pictures at 0, 1.3 and 5 s, and sound that goes on for three seconds more.
TEST_F(OddFilm, StandingPicturesAreRepeatedToTheEnd) {
    m_source.timesMs = {0, 1300, 5000, 5040};
    m_source.soundEndMs = 8000;
    m_source.paint = [](AVFrame& picture, size_t number) {
        Fill(picture, 40 + 50 * static_cast<int>(number), 128, 128);
    };
    const Presentation made = Make();
    EXPECT_NEAR(static_cast<double>(made.durationMs), 8000, 30);
    int64_t last = 0;
    Level(made).Decode([&](const AVFrame& frame) {
        EXPECT_LE(frame.pts - last, 500);
        last = frame.pts;
        const int number = frame.pts < 1300 ? 0 : frame.pts < 5000 ? 1 : frame.pts < 5040 ? 2 : 3;
        EXPECT_NEAR(frame.data[0][0], 40 + 50 * number, 4) << frame.pts;
    });
    EXPECT_GE(last, 7500);
    EXPECT_THAT(made.entries[0].clusterTimesMs, ElementsAre(0, 2225, 4075, testing::Gt(6000)));
}

// The picture begins at half a second, the sound some milliseconds before it.
TEST_F(OddFilm, SoundThatBeginsFirstIsCutToThePicture) {
    for (int64_t& time : m_source.timesMs = Times(30))
        time += 500;
    m_source.soundBeginMs = 480;
    m_source.soundEndMs = 1700;
    m_source.toneMs = 1000;
    const Presentation made = Make();
    double toneMs = -1;
    Level(made, 1).Decode([&toneMs](const AVFrame& frame) {
        const auto* samples = reinterpret_cast<const float*>(frame.data[0]);
        for (int i = 0; toneMs < 0 && i < frame.nb_samples; ++i)
            if (std::abs(samples[i]) > 0.15F)
                toneMs = static_cast<double>(frame.pts) + i / 48.0;
    });
    EXPECT_NEAR(toneMs, 500, 4);
}

TEST_F(OddFilm, WhatIsLeftOutIsNamed) {
    m_source.timesMs = Times(50);
    m_source.soundEndMs = 4000;
    m_options.copy = true;
    m_options.subtitles = {{m_folder.Write("a.srt",
                                           "1\n00:00:01,000 --> 00:00:02,000\na\n\n"
                                           "2\n01:00:00,000 --> 01:00:01,000\nlate\n"),
                            "eng"}};
    m_source.describe = [](AVCodecContext& encoder) { encoder.sample_aspect_ratio = {2, 1}; };
    Presentation made = Make();
    EXPECT_THAT(m_notes, AllOf(Contains(HasSubstr(" ms of sound behind the last picture")),
                               Contains(HasSubstr("1 texts behind the film's end"))));
    const LibavView sound = Level(made, 1);
    EXPECT_LT(sound.blocks.back().timeMs, 2000);
    // A copy cannot be scaled to square pixels; its file says how wide it is to be shown.
    const std::string level = m_options.folder + "/" + made.entries[0].file;
    std::ifstream file(level, std::ios::binary);
    const std::string bytes{std::istreambuf_iterator<char>(file), {}};
    EXPECT_THAT(bytes, AllOf(HasSubstr(std::string("\x54\xB0\x82\x01\x00", 5)),
                             HasSubstr(std::string("\x54\xBA\x81\x60", 4))));

    std::ifstream whole(m_options.input, std::ios::binary);
    std::string broken{std::istreambuf_iterator<char>(whole), {}};
    const std::string codec = "A_PCM/INT/LIT";
    broken.replace(broken.find(codec), codec.size(), "A_NONE/KNOWN.");
    m_options.input = m_folder.Write("broken.mkv", broken);
    made = Package(m_options, Events());
    EXPECT_THAT(m_notes, Contains(HasSubstr("audio stream 1 (und, none) is left out")));
}

TEST_F(OddFilm, TextsOfFilesAndOfTheFilmBecomeTracksWithAFont) {
    for (int64_t& time : m_source.timesMs = Times(100))
        time += 300;
    m_source.texts = {{100, 200, "before the film"},
                      {200, 1300, "<b>Gr\u00FCn</b> & {braces}"},
                      {2800, 3000, "two"},
                      {2800, 3100, "at once"}};
    m_options.subtitles = {
        {m_folder.Write("a.vtt",
                        "WEBVTT\n\nNOTE none\n\n00:01.500 --> 00:02.000 align:start\n"
                        "<v Roger>Fish &amp; chips\n- \u041C\u0438\u0440\n"),
         "eng"}};
    const Presentation made = Make();
    const auto texts = [&](size_t file) {
        const LibavView view = Level(made, file);
        std::ostringstream seen;
        for (const Block& block : view.blocks)
            seen << block.timeMs << "+" << block.durationMs << " "
                 << std::string(block.data.begin(), block.data.end()) << "|";
        const AVStream& font = *view.context->streams[1];
        EXPECT_EQ(font.codecpar->codec_id, AV_CODEC_ID_TTF);
        EXPECT_LT(made.entries[file].headerRequest, kLongestSubtitleHeader);
        return made.entries[file].language + ": " + seen.str();
    };
    EXPECT_EQ(texts(2), "eng: 1500+500 Fish & chips\n- \u041C\u0438\u0440|");
    EXPECT_EQ(texts(3), "deu: 0+1000 Gr\u00FCn & {braces}|2500+300 two\nat once|");

    std::string message;
    for (const char* content :
         {"WEBVTT\n\n", "no texts", "", "WEBVTT\n\n00:01.500 --> 00:02.000\ncaf\xE9\n"}) {
        m_options.subtitles[0].file = m_folder.Write("bad.vtt", content);
        EXPECT_EQ(FailureOf([&] { Package(m_options); }, message), Failure::Refused) << content;
        EXPECT_THAT(message, HasSubstr("bad.vtt"));
    }
    EXPECT_THAT(message, HasSubstr("iconv"));
}

TEST_F(OddFilm, TheFolderChangesOnlyWhenAllIsWhole) {
    m_options.ladder = {{100000, 64, 48}, {400000, 128, 96}};
    m_options.golden = true;
    Make();
    m_options.golden = false;
    const auto first = Files();
    const auto Write = [](const std::string& path) { std::ofstream(path) << "mine"; };
    Write(m_options.folder + "/notes.txt");

    // A run that fails, one that is stopped, one beside another, one that would read what it
    // writes.
    std::string message;
    PackageOptions bad = m_options;
    bad.preset = "warp";
    EXPECT_EQ(FailureOf([&] { Package(bad); }, message), Failure::InputOutput);
    PackageEvents stop;
    stop.stopped = [] { return true; };
    EXPECT_EQ(FailureOf([&] { Package(m_options, stop); }, message), Failure::Stopped);
    {
        OutputFolder other(m_options.folder);
        other.Begin();
        EXPECT_EQ(FailureOf([&] { Package(m_options); }, message), Failure::InputOutput);
        EXPECT_THAT(message, HasSubstr("another"));
    }
    bad = m_options;
    bad.input = m_options.folder + "/" + first[1];
    EXPECT_EQ(FailureOf([&] { Package(bad); }, message), Failure::Usage);
    EXPECT_EQ(Files().size(), first.size() + 1);
    EXPECT_FALSE(std::filesystem::exists(m_options.folder + ".part"));

    // A folder left behind by a killed run is used again, one of somebody else's is not.
    std::filesystem::create_directory(m_options.folder + ".part");
    Write(m_options.folder + ".part/thesis.tex");
    EXPECT_EQ(FailureOf([&] { Package(m_options); }, message), Failure::InputOutput);
    EXPECT_THAT(message, HasSubstr("thesis.tex"));
    std::filesystem::rename(m_options.folder + ".part/thesis.tex",
                            m_options.folder + ".part/level7.mkv");
    m_options.ladder = {{100000, 64, 48}};
    Package(m_options);
    EXPECT_THAT(Files(), ElementsAre("audio0-und.mka", "level0-48p-100k.mkv", "notes.txt",
                                     "presentation.json", "presentation.smil"));

    const auto rewrite = [this] { RewriteManifest(m_options.folder, "http://h"); };
    rewrite();
    std::filesystem::resize_file(m_options.folder + "/level0-48p-100k.mkv", 500);
    EXPECT_EQ(FailureOf(rewrite, message), Failure::InputOutput);
    EXPECT_THAT(message, HasSubstr("level0-48p-100k.mkv"));
}

}  // namespace
}  // namespace opal::package
