#include <gmock/gmock.h>

#include <string>
#include <vector>

#include "StreamSwitchingAlgorithm/src/VideoStreamSwitchingAlgorithm.h"
#include "SwitchingFixture.h"

using namespace opal::test;
using Global = AlgorithmConfig::Global;

namespace {

/// An algorithm over a ladder with two seconds of VBV, brought to a level by its own decisions.
class Algorithm : public VideoStreamSwitchingAlgorithm {
  public:
    explicit Algorithm(const std::vector<int>& rates, int vbvSeconds = 2) : indexes(rates) {
        Reset();
        for (int rate : rates)
            AddLevel("u", rate, rate * vbvSeconds);
        SetClusterIndexes(&indexes.pointers);
    }

    /// One decision on the given figures.
    int Decide(int bandwidth, int bufferedMs) {
        SetBandwidth(bandwidth);
        SetDownloadResult(250000, 1000, bufferedMs, 5);
        Invalidate();
        return GetCurrentLevel();
    }

    /// Stands on `level` right after a switch to it, with the hold counter at 0.
    void BringTo(int level) {
        Configure(BuiltIn(), 0);
        SetMode(0);
        Decide(0, 0);
        const int levels = static_cast<int>(GetLevelCount());
        const int away = level == levels - 1 ? 0 : levels - 1;
        ASSERT_EQ(Decide(BandwidthFor(away), 39999), away);
        ASSERT_EQ(Decide(BandwidthFor(level), 39999), level);
        Configure(BuiltIn());
    }

    LadderIndexes indexes;

  private:
    /// A bandwidth whose guarded part just carries `level` of kLadder.
    static int BandwidthFor(int level) {
        const int rates[] = {400000, 1300000, 2600000, 5000000};
        return rates[level];
    }
};

class SwitchingAlgorithmTest : public SwitchingTest {};

}  // namespace

// The level below the best fit of the guarded bandwidth; then the quick start's drop. It leaves the
// algorithm dirty: a second query decides again, and without an index that is the lowest level.
TEST_F(SwitchingAlgorithmTest, FirstDecisionAndTheOneAfterIt) {
    const struct {
        int bandwidth;
        int64_t startupMs;
        int drop;
        int level;
    } rows[] = {
        {2352943, 0, 0, 1},    {2352942, 0, 0, 0},     // guarded 2000001.55 and 2000000.7
        {2400000, 3000, 0, 0}, {4800000, 3000, 0, 1},  // half of the guarded bandwidth is trusted
        {9000000, 6000, 0, 0}, {9000000, 99000, 0, 0}, {9000000, 0, 1, 1},
        {9000000, 0, 3, 0},    {9000000, 0, 0, 2},     {0, 0, 0, 0},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(testing::Message()
                     << row.bandwidth << " " << row.startupMs << " " << row.drop);
        Global global = BuiltIn();
        global.maxLevelDrop = row.drop;
        Configure(global);
        Algorithm algorithm(kLadder);
        algorithm.SetClusterIndexes(nullptr);
        algorithm.SetBandwidth(row.bandwidth);
        algorithm.SetStartupDelay(row.startupMs);
        EXPECT_EQ(algorithm.GetCurrentLevel(), row.level);
        EXPECT_EQ(algorithm.GetCurrentLevel(), 0);
    }
}

TEST_F(SwitchingAlgorithmTest, DownwardTheComparisonIsStrictAndALargeBufferHolds) {
    Algorithm strict(kLadder);
    strict.BringTo(2);
    EXPECT_EQ(strict.Decide(2000001, 10000), 2);
    EXPECT_EQ(strict.Decide(2000000, 10000), 1);

    Algorithm holding(kLadder);
    holding.BringTo(3);
    holding.SetMode(AlgorithmConfig::kSteady);
    EXPECT_EQ(holding.Decide(1000000, 40000), 3);
    EXPECT_EQ(holding.Decide(1000000, 39999), 0) << "in one step";
}

TEST_F(SwitchingAlgorithmTest, UpwardTheModesPeriodMustHavePassed) {
    for (const auto& [mode, cycles] : {std::pair<int, int>{AlgorithmConfig::kAgile, 2},
                                       std::pair<int, int>{AlgorithmConfig::kSteady, 10}}) {
        Algorithm algorithm(kLadder);
        algorithm.BringTo(1);
        algorithm.SetMode(mode);
        int decisions = 0;
        while (algorithm.Decide(5000000, 10000) == 1)
            ASSERT_LT(++decisions, 20);
        EXPECT_EQ(algorithm.GetCurrentLevel(), 3);
        EXPECT_EQ(decisions + 1, cycles) << "mode " << mode;
    }
}

TEST_F(SwitchingAlgorithmTest, UpwardTheBufferMustCoverDelayAndMissingIndexes) {
    for (const bool missing : {false, true}) {
        Algorithm algorithm(kLadder);
        algorithm.BringTo(1);
        int needed = 2000;
        if (missing) {  // what it takes to fetch the index of level 2 comes on top of the delay
            algorithm.indexes.pointers[2] = nullptr;
            const int64_t bytes = VideoStreamSwitchingAlgorithm::IndexDownloadBytes(2000000, 300);
            needed += static_cast<int>(static_cast<double>(bytes * 8) * 1000.0 / 5000000.0);
            ASSERT_GT(needed, 2000);
        }
        algorithm.Decide(5000000, needed);
        EXPECT_EQ(algorithm.Decide(5000000, needed), 1);
        EXPECT_EQ(algorithm.Decide(5000000, needed + 1), 3);
    }
}

TEST_F(SwitchingAlgorithmTest, IndexCostIsOffsetsAndTimesInTheirLengths) {
    // Offset 4000 and time 2000 take two bytes each, as do 8000 and 4000; 2^14-2 would take three.
    EXPECT_EQ(VideoStreamSwitchingAlgorithm::IndexDownloadBytes(16000, 2), 2 * (2 + 2 + 10));
    EXPECT_EQ(VideoStreamSwitchingAlgorithm::IndexDownloadBytes(4 * 16382, 1), 3 + 2 + 10);
    EXPECT_EQ(VideoStreamSwitchingAlgorithm::IndexDownloadBytes(4 * 16381, 1), 2 + 2 + 10);
    EXPECT_EQ(VideoStreamSwitchingAlgorithm::IndexDownloadBytes(500000, 0), 0);
}

// With what a settings file that names only "steady" leads to: no buffer is below 0, so that
// bandwidth alone never lowers the level.
TEST_F(SwitchingAlgorithmTest, ANearlySpentBufferForcesTheLowestLevelAfterTheQuietCycles) {
    for (const auto& [cycles, buffered, level] :
         {std::tuple<int, int, int>{9, 2000, 0}, {9, 2001, 2}, {9, 10000, 2}, {8, 2000, 2}}) {
        Algorithm algorithm(kLadder);
        algorithm.BringTo(2);
        algorithm.Restart();
        Configure(Global(), 0, 20000);
        // From the restart on: level 2 is reached in the first cycle and kept.
        for (int cycle = 1; cycle < cycles; ++cycle)
            algorithm.Decide(2500000, 10000);
        ASSERT_EQ(algorithm.GetCurrentLevel(), 2);
        ASSERT_TRUE(algorithm.IsVideoBuffered());
        EXPECT_EQ(algorithm.Decide(1000000, buffered), level) << cycles << " " << buffered;
    }
}

TEST_F(SwitchingAlgorithmTest, WithoutAnEstimateItExploresOneLevelAtATime) {
    Algorithm algorithm(kLadder);
    algorithm.Decide(0, 0);
    const auto decide = [&algorithm](int timeMs, int bufferedMs) {
        algorithm.SetBandwidth(0);
        algorithm.SetDownloadResult(125000, timeMs, bufferedMs, 1);
        algorithm.Invalidate();
        return algorithm.GetCurrentLevel();
    };
    // 125000 bytes are two seconds of level 0: they must have come in less than one.
    EXPECT_EQ(decide(999, 8000), 0) << "fast for 2 s only";
    EXPECT_EQ(decide(999, 8000), 1);
    EXPECT_EQ(decide(1000, 8000), 1) << "not fast any more";
    EXPECT_EQ(decide(0, 8000), 1) << "not measurable";
    EXPECT_EQ(decide(400, 8000), 1);
    EXPECT_EQ(decide(400, 2000), 1) << "the buffer does not cover the delay";
    EXPECT_EQ(decide(400, 2001), 2);
}

TEST_F(SwitchingAlgorithmTest, PlaybackIsReadyOnceTheRestCanBeFetchedWhilePlaying) {
    const struct {
        int nominal;  // bandwidth of the first decision
        int bandwidth;
        int reserved;
        bool ready;
        const char* what;
    } rows[] = {
        {0, 1000000, 0, true, "enough"},
        {0, 999999, 0, false, "not enough"},
        {2900000, 0, 0, true, "the nominal level 1 stands for the link"},
        {0, 0, 0, false, "so does the nominal level 0"},
        {0, 1000000, 1000000, false, "no throughput"},
    };
    for (const auto& row : rows) {
        Algorithm algorithm(kLadder, 4);
        algorithm.SetReservedBandwidth(64000);
        algorithm.SetBandwidth(row.nominal);
        algorithm.GetCurrentLevel();
        algorithm.SetReservedBandwidth(row.reserved);
        algorithm.SetDownloadResult(125000, 1000, 2000, 0);
        algorithm.SetBandwidth(row.bandwidth);
        algorithm.Invalidate();
        EXPECT_EQ(algorithm.IsVideoBuffered(), row.ready) << row.what;
    }
}

TEST_F(SwitchingAlgorithmTest, ALevelWithoutABitrateIsNeverChosen) {
    Algorithm algorithm({0, 500000, 1000000});
    EXPECT_EQ(algorithm.Decide(0, 0), 1);
    algorithm.Restart();
    EXPECT_EQ(algorithm.Decide(100, 3000), 1);
    Algorithm nothing({0, 0});
    EXPECT_EQ(nothing.Decide(1000000, 5000), 0);
    EXPECT_TRUE(nothing.IsVideoBuffered()) << "decided: there is nothing to wait for";
    nothing.Restart();
    EXPECT_EQ(nothing.Decide(1000000, 5000), 0);
    VideoStreamSwitchingAlgorithm empty;
    EXPECT_EQ(empty.GetCurrentLevel(), -1);
    EXPECT_EQ(empty.GetLevelURI(0), "unknown");
}

TEST_F(SwitchingAlgorithmTest, TheTestModeRotatesThroughTheLevels) {
    Algorithm algorithm({500000, 1000000});
    algorithm.Decide(0, 0);
    Global global = BuiltIn();
    global.algorithmCycle = true;
    Configure(global);
    algorithm.Invalidate();
    std::string levels;
    for (int i = 0; i < 18; ++i)
        levels += std::to_string(algorithm.GetCurrentLevel());
    EXPECT_EQ(levels, "000001111110000001");
}
