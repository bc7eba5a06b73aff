#include <gmock/gmock.h>

#include "opal-play/KeyDecoder.h"
#include "opal-play/Options.h"
#include "opal-play/Pace.h"
#include "opal-play/Rates.h"

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

}  // namespace
}  // namespace opal::play
