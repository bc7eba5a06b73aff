#include <gmock/gmock.h>

#include <memory>
#include <string>
#include <vector>

#include "StreamSwitchingAlgorithm/AlgorithmConfig.h"
#include "StreamSwitchingAlgorithm/src/VideoStreamSwitchingAlgorithm.h"
#include "SwitchingFixture.h"

using opal::test::FakeIndex;
using Global = AlgorithmConfig::Global;

namespace {

const std::vector<int> kLadder = {500000, 1000000, 2000000, 4000000};

Global BuiltIn() {
    Global global;
    global.initialBandwidthDecision = InitialBandwidthMode_BandwidthProbe;
    global.minBufferedToEnterAgile = 40000;
    return global;
}

void Configure(const Global& global, int64_t agileUp = 4000, int64_t steadyUp = 20000) {
    AlgorithmConfig::Mode agile;
    agile.minPeriodUpSwitch = agileUp;
    AlgorithmConfig::Mode steady;
    steady.minPeriodUpSwitch = steadyUp;
    ASSERT_EQ(AlgorithmConfig::Instance().Set(global, agile, steady), OPAL_OK);
}

/// An algorithm over a ladder with two seconds of VBV, brought to a level by its own decisions.
class Algorithm : public VideoStreamSwitchingAlgorithm {
  public:
    explicit Algorithm(const std::vector<int>& rates, int vbvSeconds = 2) {
        Reset();
        for (int rate : rates) {
            AddLevel("u", rate, rate * vbvSeconds);
            m_storage.push_back(std::make_unique<FakeIndex>(300, rate / 4));
            m_indexes.push_back(m_storage.back().get());
        }
        SetClusterIndexes(&m_indexes);
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

    std::vector<IClusterIndex*>& Indexes() { return m_indexes; }

  private:
    /// A bandwidth whose guarded part just carries `level` of kLadder.
    static int BandwidthFor(int level) {
        const int rates[] = {400000, 1300000, 2600000, 5000000};
        return rates[level];
    }

    std::vector<std::unique_ptr<IClusterIndex>> m_storage;
    std::vector<IClusterIndex*> m_indexes;
};

class SwitchingAlgorithmTest : public testing::Test {
  protected:
    void SetUp() override { AlgorithmConfig::Instance().Reset(); }
    void TearDown() override { AlgorithmConfig::Instance().Reset(); }
};

}  // namespace

// The level below the best fit of the guarded bandwidth; then the quick start's drop.
TEST_F(SwitchingAlgorithmTest, FirstDecision) {
    const struct {
        int bandwidth;
        int64_t startupMs;
        int drop;
        int level;
    } rows[] = {
        {2400000, 0, 0, 1},    {2400000, 0, 3, 0},     // guarded 2040000
        {2100000, 0, 0, 0},                            // guarded 1785000
        {2352943, 0, 0, 1},    {2352942, 0, 0, 0},     // guarded 2000001.55 and 2000000.7
        {2400000, 3000, 0, 0}, {4800000, 3000, 0, 1},  // half of the guarded bandwidth is trusted
        {9000000, 6000, 0, 0}, {9000000, 99000, 0, 0}, {0, 0, 0, 0},
    };
    for (const auto& row : rows) {
        Global global = BuiltIn();
        global.maxLevelDrop = row.drop;
        Configure(global);
        VideoStreamSwitchingAlgorithm algorithm;
        algorithm.Reset();
        for (int rate : {500000, 1000000, 2000000})
            algorithm.AddLevel("u", rate, 2 * rate);
        algorithm.SetBandwidth(row.bandwidth);
        algorithm.SetStartupDelay(row.startupMs);
        EXPECT_EQ(algorithm.GetCurrentLevel(), row.level)
            << row.bandwidth << " " << row.startupMs << " " << row.drop;
    }
}

TEST_F(SwitchingAlgorithmTest, StaysDirtyAfterTheFirstDecisionSoASecondQueryDecidesAgain) {
    Global global = BuiltIn();
    global.maxLevelDrop = 0;
    Configure(global);
    VideoStreamSwitchingAlgorithm algorithm;
    algorithm.Reset();
    for (int rate : kLadder)
        algorithm.AddLevel("u", rate, 2 * rate);
    algorithm.SetBandwidth(9000000);
    EXPECT_EQ(algorithm.GetCurrentLevel(), 2);
    EXPECT_EQ(algorithm.GetCurrentLevel(), 0) << "without an index a quick start holds the lowest";
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

// What a settings file that names only "steady" leads to.
TEST_F(SwitchingAlgorithmTest, WithoutABufferThatHoldsOnlyTheGuardStepsDown) {
    Algorithm algorithm(kLadder);
    algorithm.BringTo(3);
    Configure(Global(), 0, 20000);
    EXPECT_EQ(algorithm.Decide(1000000, 10000), 3) << "no buffer is below 0";
    algorithm.Restart();
    for (int cycle = 1; cycle < 9; ++cycle)
        algorithm.Decide(5000000, 10000);
    ASSERT_EQ(algorithm.GetCurrentLevel(), 3);
    ASSERT_TRUE(algorithm.IsVideoBuffered());
    EXPECT_EQ(algorithm.Decide(1000000, 2000), 0);
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
    Algorithm covered(kLadder);
    covered.BringTo(1);
    covered.Decide(5000000, 2000);
    EXPECT_EQ(covered.Decide(5000000, 2000), 1);
    EXPECT_EQ(covered.Decide(5000000, 2001), 3);

    // The index of level 2 is missing: what it takes to fetch comes on top of the delay.
    Algorithm missing(kLadder);
    missing.BringTo(1);
    missing.Indexes()[2] = nullptr;
    const int64_t bytes = VideoStreamSwitchingAlgorithm::IndexDownloadBytes(2000000, 300);
    const int extra = static_cast<int>(static_cast<double>(bytes * 8) * 1000.0 / 5000000.0);
    ASSERT_GT(extra, 0);
    missing.Decide(5000000, 2000 + extra);
    EXPECT_EQ(missing.Decide(5000000, 2000 + extra), 1);
    EXPECT_EQ(missing.Decide(5000000, 2001 + extra), 3);
}

TEST_F(SwitchingAlgorithmTest, IndexCostIsOffsetsAndTimesInTheirLengths) {
    // Offset 4000 and time 2000 take two bytes each, as do 8000 and 4000; 2^14-2 would take three.
    EXPECT_EQ(VideoStreamSwitchingAlgorithm::IndexDownloadBytes(16000, 2), 2 * (2 + 2 + 10));
    EXPECT_EQ(VideoStreamSwitchingAlgorithm::IndexDownloadBytes(4 * 16382, 1), 3 + 2 + 10);
    EXPECT_EQ(VideoStreamSwitchingAlgorithm::IndexDownloadBytes(4 * 16381, 1), 2 + 2 + 10);
    EXPECT_EQ(VideoStreamSwitchingAlgorithm::IndexDownloadBytes(500000, 0), 0);
}

TEST_F(SwitchingAlgorithmTest, ANearlySpentBufferForcesTheLowestLevelAfterTheQuietCycles) {
    for (const auto& [cycles, buffered, level] :
         {std::tuple<int, int, int>{9, 2000, 0}, {9, 2001, 2}, {8, 2000, 2}}) {
        Algorithm algorithm(kLadder);
        algorithm.BringTo(2);
        algorithm.Restart();
        Configure(BuiltIn(), 0);
        // From the restart on: level 2 is reached in the first cycle and kept.
        for (int cycle = 1; cycle < cycles; ++cycle)
            algorithm.Decide(2500000, 10000);
        ASSERT_EQ(algorithm.GetCurrentLevel(), 2);
        ASSERT_TRUE(algorithm.IsVideoBuffered());
        EXPECT_EQ(algorithm.Decide(2200000, buffered), level) << cycles << " " << buffered;
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
    const auto ready = [](int bandwidth, int nominalBandwidth) {
        VideoStreamSwitchingAlgorithm algorithm;
        algorithm.Reset();
        std::vector<std::unique_ptr<FakeIndex>> storage;
        std::vector<IClusterIndex*> indexes;
        for (int rate : kLadder) {
            algorithm.AddLevel("u", rate, 4 * rate);
            storage.push_back(std::make_unique<FakeIndex>(300, rate / 4));
            indexes.push_back(storage.back().get());
        }
        algorithm.SetReservedBandwidth(64000);
        algorithm.SetBandwidth(nominalBandwidth);
        algorithm.GetCurrentLevel();
        algorithm.SetClusterIndexes(&indexes);
        algorithm.SetReservedBandwidth(0);
        algorithm.SetDownloadResult(125000, 1000, 2000, 0);
        algorithm.SetBandwidth(bandwidth);
        algorithm.Invalidate();
        return algorithm.IsVideoBuffered();
    };
    EXPECT_TRUE(ready(1000000, 0));
    EXPECT_FALSE(ready(999999, 0));
    EXPECT_TRUE(ready(0, 2900000)) << "the nominal level 1 stands for the link";
    EXPECT_FALSE(ready(0, 0)) << "so does the nominal level 0";
}

TEST_F(SwitchingAlgorithmTest, NoThroughputIsNotReady) {
    Algorithm algorithm(kLadder, 4);
    algorithm.Decide(1000000, 0);
    algorithm.SetReservedBandwidth(1000000);
    algorithm.Decide(1000000, 2000);
    EXPECT_FALSE(algorithm.IsVideoBuffered());
}

TEST_F(SwitchingAlgorithmTest, ALevelWithoutABitrateIsNeverChosen) {
    Algorithm algorithm({0, 500000, 1000000});
    EXPECT_EQ(algorithm.Decide(0, 0), 1);
    algorithm.Restart();
    EXPECT_EQ(algorithm.Decide(100, 3000), 1);
    Algorithm nothing({0, 0});
    EXPECT_EQ(nothing.Decide(1000000, 5000), 0);
    EXPECT_FALSE(nothing.IsVideoBuffered());
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
