// Everything of the packager that works without media: ladder, subtitles, access units, time code,
// manifest and sidecar.
#include <gtest/gtest.h>
#include <tinyxml.h>

#include <cmath>
#include <random>

#include "PackageSupport.h"
#include "opal-package/AvcStream.h"
#include "opal-package/Error.h"
#include "opal-package/Ladder.h"
#include "opal-package/Presentation.h"
#include "opal-package/SubRip.h"
#include "opal-package/TimeCode.h"
#include "support/TemporaryDirectory.h"

namespace opal::package {

std::ostream& operator<<(std::ostream& out, const Rung& rung) {
    return out << rung.bitrate << ":" << rung.width << "x" << rung.height;
}

namespace {

using Bytes = std::vector<uint8_t>;

template <typename Work>
Failure FailureOf(Work work, std::string* text = nullptr) {
    try {
        work();
    } catch (const PackageError& error) {
        if (text != nullptr) {
            *text = error.what();
        }
        return error.GetFailure();
    }
    ADD_FAILURE() << "nothing was thrown";
    return Failure::InputOutput;
}

TEST(Ladder, DefaultIsCutToTheSource) {
    EXPECT_EQ(DefaultLadder(1920, 1080, 25), (std::vector<Rung>{{400000, 426, 240},
                                                                {800000, 640, 360},
                                                                {1400000, 854, 480},
                                                                {2800000, 1280, 720},
                                                                {5000000, 1920, 1080}}));
    EXPECT_EQ(DefaultLadder(3840, 2160, 60), DefaultLadder(1920, 1080, 60));
    EXPECT_EQ(DefaultLadder(854, 480, 24), (std::vector<Rung>{{400000, 428, 240},
                                                              {800000, 640, 360},
                                                              {1400000, 854, 480},
                                                              {2100000, 854, 480},
                                                              {3150000, 854, 480}}));
    // A rate of more than 0.4 bits a pixel is of no use: 320x240 at 25 ends below 768 kbit/s.
    EXPECT_EQ(DefaultLadder(320, 240, 25),
              (std::vector<Rung>{{400000, 320, 240}, {600000, 320, 240}}));
    EXPECT_EQ(DefaultLadder(64, 48, 25), (std::vector<Rung>{{400000, 64, 48}}));
}

TEST(Ladder, AnyShapeGivesEvenSidesWithinTheSource) {
    for (int width = 16; width < 2000; width += 61) {
        for (int height = 16; height < 1200; height += 47) {
            int last = 0;
            for (const Rung& rung : DefaultLadder(width, height, 25)) {
                EXPECT_EQ(rung.width % 2 + rung.height % 2, 0) << rung;
                EXPECT_LE(rung.height, height);
                EXPECT_GE(std::min(rung.width, rung.height), 16) << rung;
                EXPECT_GT(rung.bitrate, last);
                last = rung.bitrate;
            }
        }
    }
}

TEST(Ladder, OwnLadderIsSortedAndCut) {
    const auto ladder = ParseLadder("1.5M:1280x720,300k:320x180,900000:640x360");
    EXPECT_EQ(ladder,
              (std::vector<Rung>{{300000, 320, 180}, {900000, 640, 360}, {1500000, 1280, 720}}));
    EXPECT_EQ(CutToSource(ladder, 640, 361).back(), (Rung{1500000, 638, 360}));
}

TEST(Ladder, MistakesAreNamed) {
    for (const char* text :
         {"", "500k", "500k:640", "500k:640x361", "500k:640x", "k:640x360", "500k:640x360,",
          "0:640x360", "-5k:640x360", "500q:640x360", "500kk:640x360", "nan:640x360",
          "1e12:640x360", "500k:640x99999", "500k:8x8", "500k:640x360x2"}) {
        EXPECT_EQ(FailureOf([text] { ParseLadder(text); }), Failure::Usage) << text;
    }
    std::string message;
    FailureOf([] { ParseLadder("500k:640x360,1M;1280x720"); }, &message);
    EXPECT_NE(message.find("1M;1280x720"), std::string::npos) << message;
}

TEST(SubRip, TakesWhatIsFoundInTheWild) {
    const auto texts = ParseSubRip(
        "\xEF\xBB\xBF"
        "2\r\n00:00:05,000 --> 00:00:06,500 X1:20\r\n<i>Later</i>\r\n\r\n\r\n"
        "1\r\n00:00:01.250 --> 00:00:02.000\r\n{\\an8}a < b\r\n12\r\n\r\n"
        "3\n01:02:03,004 --> 01:02:04,000\n<font color=\"red\">Gr\xC3\xBC\xC3\x9F"
        "e</font>",
        "a.srt");
    ASSERT_EQ(texts.size(), 3u);
    EXPECT_EQ(texts[0].text, "a < b\n12");
    EXPECT_EQ(texts[0].startMs, 1250);
    EXPECT_EQ(texts[1].text, "Later");
    EXPECT_EQ(texts[1].endMs, 6500);
    EXPECT_EQ(texts[2].text,
              "Gr\xC3\xBC\xC3\x9F"
              "e");
    EXPECT_EQ(texts[2].startMs, 3723004);
}

TEST(SubRip, RefusesWithFileAndLine) {
    std::string message;
    const auto refused = [&message](const std::string& content) {
        return FailureOf([&content] { ParseSubRip(content, "film.srt"); }, &message) ==
               Failure::Refused;
    };
    EXPECT_TRUE(refused(""));
    EXPECT_TRUE(refused("1\n00:00:02,000 --> 00:00:01,000\nbackwards\n"));
    EXPECT_TRUE(refused("1\n00:00:01,000 --> 00:00:02,000\ngood\n\n2\nWEBVTT\n"));
    EXPECT_NE(message.find("film.srt:6:"), std::string::npos) << message;
    EXPECT_TRUE(refused("1\n00:00:01,000 --> 00:00:02,000\ncaf\xE9\n"));
    EXPECT_NE(message.find("iconv"), std::string::npos) << message;
    for (const char* cut : {"\xC3", "\xE2\x82", "\xF0\x9F\x98", "\x80", "\xFF"}) {
        EXPECT_TRUE(refused(std::string("1\n00:00:01,000 --> 00:00:02,000\n") + cut)) << cut;
    }
}

TEST(SubRip, ClustersFollowTheGridOfTime) {
    const auto clusters = SubtitleClusters({{1999, 2500, "a"},
                                            {2000, 9000, "b"},
                                            {6100, 6200, "c"},
                                            {6999, 8000, "d"},
                                            {7000, 8000, "e"}},
                                           7000);
    ASSERT_EQ(clusters.size(), 4u);
    EXPECT_EQ(clusters[0].blocks.size(), 1u);
    EXPECT_EQ(clusters[1].blocks.at(0).durationMs, 7000);
    EXPECT_TRUE(clusters[2].blocks.empty());
    EXPECT_EQ(clusters[2].timeMs, 4000);
    EXPECT_EQ(clusters[3].blocks.size(), 2u) << "a text at the end of the film is left out";
}

TEST(AvcStream, AnnexBUnitsOfEitherStartCode) {
    const Bytes stream = {0, 0, 0, 1, 0x67, 1, 0, 0, 3, 0, 0, 1, 0x68, 2, 0, 0, 0, 1, 0x65, 9, 0};
    const auto units = SplitAnnexB(stream.data(), stream.size());
    ASSERT_EQ(units.size(), 3u);
    EXPECT_EQ(units[0], (Bytes{0x67, 1, 0, 0, 3}));
    EXPECT_EQ(units[1], (Bytes{0x68, 2}));
    EXPECT_EQ(units[2], (Bytes{0x65, 9}));
    for (size_t cut = 0; cut <= stream.size(); ++cut) {
        const Bytes part(stream.begin(), stream.begin() + static_cast<long>(cut));
        EXPECT_LE(SplitAnnexB(part.data(), part.size()).size(), 3u);
    }
}

TEST(AvcStream, ConfigurationSurvivesARoundAndNoCut) {
    const ParameterSets sets = {{{0x67, 100, 0, 31, 5}}, {{0x68, 1}, {0x68, 2, 3}}};
    const Bytes record = MakeConfiguration(sets);
    ParameterSets read;
    unsigned lengthSize = 0;
    ASSERT_TRUE(ParseConfiguration(record.data(), record.size(), read, lengthSize));
    EXPECT_EQ(lengthSize, 4u);
    EXPECT_EQ(read.sps, sets.sps);
    EXPECT_EQ(read.pps, sets.pps);
    EXPECT_EQ((Bytes(record.end() - 4, record.end())), (Bytes{0xFD, 0xF8, 0xF8, 0}));
    const size_t whole = record.size() - 4;
    for (size_t cut = 0; cut < whole; ++cut) {
        const Bytes part(record.begin(), record.begin() + static_cast<long>(cut));
        ParameterSets none;
        EXPECT_FALSE(ParseConfiguration(part.data(), part.size(), none, lengthSize)) << cut;
    }
}

TEST(AvcStream, AccessUnitsGetLengthsAndTheirParameterSets) {
    const ParameterSets sets = {{{0x67, 1}}, {{0x68, 2}}};
    const std::vector<NalUnit> picture = {{0x09, 0x10}, {0x65, 1, 2}};
    EXPECT_EQ(MakeAccessUnit(picture, true, sets),
              (Bytes{0, 0, 0, 2, 0x67, 1, 0, 0, 0, 2, 0x68, 2, 0, 0, 0, 3, 0x65, 1, 2}));
    EXPECT_EQ(MakeAccessUnit(picture, false, sets), (Bytes{0, 0, 0, 3, 0x65, 1, 2}));
    const std::vector<NalUnit> complete = {{0x67, 8}, {0x68, 9}, {0x65, 1}};
    EXPECT_EQ(MakeAccessUnit(complete, true, sets),
              (Bytes{0, 0, 0, 2, 0x67, 8, 0, 0, 0, 2, 0x68, 9, 0, 0, 0, 2, 0x65, 1}));
}

TEST(AvcStream, LengthsThatDoNotFitAreRefused) {
    std::vector<NalUnit> units;
    const Bytes good = {0, 2, 0x65, 1, 0, 1, 0x41};
    ASSERT_TRUE(SplitLengthPrefixed(good.data(), good.size(), 2, units));
    EXPECT_EQ(units, (std::vector<NalUnit>{{0x65, 1}, {0x41}}));
    for (size_t cut : {1u, 2u, 3u, 5u, 6u}) {
        EXPECT_FALSE(SplitLengthPrefixed(good.data(), cut, 2, units)) << cut;
    }
    const Bytes huge = {0xFF, 0xFF, 0xFF, 0xFF, 0x65};
    EXPECT_FALSE(SplitLengthPrefixed(huge.data(), huge.size(), 4, units));
    EXPECT_FALSE(SplitLengthPrefixed(nullptr, 0, 4, units));
}

/// A grey picture of its own memory.
struct Canvas {
    Canvas(int width, int height) : planes(static_cast<size_t>(width * height * 2), 90) {
        const size_t luma = static_cast<size_t>(width * height);
        view = {{planes.data(), planes.data() + luma, planes.data() + luma * 3 / 2},
                {width, width / 2, width / 2},
                width,
                height};
    }
    Bytes planes;
    PictureView view;
};

TEST(TimeCode, ReadsBackInEverySizeAndThroughNoise) {
    std::mt19937 random(7);
    for (const auto& [width, height] :
         {std::pair{64, 48}, {320, 180}, {426, 240}, {1920, 1080}, {722, 406}}) {
        for (uint32_t time : {0u, 40u, 59999u, 3600000u, 0xFFFFFFu}) {
            Canvas canvas(width, height);
            DrawTimeCode(canvas.view, {time, time % 16});
            for (uint8_t& value : canvas.planes) {
                value = static_cast<uint8_t>(
                    std::clamp(value + static_cast<int>(random() % 61) - 30, 0, 255));
            }
            TimeCode code;
            ASSERT_TRUE(ReadTimeCode(canvas.view.plane[0], width, 1, width, height, code));
            EXPECT_EQ(code.timeMs, time);
            EXPECT_EQ(code.level, time % 16);
        }
    }
}

TEST(TimeCode, PicturesWithoutACodeAreNotMistaken) {
    Canvas canvas(320, 180);
    TimeCode code;
    EXPECT_FALSE(ReadTimeCode(canvas.view.plane[0], 320, 1, 320, 180, code));
    EXPECT_FALSE(ReadTimeCode(canvas.view.plane[0], 16, 1, 16, 16, code));
    DrawTimeCode(canvas.view, {12340, 2});
    for (int y = 160; y < 180; ++y) {
        uint8_t& value = canvas.view.plane[0][y * 320 + 320 * 13 / 32 + 5];
        value = static_cast<uint8_t>(251 - value);  // one square turned
    }
    EXPECT_FALSE(ReadTimeCode(canvas.view.plane[0], 320, 1, 320, 180, code));
}

TEST(TimeCode, TextOutsideThePictureIsCutOff) {
    Canvas canvas(64, 48);
    DrawText(canvas.view, "00:12.345 LEVEL?", -30, -6, 3);
    DrawText(canvas.view, "888", 60, 44, 9);
    EXPECT_EQ(canvas.view.plane[0][47 * 64 + 63], 16) << "the text's ground";
    EXPECT_EQ(canvas.planes[64 * 48 + 32 * 20 + 20], 90) << "colour away from the text";
}

Presentation Sample() {
    Presentation presentation;
    presentation.durationMs = 5000;
    Entry level;
    level.file = "level0.mkv";
    level.bitrate = 400000;
    level.width = 426;
    level.height = 240;
    level.vbvBits = 800000;
    level.headerRequest = 277;
    level.mime = "video/x-matroska";
    level.clusterTimesMs = {0, 2000, 4000};
    level.clusterSizes = {100000, 90000, 40000};
    Entry higher = level;
    higher.file = "a&b \"1\".mkv";
    higher.bitrate = 800000;
    higher.clusterSizes = {200000, 180000, 80000};
    Entry trick = level;
    trick.kind = EntryKind::Trick;
    trick.file = "trick.mkv";
    Entry audio;
    audio.kind = EntryKind::Audio;
    audio.file = "audio.mka";
    audio.language = "eng";
    audio.reservedBandwidth = 128000;
    audio.assetId = 1;
    audio.headerRequest = 230;
    audio.mime = "audio/x-matroska";
    Entry text = audio;
    text.kind = EntryKind::Subtitle;
    text.file = "text.mks";
    text.language = "ger";
    text.assetId = 2;
    presentation.entries = {level, higher, trick, audio, text};
    return presentation;
}

std::string ParamOf(const TiXmlElement* entry, const std::string& name) {
    for (auto* param = entry->FirstChildElement("param"); param != nullptr;
         param = param->NextSiblingElement("param")) {
        if (name == param->Attribute("name")) {
            return param->Attribute("value");
        }
    }
    return "(absent)";
}

TEST(Manifest, HoldsEveryParameterInItsPlace) {
    TiXmlDocument document;
    document.Parse(ManifestText(Sample(), "http://host:1/x/").c_str(), nullptr,
                   TIXML_ENCODING_UTF8);
    ASSERT_FALSE(document.Error()) << document.ErrorDesc();
    TiXmlHandle par =
        TiXmlHandle(&document).FirstChild("smil").FirstChild("body").FirstChild("par");
    const TiXmlElement* level =
        par.ChildElement("switch", 0).FirstChildElement("video").ToElement();
    ASSERT_NE(level, nullptr);
    EXPECT_STREQ(level->Attribute("src"), "http://host:1/x/level0.mkv");
    EXPECT_STREQ(level->Attribute("systemBitrate"), "400000");
    EXPECT_STREQ(level->Attribute("width"), "426");
    EXPECT_STREQ(level->Attribute("height"), "240");
    EXPECT_EQ(ParamOf(level, "header-request"), "277");
    EXPECT_EQ(ParamOf(level, "vbv"), "800000");
    EXPECT_EQ(ParamOf(level, "mime"), "video/x-matroska");
    const TiXmlElement* second = level->NextSiblingElement();
    ASSERT_NE(second, nullptr);
    EXPECT_STREQ(second->Attribute("src"), "http://host:1/x/a&b \"1\".mkv");
    EXPECT_EQ(second->Attribute("systemProfile"), nullptr);

    const TiXmlElement* trick =
        par.ChildElement("switch", 1).FirstChildElement("video").ToElement();
    ASSERT_NE(trick, nullptr);
    EXPECT_STREQ(trick->Attribute("systemProfile"), "TavoPlusTrickTrack");

    const TiXmlElement* audio = par.ChildElement("excl", 0).FirstChildElement("audio").ToElement();
    const TiXmlElement* text =
        par.ChildElement("excl", 1).FirstChildElement("textstream").ToElement();
    ASSERT_TRUE(audio != nullptr && text != nullptr);
    EXPECT_STREQ(audio->Attribute("xml:lang"), "eng");
    EXPECT_STREQ(text->Attribute("xml:lang"), "ger");
    EXPECT_EQ(ParamOf(audio, "reservedBandwidth"), "128000");
    EXPECT_EQ(ParamOf(text, "assetId"), "2");
    EXPECT_EQ(ParamOf(text, "header-request"), "230");
}

TEST(Manifest, TracksThatAreNotThereLeaveNoEmptyGroup) {
    Presentation presentation = Sample();
    presentation.entries.resize(1);
    const std::string text = ManifestText(presentation, "http://host");
    EXPECT_EQ(text.find("excl"), std::string::npos);
    EXPECT_EQ(text.find("<switch>"), text.rfind("<switch>"));
}

TEST(Sidecar, KeepsEverythingThatTheManifestNeeds) {
    const Presentation presentation = Sample();
    const std::string text = SidecarText(presentation);
    EXPECT_EQ(ManifestText(ParseSidecar(text), "http://h"), ManifestText(presentation, "http://h"));
    EXPECT_EQ(SidecarText(ParseSidecar(text)), text);
    // The rows that simulations read: bits of each cluster, a column for each level.
    std::string packed;
    for (char c : text) {
        if (c != ' ' && c != '\n') {
            packed += c;
        }
    }
    EXPECT_NE(packed.find("\"bitrates_kbps\":[400,800]"), std::string::npos);
    EXPECT_NE(packed.find("\"segment_sizes_bits\":[[800000,1600000],[720000,1440000],"
                          "[320000,640000]]"),
              std::string::npos)
        << packed;
}

TEST(Sidecar, ManifestIsRewrittenForAnotherPlace) {
    test::TemporaryDirectory folder;
    WritePresentation(folder.Path(), Sample(), "http://127.0.0.1:8090");
    RewriteManifest(folder.Path(), "https://cdn.example/films/1/");
    const auto bytes = test::ReadBytes(folder.File(kManifestName));
    EXPECT_EQ(std::string(bytes.begin(), bytes.end()),
              ManifestText(Sample(), "https://cdn.example/films/1"));

    EXPECT_EQ(FailureOf([&] { RewriteManifest(folder.File("none"), "http://h"); }),
              Failure::InputOutput);
    std::string message;
    for (const char* text : {"", "{", "[]", "{\"duration_ms\":1}", "{\"files\":[{\"kind\":\"x\"}]}",
                             "{\"duration_ms\":1,\"files\":[{\"kind\":\"fish\"}]}"}) {
        folder.Write(kSidecarName, text);
        EXPECT_EQ(FailureOf([&] { RewriteManifest(folder.Path(), "http://h"); }, &message),
                  Failure::Refused)
            << text;
        EXPECT_NE(message.find(kSidecarName), std::string::npos) << message;
    }
}

}  // namespace
}  // namespace opal::package
