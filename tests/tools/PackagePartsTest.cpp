// What of the packager works without media: ladder, subtitles, access units, time code, sidecar,
// and the writer of media files.
#include <gmock/gmock.h>

#include <sstream>

#include "PackageSupport.h"
#include "opal-package/AvcStream.h"
#include "opal-package/Ladder.h"
#include "opal-package/Presentation.h"
#include "opal-package/SubRip.h"
#include "opal-package/TextDecoder.h"
#include "support/TemporaryDirectory.h"

namespace opal::package {

namespace {

using test::FailureOf;
using testing::ElementsAre;
using testing::HasSubstr;
using Bytes = std::vector<uint8_t>;

TEST(Ladder, IsCutToTheSource) {
    for (int width = 16; width < 2000; width += 61) {
        for (int height = 16; height < 1200; height += 47) {
            int last = 0;
            for (const Rung& rung : DefaultLadder(width, height, 25)) {
                EXPECT_EQ(rung.width % 2 + rung.height % 2, 0);
                EXPECT_LE(rung.height, height);
                EXPECT_GE(std::min(rung.width, rung.height), 16);
                EXPECT_GT(rung.bitrate, last);
                last = rung.bitrate;
            }
        }
    }
    EXPECT_THAT(
        CutToSource(ParseLadder("1.5M:1280x720,300k:320x180,900000:640x360"), 640, 361),
        ElementsAre(Rung{300000, 320, 180}, Rung{900000, 640, 360}, Rung{1500000, 638, 360}));
    std::string message;
    for (const char* wrong : {"", "500k:640", "500k:640x361", "0:640x360", "500kk:640x360",
                              "1e12:640x360", "500k:640x99999", "500k:8x8", "500k:640x360x2"}) {
        const std::string text = std::string("1M:1280x720,") + wrong;
        EXPECT_EQ(FailureOf([&text] { ParseLadder(text); }, message), Failure::Usage) << text;
    }
    EXPECT_THAT(message, HasSubstr("500k:640x360x2"));
}

TEST(SubRip, TakesWhatIsFoundInTheWildAndRefusesWithTheLine) {
    std::ostringstream seen;
    for (const auto& text :
         ParseSubRip("\xEF\xBB\xBF"
                     "2\r\n00:00:05,000 --> 00:00:06,500 X1:20\r\n<i>Later</i>\r\n\r\n\r\n"
                     "1\r\n00:00:01.250 --> 00:00:02.000\r\n{\\an8}a < b\r\n12\r\n\r\n"
                     "3\n01:02:03,004 --> 01:02:04,000\n<font color=\"red\">Gr\xC3\xBCn</font>",
                     "a.srt"))
        seen << text.startMs << "-" << text.endMs << " " << text.text << "|";
    EXPECT_EQ(seen.str(), "1250-2000 a < b\n12|5000-6500 Later|3723004-3724000 Gr\xC3\xBCn|");

    const std::string good = "1\n00:00:01,000 --> 00:00:02,000\n";
    const std::map<std::string, std::string> wrong{
        {"", "film.srt"},
        {"1\n00:00:02,000 --> 00:00:01,000\nbackwards\n", "film.srt:2:"},
        {good + "good\n\n2\nWEBVTT\n", "film.srt:6:"},
        {good + "caf\xE9\n", "iconv"},
        {good + "\xF0\x9F\x98", "iconv"},
    };
    for (const auto& row : wrong) {
        std::string message;
        const auto parse = [&row] { ParseSubRip(row.first, "film.srt"); };
        EXPECT_EQ(FailureOf(parse, message), Failure::Refused) << row.first;
        EXPECT_THAT(message, HasSubstr(row.second));
    }
}

TEST(TextDecoder, MarkupOfDialogueLinesGoes) {
    const std::pair<const char*, const char*> rows[] = {
        {"0,0,Default,,0,0,0,,a, b\\Nc\\hd\\ne", "a, b\nc d\ne"},
        {"0,0,Default,,0,0,0,,{\\i1}x{\\i0} \\{y\\} \\\\ {z", "x {y} \\ {z"},
        {"0,0,,,0,0,0,,{\\an7\\p1}m 0 0 l 9 9{\\p0}text{\\pos(1,2)}\\N", "text"},
        {"0,0,Default,,0,0,0", ""},
        {"0,0,,,0,0,0,,\\", "\\"},
    };
    for (const auto& [dialogue, text] : rows)
        EXPECT_EQ(PlainText(dialogue, true), text);
    EXPECT_EQ(PlainText("0,0,,,0,0,0,,a {b}", true), "a");
    EXPECT_EQ(PlainText("0,0,,,0,0,0,,a {b}{\\i1}", false), "a {b}");
}

TEST(AvcStream, CutUnitsAndConfigurationsAreRefused) {
    const Bytes whole = {0, 2, 0x65, 1, 0, 1, 0x41};
    for (size_t cut = 0; cut <= whole.size(); ++cut) {
        const Bytes part(whole.data(), whole.data() + cut);
        std::vector<NalUnit> units;
        EXPECT_EQ(SplitLengthPrefixed(part.data(), cut, 2, units), cut == 4 || cut == 7) << cut;
    }
    const Bytes record = MakeConfiguration({{{0x67, 66, 0, 31, 5}}, {{0x68, 1}, {0x68, 2, 3}}});
    for (size_t cut = 0; cut <= record.size(); ++cut) {
        const Bytes part(record.data(), record.data() + cut);
        ParameterSets read;
        unsigned lengthSize = 0;
        EXPECT_EQ(ParseConfiguration(part.data(), cut, read, lengthSize), cut == record.size());
    }
}

TEST(Presentation, OddNamesAndDamagedSidecars) {
    Presentation presentation;
    presentation.entries.resize(1);
    presentation.entries[0].file = "a&b \"1\".mkv";
    EXPECT_THAT(ManifestText(presentation, "http://h/"),
                HasSubstr("src=\"http://h/a&amp;b &quot;1&quot;.mkv\""));
    const test::TemporaryDirectory folder;
    std::string message;
    const auto rewrite = [&folder] { RewriteManifest(folder.Path(), "http://h"); };
    EXPECT_EQ(FailureOf(rewrite, message), Failure::InputOutput);
    for (const char* text : {"", "{", "[]", "{\"duration_ms\":1}", "{\"files\":[{\"kind\":\"x\"}]}",
                             "{\"duration_ms\":1,\"files\":[{\"kind\":\"fish\"}]}"}) {
        folder.Write(kSidecarName, text);
        EXPECT_EQ(FailureOf(rewrite, message), Failure::Refused) << text;
        EXPECT_THAT(message, HasSubstr(kSidecarName));
    }
}

BuiltFile Build(const std::vector<Cluster>& clusters) {
    TrackDescription track;
    track.codecId = "V_MPEG4/ISO/AVC";
    return BuildFile(track, clusters, 100000);
}

// Lengths around those where the size field or a value grows by a byte, and where all bits of a
// size would be set, which would mean "unknown"; times at both ends of their sixteen bits.
TEST(MatroskaWriter, SizesAndValuesAtTheirBorders) {
    std::vector<Cluster> clusters = {
        {0, {}}, {40000, {{40000 + 32767, 0, true, {1}}, {40000 - 32768, 0, false, {2}}}}};
    for (size_t size :
         {118u, 122u, 123u, 124u, 126u, 127u, 128u, 16376u, 16378u, 16379u, 16384u, 2097151u}) {
        const int64_t time = clusters.back().timeMs + 2000;
        clusters.push_back({time, {{time, 0, true, Bytes(size, 0xA5)}}});
    }
    for (int64_t duration : {1, 127, 128, 200, 255, 256, 32767, 32768, 65535, 8388608}) {
        const int64_t time = clusters.back().timeMs + 2000;
        clusters.push_back({time, {{time, duration, true, {7}}}});
    }
    const BuiltFile file = Build(clusters);
    const test::LibraryView view(file.bytes, file.layout.headerSize);
    ASSERT_EQ(view.clusters.size(), clusters.size());
    for (size_t i = 0; i < clusters.size(); ++i) {
        EXPECT_EQ(view.clusters[i].timeMs, clusters[i].timeMs);
        ASSERT_EQ(view.clusters[i].blocks, clusters[i].blocks) << i;
        if (!clusters[i].blocks.empty()) {
            EXPECT_EQ(view.clusters[i].blocks[0].durationMs, clusters[i].blocks[0].durationMs)
                << "a duration is read as a signed number and must stay positive";
        }
    }
}

TEST(MatroskaWriter, RefusesWhatTheFormatCannotHold) {
    const std::vector<Cluster> rows[] = {
        {{0, {{32768, 0, true, {1}}}}}, {{40000, {{7231, 0, true, {1}}}}},
        {{0, {{0, 0, true, {}}}}},      {{-1, {{0, 0, true, {1}}}}},
        {{2000, {}}, {2000, {}}},
    };
    for (const auto& clusters : rows)
        EXPECT_THROW(Build(clusters), std::invalid_argument) << &clusters - rows;
}

TEST(MatroskaWriter, AFullDiskIsReported) {
    std::ofstream full("/dev/full");
    const auto write = [&full] {
        MatroskaWriter writer(full, {});
        writer.WriteCluster({0, {{0, 0, true, Bytes(300)}}});
        writer.Finish(6000);
    };
    EXPECT_THROW(write(), std::runtime_error);
}

}  // namespace
}  // namespace opal::package
