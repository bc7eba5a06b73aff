#include <gmock/gmock.h>

#include <nlohmann/json.hpp>

#include "opal-play/KeyDecoder.h"
#include "opal-play/Options.h"
#include "opal-play/Pace.h"
#include "opal-play/Rates.h"
#include "opal-play/Report.h"

namespace opal::play {
namespace {

using testing::Contains;
using testing::ElementsAre;
using testing::HasSubstr;

bool Parse(std::vector<std::string> words, Options& options, int& exitCode, bool display = false) {
    words.insert(words.begin(), "opal-play");
    std::vector<char*> argv;
    for (std::string& word : words)
        argv.push_back(word.data());
    testing::internal::CaptureStdout();
    testing::internal::CaptureStderr();
    const bool good =
        ParseCommandLine(static_cast<int>(argv.size()), argv.data(), display, options, exitCode);
    testing::internal::GetCapturedStdout();
    testing::internal::GetCapturedStderr();
    return good;
}

TEST(PlayOptionsTest, TimesAndActions) {
    EXPECT_EQ(2500, ParseTime("2.5"));
    EXPECT_EQ(5000, ParseTime("5s"));
    EXPECT_EQ(1500, ParseTime("1500ms"));
    EXPECT_EQ(80000, ParseTime("1:20"));
    EXPECT_EQ(3723500, ParseTime("1:02:03.5"));
    for (const char* text : {"", "s", "-1", "x", "1:", ":1", "1e99", "nan", "1:-2", "5 s"})
        EXPECT_THROW(ParseTime(text), UsageError) << text;

    const Action seek = ParseAction("1:05:seek=1:20");
    EXPECT_EQ(65000, seek.atMs);
    EXPECT_EQ(Action::Kind::Seek, seek.kind);
    EXPECT_EQ(80000, seek.value);
    EXPECT_EQ(OPAL_PLAYRATE_FOURXRW, ParseAction("10s:rate=-4x").value);
    EXPECT_EQ(-1, ParseAction("1:subtitle=off").value);
    EXPECT_EQ(Action::Kind::Pause, ParseAction("1:pause").kind);
    for (const char* text : {"seek=2", "5s:", "5s:seek", "5s:rate=3x", "5s:pause=1", "5s:audio=off",
                             "5s:audio=12345", "5s:fly"})
        EXPECT_THROW(ParseAction(text), UsageError) << text;
}

TEST(PlayOptionsTest, CommandLine) {
    Options options;
    int exitCode = -1;
    ASSERT_TRUE(Parse({"--at", "9:quit", "--at", "3:seek=1", "--snapshots", "f", "--snapshot-at",
                       "15,5", "--time-limit", "20", "u"},
                      options, exitCode, true));
    EXPECT_EQ(3000, options.actions.front().atMs);
    EXPECT_THAT(options.snapshotsAtMs, ElementsAre(5000, 15000));
    EXPECT_EQ(20000, options.timeLimitMs);
    EXPECT_TRUE(options.window);  // there is a display
    EXPECT_TRUE(options.sound);
    Options headless;
    ASSERT_TRUE(Parse({"--headless", "u"}, headless, exitCode, true));
    EXPECT_FALSE(headless.window || headless.sound);
    EXPECT_EQ("/dev/null", headless.logFile);

    EXPECT_FALSE(Parse({"--help"}, options, exitCode));
    EXPECT_EQ(0, exitCode);
    using Words = std::vector<std::string>;
    for (const Words& words : {Words{}, Words{"--fly", "u"}, Words{"--snapshot-at", "5", "u"},
                               Words{"--at", "5:fly", "u"}, Words{"--headless", "--window", "u"},
                               Words{"--blocks", "f", "u"}, Words{"--time-limit", "x", "u"}}) {
        Options bad;
        EXPECT_FALSE(Parse(words, bad, exitCode));
        EXPECT_EQ(2, exitCode);
    }
}

TEST(PlayKeysTest, ArrowsComeCutAnywhere) {
    KeyDecoder decoder;
    std::string seen;
    for (const char byte : std::string("q\x1b[A\x1bOB\x1b[C\x1b[D\x1b[3~\x1b[1;5C\x1bx7")) {
        Key key = Key::None;
        char character = 0;
        if (decoder.Feed(byte, key, character))
            seen += key == Key::Character ? character : "0LRUD"[static_cast<int>(key)];
    }
    EXPECT_EQ("qUDRL7", seen);
}

TEST(PlayRatesTest, StepsStopAtTheEnds) {
    EXPECT_EQ(OPAL_PLAYRATE_TWOXRW, NextRate(OPAL_PLAYRATE_ONEX, false));
    EXPECT_EQ(OPAL_PLAYRATE_TWOXFF, NextRate(OPAL_PLAYRATE_ONEX, true));
    EXPECT_EQ(OPAL_PLAYRATE_THIRTYTWOXFF, NextRate(OPAL_PLAYRATE_THIRTYTWOXFF, true));
    EXPECT_EQ(OPAL_PLAYRATE_THIRTYTWOXRW, NextRate(OPAL_PLAYRATE_THIRTYTWOXRW, false));
    EXPECT_EQ("-16x", RateText(OPAL_PLAYRATE_SIXTEENXRW));
}

TEST(PlayMeterTest, ReadsTheLibrarysDiagnostics) {
    NetworkMeter meter;
    meter.Read("ReaderNotify::OnDownloadComplete downloadTime=40 download size=1000 index=3");
    meter.Read("ReaderNotify::OnDownloadComplete downloadTime=1 download size=500 index=4");
    meter.Read("GetBandwidth: current.time=1 bandwidth=5 bandwidth.effective=7000000");
    meter.Read("GetBandwidth: current.time=2 bandwidth=5 bandwidth.effective=0");  // none yet
    meter.Read("READY TO PLAY!!! : time=5");
    EXPECT_EQ(2u, meter.Figures().clusters);
    EXPECT_EQ(1500u, meter.Figures().bytes);
    EXPECT_EQ(7000000, meter.Figures().linkBitsPerSecond);
}

TEST(PlayReportTest, LinesForPeople) {
    EXPECT_EQ("1:02.5", TimeText(62549));
    EXPECT_EQ("-0:00.1", TimeText(-100));
    EXPECT_EQ("1:00:00.0", TimeText(3600000));
    Status status;
    status.state = "playing";
    status.positionMs = 12300;
    status.durationMs = 30000;
    status.bufferedMs = 8210;
    EXPECT_EQ("playing   0:12.3 / 0:30.0  buffer 8.2 s", ProgressText(status));
    status.levelCount = 5;
    status.level = 3;
    status.levelInfo = {2560000, 1280, 720};
    status.linkBitsPerSecond = 48000000;
    EXPECT_EQ(
        "playing   0:12.3 / 0:30.0  level 4/5 1280x720 2.56 Mbit/s  buffer 8.2 s  link 48.00 "
        "Mbit/s",
        ProgressText(status));
    EXPECT_THAT(ErrorText(OPAL_ERROR_CONNECT), HasSubstr("is the server running? (-15)"));
    EXPECT_THAT(ErrorText(static_cast<OPALError>(-99)), HasSubstr("-99"));
}

TEST(PlayReportTest, VerdictAndExitCode) {
    Summary good;
    good.outcome = Outcome::EndOfStream;
    good.durationMs = 30000;
    good.pace = 1.0;
    good.framesDecoded = 100;
    good.framesShown = 96;
    EXPECT_TRUE(FindFaults(good).empty());
    EXPECT_EQ(kExitDone, ExitCodeOf(good));

    Summary summary = good;
    summary.framesShown = 95;
    EXPECT_THAT(FindFaults(summary), ElementsAre("only 95 of 100 pictures were shown"));
    summary.faults = FindFaults(summary);
    EXPECT_EQ(kExitStrict, ExitCodeOf(summary));
    summary.errors.push_back("x");
    EXPECT_EQ(kExitError, ExitCodeOf(summary));
    summary.outcome = Outcome::Signal;
    EXPECT_EQ(kExitSignal, ExitCodeOf(summary));

    summary = good;
    summary.pace = 0.5;
    EXPECT_THAT(FindFaults(summary), ElementsAre("the position moved at 0.50 of real time"));
    summary = good;
    summary.outcome = Outcome::TimeLimit;
    EXPECT_THAT(FindFaults(summary), ElementsAre("the end of the stream was not reached"));
    summary = Summary();
    EXPECT_THAT(FindFaults(summary), Contains("no picture was decoded"));

    good.url = "http://host/\xff";  // not UTF-8
    EXPECT_EQ(96, nlohmann::json::parse(SummaryJson(good))["framesShown"]);
}

TEST(PlayPaceTest, LeavesOutWhatAnInterruptionTook) {
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

}  // namespace
}  // namespace opal::play
