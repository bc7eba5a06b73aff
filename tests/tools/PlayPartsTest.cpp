#include <gmock/gmock.h>

#include "opal-play/KeyDecoder.h"
#include "opal-play/Options.h"
#include "opal-play/Pace.h"
#include "opal-play/Rates.h"
#include "opal-play/Report.h"
#include "opal-play/Verification.h"
#include "opal-play/Viewing.h"

namespace opal::play {
namespace {

TEST(PlayPartsTest, TimesAndActionsAreReadOrRefused) {
    const std::map<std::string, int64_t> times{
        {"2.5", 2500}, {"5s", 5000}, {"1500ms", 1500}, {"1:20", 80000}, {"1:02:03.5", 3723500}};
    for (const auto& [text, expected] : times)
        EXPECT_EQ(expected, ParseTime(text)) << text;
    for (const char* text : {"", "s", "-1", "x", "1:", ":1", "1e99", "nan", "1:-2", "5 s"})
        EXPECT_THROW(ParseTime(text), UsageError) << text;
    const Action seek = ParseAction("1:05:seek=1:20");
    EXPECT_EQ(65000, seek.atMs);
    EXPECT_EQ(Action::Kind::Seek, seek.kind);
    EXPECT_EQ(80000, seek.value);
    EXPECT_EQ(OPAL_PLAYRATE_FOURXRW, ParseAction("10s:rate=-4x").value);
    for (const char* text : {"seek=2", "5s:", "5s:seek", "5s:rate=3x", "5s:audio=12345", "5s:fly"})
        EXPECT_THROW(ParseAction(text), UsageError) << text;
}

TEST(PlayPartsTest, AManifestTellsItsMediaFiles) {
    std::string found;
    for (const auto& file : FindMediaFiles(
             "<?xml version='1.0'?><smil><!-- a --><body><par><video src='a&amp;b'/><switch><video "
             "src='c'><param name='x' value='y'/></video></switch><audio src='d'/><audio/>"
             "<textstream src='e'/><img src='f'/></par></body></smil>"))
        found += std::to_string(file.type) + file.url + " ";
    EXPECT_EQ("0a&b 0c 1d 2e ", found);
    std::string deep;
    for (int i = 0; i < 1000000; ++i)
        deep += "<a>";
    for (const std::string& text : {deep, std::string("<smil"), std::string()})
        EXPECT_TRUE(FindMediaFiles(text).empty());
}

TEST(PlayPartsTest, KeysAndRates) {
    KeyDecoder decoder;
    std::string seen;
    for (const char byte : std::string("q\x1b[A\x1bOB\x1b[C\x1b[D\x1b[3~\x1b[1;5C\x1bx7")) {
        Key key = Key::None;
        char character = 0;
        if (decoder.Feed(byte, key, character))
            seen += key == Key::Character ? character : "0LRUD"[static_cast<int>(key)];
    }
    EXPECT_EQ("qUDRL7", seen) << "whole sequences, and none in part";
    EXPECT_EQ(OPAL_PLAYRATE_TWOXRW, NextRate(OPAL_PLAYRATE_ONEX, false));
    EXPECT_EQ(OPAL_PLAYRATE_THIRTYTWOXRW, NextRate(OPAL_PLAYRATE_THIRTYTWOXRW, false));
}

TEST(PlayPartsTest, PaceLeavesOutWhatAnInterruptionTook) {
    Pace pace;
    pace.Report(0, 0);
    pace.Report(1000, 1000);
    EXPECT_EQ(0.0, pace.Value());  // too little to tell
    pace.Interrupt();
    pace.Report(60000, 9000);
    pace.Report(61000, 10000);
    pace.Report(61500, 11000);
    EXPECT_DOUBLE_EQ(2500.0 / 3000.0, pace.Value());
}

TEST(PlayPartsTest, TheProgressLineHasWhatFits) {
    Status status;
    status.state = "playing";
    status.positionMs = 5000;
    status.durationMs = status.leftMs = 30000;
    status.level = 0;
    status.levelCount = 5;
    status.linkTooFast = true;
    const std::string whole = ProgressText(status, std::string::npos);
    EXPECT_THAT(whole, testing::HasSubstr("0:30.0 left"));
    EXPECT_THAT(whole, testing::EndsWith("link too fast to measure"));
    for (size_t width = 0; width < whole.size(); ++width) {
        const std::string text = ProgressText(status, width);
        EXPECT_LE(text.size(), width);
        EXPECT_TRUE(width < 27 || whole[text.size()] == ' ') << "cut within a part: " << text;
    }
}

TEST(PlayPartsTest, TimeIsCountedByLevelAndAsStalled) {
    Viewing viewing;
    using State = Viewing::State;
    constexpr auto kNone = static_cast<size_t>(-1);
    viewing.Account(1000, State::Other, kNone);
    viewing.Account(2000, State::Watching, kNone);  // belongs to the first level known
    viewing.Account(4000, State::Watching, 1);
    viewing.Account(9000, State::Stalled, 1);
    viewing.Account(10000, State::Watching, 0);
    viewing.Account(20000, State::Other, 0);
    Summary summary;
    summary.levels = {{1000, 640, 360}, {5000, 640, 360}};
    summary.watchedMs = viewing.WatchedMs();
    EXPECT_EQ((std::vector<int64_t>{1000, 3000}), summary.watchedMs);
    EXPECT_EQ(5000, viewing.StalledMs());
    EXPECT_EQ(4000, MeanBitrate(summary));
    EXPECT_THAT(SummaryText(summary),
                testing::HasSubstr("1.0 s of 640x360 at 1 kbit/s, 3.0 s of 640x360 at 5 kbit/s"));
}

TEST(PlayPartsTest, AFailureNamesItsMediaFile) {
    const MediaFailure damaged{"http://h:1/a.mkv", -2, true};
    EXPECT_EQ(
        "http://h:1/a.mkv: its header or index is damaged, or does not match the manifest (-2)",
        ErrorText(OPAL_ERROR_INVALID_ARGUMENT, damaged));
    EXPECT_THAT(ErrorText(OPAL_ERROR_TIMEOUT, damaged), testing::StartsWith("the server"))
        << "another failure";
    EXPECT_THAT(ErrorText(OPAL_ERROR_HTTP_CLIENT, {"http://h:1/b.mkv", -12, false}),
                testing::StartsWith("http://h:1/b.mkv: the server refuses"));
    EXPECT_THAT(ErrorText(OPAL_ERROR_GENERAL, {"http://h:1/b.mkv", -12, false}),
                testing::HasSubstr("; http://h:1/b.mkv: the server refuses"));
}

TEST(PlayPartsTest, StrictComparesWhatWasShownWithWhatThereWas) {
    Summary summary;
    summary.outcome = Outcome::EndOfStream;
    summary.durationMs = 4000;
    summary.framesDecoded = summary.framesShown = 98;
    summary.videoUnits = 100;
    summary.lastShownMs = 3880;
    summary.audioUnits = 1;
    summary.audioPlayedMs = 3900;
    EXPECT_THAT(FindFaults(summary),
                testing::ElementsAre(testing::StartsWith("2 of 100 pictures")));
    summary.jumped = true;
    summary.framesDecoded = 200;  // and half of them flushed
    EXPECT_THAT(FindFaults(summary), testing::IsEmpty());
    summary.framesDropped = 10;
    EXPECT_THAT(FindFaults(summary), testing::SizeIs(1));
    summary.framesDecoded = 98;
    summary.jumped = false;
    summary.videoUnits = 98;
    summary.durationMs = 4950;
    EXPECT_THAT(FindFaults(summary), testing::SizeIs(2));
    summary.durationMs = 4000;
    summary.decodeErrors = 1;
    summary.longestGapMs = 1400;
    summary.gapEndMs = 3400;
    EXPECT_THAT(FindFaults(summary),
                testing::ElementsAre(testing::StartsWith("1 decoding errors"),
                                     "no picture came between 0:02.0 and 0:03.4"));
}

}  // namespace
}  // namespace opal::play
