#include "StreamSwitchingAlgorithm/PlaybackRules.h"

#include <limits>

#include "SwitchingFixture.h"

using namespace opal::playback;
using namespace opal::test;

namespace {

class PlaybackRulesTest : public SwitchingTest {};

}  // namespace

// Quick start is off, so that the first decision shows: the level below the best fit of 85 % of the
// bandwidth, of which the time that the start took leaves a part of six seconds.
TEST_F(PlaybackRulesTest, TheStartLevelFollowsTheMode) {
    constexpr auto kLowest = InitialBandwidthMode_LowestLevel;
    constexpr auto kProbe = InitialBandwidthMode_BandwidthProbe;
    constexpr auto kHint = InitialBandwidthMode_BandwidthHint;
    const std::vector<int> low = {100000, 300000, 600000, 900000};
    const struct {
        const char* what;
        std::vector<int> rates;
        InitialBandwidthMode mode;
        int probed;  // by the probe; 0: it fails
        int64_t elapsedMs;
        size_t level;
        int64_t startupMs;
    } rows[] = {
        {"a probe's level is one lower", kLadder, kProbe, 6000000, 60, 1, 60},
        {"and never below the lowest", kLadder, kProbe, 1500000, 60, 0, 60},
        {"late, less of it counts", kLadder, kProbe, 6000000, 3000, 0, 3000},
        {"a clock set back", kLadder, kProbe, 6000000, -5, 1, 0},
        {"a probe that failed", kLadder, kProbe, 0, 60, 0, 0},
        {"two levels are not probed", {500000, 1000000}, kProbe, 6000000, 60, 0, 0},
        {"a hint's level is not lowered", low, kHint, 6000000, 60, 1, 60},
        {"the lowest asks for no time", kLadder, kLowest, 6000000, 60, 0, 0},
    };
    for (const auto& row : rows) {
        AlgorithmConfig::Global global = BuiltIn();
        global.initialBandwidthDecision = row.mode;
        global.bandwidthHint = 1000000;
        global.disableQuickstart = true;
        Configure(global);
        const SwitchingSession session(row.rates);
        const StartDecision start = ChooseStart(
            *session.controller, row.rates.size(),
            [&] {
                session.controller->SetBandwidth(row.probed);
                return row.probed != 0;
            },
            [&] { return row.elapsedMs; });
        EXPECT_EQ(start.level, row.level) << row.what;
        EXPECT_EQ(start.startupMs, row.startupMs) << row.what;
        EXPECT_EQ(start.probeFailed, row.probed == 0) << row.what;
    }
    EXPECT_EQ(LevelOf(-1, 4), 0u);
    EXPECT_EQ(LevelOf(4, 4), 3u) << "an answer above the highest level";
    EXPECT_EQ(LevelOf(2, 0), 0u);
    EXPECT_EQ(ProbedBandwidth(100000, 1600), 500000);
    EXPECT_EQ(ProbedBandwidth(-1, 1000), 0);
    EXPECT_EQ(ProbedBandwidth(1000, 0), 0);
    EXPECT_EQ(ProbedBandwidth(int64_t{1} << 40, 1), std::numeric_limits<int>::max());
}

TEST_F(PlaybackRulesTest, PlaybackWaitsForBothBuffersUnlessVideoHasEnded) {
    for (int bits = 0; bits < 16; ++bits) {
        const bool video = bits & 1;
        const bool hasAudio = bits & 2;
        const bool audio = bits & 4;
        const bool ended = bits & 8;
        const bool expected = ended ? true : hasAudio ? video && audio : video;
        EXPECT_EQ(IsReadyToPlay(video, hasAudio, audio, ended), expected) << bits;
    }
    EXPECT_TRUE(IsUnderflow(500, false));
    EXPECT_FALSE(IsUnderflow(501, false));
    EXPECT_FALSE(IsUnderflow(0, true)) << "at the end, what is buffered is all there will be";
    EXPECT_TRUE(MaySwitchLevel(true, true, false));
    EXPECT_FALSE(MaySwitchLevel(false, true, false) || MaySwitchLevel(true, false, false) ||
                 MaySwitchLevel(true, true, true));
    EXPECT_FALSE(IsAudioTooFarAhead(7000, 2000));
    EXPECT_TRUE(IsAudioTooFarAhead(7001, 2000));
}
