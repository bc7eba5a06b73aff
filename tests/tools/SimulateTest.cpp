#include <gmock/gmock.h>

#include <thread>
#include <vector>

#include "opal-simulate/Film.h"
#include "opal-simulate/Link.h"
#include "opal-simulate/Recording.h"
#include "opal-simulate/Report.h"
#include "opal-simulate/Session.h"
#include "opal-simulate/SimulatedClock.h"
#include "opal-simulate/SimulatedStreams.h"
#include "opal-simulate/Tunables.h"
#include "support/TemporaryDirectory.h"

using namespace opal::simulate;

namespace {

/// Kilobits a second are bits a millisecond.
Trace ConstantLink(double kbps, double latencyMs = 20.0) {
    return {"constant", {{1000.0, kbps / 8.0, latencyMs}}};
}

Film Ladder(const std::vector<int>& kbps, size_t clusters) {
    Film film;
    for (int rate : kbps) {
        Film::Level level;
        level.bitrate = rate * 1000;
        level.vbv = level.bitrate * 2;
        level.clusterSizes.assign(clusters, level.bitrate / 4);
        film.levels.push_back(level);
    }
    return film;
}

class SimulateTest : public testing::Test {
  protected:
    void SetUp() override {
        AlgorithmConfig::Instance().Reset();
        opal::SetClock(&m_clock);
    }
    void TearDown() override {
        opal::SetClock(nullptr);
        AlgorithmConfig::Instance().Reset();
    }
    SimulatedClock m_clock;
};

}  // namespace

TEST_F(SimulateTest, TheLinkIsSharedEvenlyAndWaitsItsLatency) {
    const Trace trace = {"", {{1000.0, 100.0, 50.0}, {1000.0, 0.0, 0.0}, {500.0, 200.0, 10.0}}};
    Link link(trace);
    Transfer first;
    Transfer second;
    link.Start(first, 10000.0);
    EXPECT_DOUBLE_EQ(link.Advance(100.0), 100.0);  // 50 ms latency, 5000 bytes
    link.Start(second, 90000.0);
    EXPECT_DOUBLE_EQ(link.Advance(1000.0), 50.0);  // 5000 bytes more: done
    EXPECT_TRUE(first.IsDone());
    EXPECT_FALSE(second.IsDone());
    // From 150 ms on alone: 85000 bytes until 1000 ms, nothing for a second, 5000 at 200 a ms.
    double passed = 0.0;
    while (!second.IsDone())
        passed += link.Advance(10000.0);
    EXPECT_NEAR(link.NowMs(), 2025.0, 1e-3);
    EXPECT_NEAR(passed, 1875.0, 1e-3);
}

TEST_F(SimulateTest, FilmsAreCutAnewIntoClustersOfTwoSeconds) {
    opal::test::TemporaryDirectory directory;
    const auto read = [&directory](const std::string& text) {
        return ReadFilm(directory.Write("film.json", text));
    };
    const Film film = read(
        R"({"segment_duration_ms": 3000, "bitrates_kbps": [800, 400],
            "segment_sizes_bits": [[2400000, 1200000], [2400000, 600000]]})");
    ASSERT_EQ(film.levels.size(), 2u);
    EXPECT_EQ(film.levels[0].bitrate, 400000);
    EXPECT_EQ(film.levels[0].vbv, 800000);
    EXPECT_THAT(film.levels[0].clusterSizes, testing::ElementsAre(100000, 75000, 50000));
    EXPECT_THAT(film.levels[1].clusterSizes, testing::ElementsAre(200000, 200000, 200000));
    EXPECT_EQ(film.DurationMs(), 6000);

    for (const char* text :
         {"", "{}", "[1]", R"({"segment_duration_ms": 0, "bitrates_kbps": [1],
            "segment_sizes_bits": [[1]]})",
          R"({"segment_duration_ms": 2000, "bitrates_kbps": [1, 2], "segment_sizes_bits": [[1]]})",
          R"({"segment_duration_ms": 2000, "bitrates_kbps": [-1], "segment_sizes_bits": [[1]]})"})
        EXPECT_THROW(read(text), std::runtime_error) << text;
    EXPECT_THROW(ReadFilm(directory.File("missing")), std::runtime_error);
    for (const char* text : {"", "[]", R"([{"duration_ms": -1, "bandwidth_kbps": 1}])",
                             R"([{"duration_ms": 1, "bandwidth_kbps": 0}])"})
        EXPECT_THROW(ReadTrace(directory.Write("trace.json", text)), std::runtime_error) << text;
}

TEST_F(SimulateTest, OnASteadyLinkTheSessionSettlesOnTheLevelItCarries) {
    const Film film = Ladder({500, 1000, 2000, 4000}, 60);
    for (const auto& [kbps, level] :
         {std::pair<double, int>{1500.0, 1}, {2600.0, 2}, {9000.0, 3}}) {
        int last = -1;
        const Result result = Play(film, ConstantLink(kbps), 600000.0,
                                   [&last](double, size_t, int chosen) { last = chosen; });
        EXPECT_TRUE(result.finished);
        EXPECT_EQ(result.stalls, 0) << kbps;
        EXPECT_EQ(last, level) << kbps;
        EXPECT_EQ(result.clusters, 60);
        EXPECT_NEAR(result.playMs, 119500.0, 100.0);
        EXPECT_GT(result.startupMs, 0.0);
        EXPECT_LT(result.startupMs, 4000.0);
    }
}

TEST_F(SimulateTest, ACutLinkStallsAndRecovers) {
    const Film film = Ladder({500, 1000, 2000}, 60);
    const Trace trace = {"cut", {{20000.0, 250.0, 20.0}, {50000.0, 0.0, 20.0}, {1e6, 250.0, 20.0}}};
    const Result result = Play(film, trace, 600000.0);
    EXPECT_TRUE(result.finished);
    EXPECT_EQ(result.stalls, 1);
    EXPECT_GT(result.stallMs, 1000.0);
    EXPECT_LT(result.stallMs, 52000.0);
}

TEST_F(SimulateTest, ADeadLinkEndsTheSessionWithTheTransfersTimeOut) {
    const Film film = Ladder({500, 1000, 2000}, 60);
    const Trace dead = {"dead", {{20000.0, 250.0, 20.0}, {1e7, 0.0, 20.0}}};
    const Result played = Play(film, dead, 600000.0);
    EXPECT_FALSE(played.finished);
    EXPECT_EQ(played.stalls, 1);
    EXPECT_GT(played.stallMs, 1000.0);
    EXPECT_LT(played.stallMs, 60000.0);

    // Dead from the start, in the header, and while the probe measures.
    for (double aliveMs : {1.0, 45.0, 110.0}) {
        const Trace early = {"early", {{aliveMs, 250.0, 20.0}, {1e7, 0.0, 20.0}}};
        const Result none = Play(film, early, 600000.0);
        EXPECT_FALSE(none.finished) << aliveMs;
        EXPECT_EQ(none.playMs, 0.0) << aliveMs;
    }
}

TEST_F(SimulateTest, ABoundedBufferFetchesClustersAgain) {
    Tunables tunables = Tunables::Current();
    tunables.Set("maxBuffer=8000");
    tunables.Apply();
    const Film film = Ladder({500, 1000}, 40);
    const Result result = Play(film, ConstantLink(8000.0), 600000.0);
    EXPECT_TRUE(result.finished);
    EXPECT_GT(result.refetches, 10);
    EXPECT_EQ(result.stalls, 0);
}

TEST_F(SimulateTest, SessionsSideBySideAreTheSameAsAlone) {
    const Film film = Ladder({300, 700, 1500, 3000}, 80);
    std::vector<Trace> traces;
    for (int i = 0; i < 8; ++i)
        traces.push_back({"t" + std::to_string(i),
                          {{7000.0 + 500.0 * i, 300.0, 30.0}, {5000.0, 60.0 + 5.0 * i, 80.0}}});
    std::vector<Result> together(traces.size());
    std::vector<std::thread> threads;
    for (size_t i = 0; i < traces.size(); ++i)
        threads.emplace_back([&, i] { together[i] = Play(film, traces[i], 1e6); });
    for (std::thread& thread : threads)
        thread.join();
    for (size_t i = 0; i < traces.size(); ++i) {
        const Result alone = Play(film, traces[i], 1e6);
        EXPECT_EQ(alone.bitrateSum, together[i].bitrateSum);
        EXPECT_EQ(alone.stallMs, together[i].stallMs);
        EXPECT_EQ(alone.switches, together[i].switches);
    }
}

TEST_F(SimulateTest, ARecordingReplaysToTheSameAnswers) {
    auto recording = std::make_shared<Recording>();
    {
        RecordingSwitchingController controller(NewStreamSwitchingController(), recording);
        std::vector<boost::shared_ptr<IVideoLevel>> levels;
        for (int rate : {500000, 1000000, 2000000, 4000000})
            levels.emplace_back(new SimulatedLevel("u" + std::to_string(rate), rate, rate * 2));
        ASSERT_EQ(controller.SetLevels(levels, {}), OPAL_OK);
        controller.GetCurrentLevel();
        const std::vector<int64_t> sizes(50, 125000);
        SimulatedIndex index(sizes);
        std::vector<IClusterIndex*> indexes = {&index, nullptr, nullptr, nullptr};
        controller.SetClusterIndexes(&indexes);
        StreamSwitchingNotify::Message message;
        for (int i = 0; i < 30; ++i) {
            SimulatedClock::SetNowMs(500.0 * i);
            message.downloadTime = 400;
            message.downloadSize = i < 15 ? 250000 : 25000;
            message.bufferedDuration = 4000 + 500 * i;
            message.timeSinceStart = 500 * i;
            controller.GetNotify()->Notify(OPAL_STREAM_VIDEO,
                                           StreamSwitchingNotify::EVENT_DOWNLOAD_COMPLETE, message);
            controller.GetCurrentLevel();
            controller.IsVideoBuffered();
            if (i == 6)
                indexes[1] = indexes[2] = indexes[3] = &index;
        }
    }
    const std::vector<int> decisions = recording->Decisions();
    ASSERT_EQ(decisions.size(), 31u);
    EXPECT_GT(*std::max_element(decisions.begin(), decisions.end()), 0);
    const Recording read = Recording::FromJson(recording->ToJson());
    EXPECT_EQ(Replay(read).Decisions(), decisions);
    EXPECT_EQ(Replay(read).ToJson(), recording->ToJson());
    Recording impossible = *recording;
    impossible.calls.back().nowMs = 1e300;
    EXPECT_THROW(Recording::FromJson(impossible.ToJson()), std::runtime_error);
    for (const char* text : {"", "{}", R"({"levels": [], "audio_tracks": [], "cluster_sizes": [[1]],
                                          "calls": []})"})
        EXPECT_THROW(Recording::FromJson(text), std::runtime_error) << text;
}

TEST_F(SimulateTest, TunablesAreSetByNameAndSpanGrids) {
    Tunables tunables = Tunables::Current();
    for (const char* wrong : {"", "maxLevelDrop", "=1", "nothing=1", "maxLevelDrop=x",
                              "agile.maxLevelDrop=1", "maxLevelDrop=1 "})
        EXPECT_THROW(tunables.Set(wrong), std::runtime_error) << wrong;
    tunables.Set("steady.minPeriodUpSwitch=7000");
    const std::vector<Tunables> grid =
        Grid(tunables, {"maxLevelDrop=0,3", "upperGuardTrigger=5,10,20"});
    ASSERT_EQ(grid.size(), 6u);
    EXPECT_EQ(grid[4].Describe(),
              "steady.minPeriodUpSwitch=7000 maxLevelDrop=3 upperGuardTrigger=10");
    grid[4].Apply();
    EXPECT_EQ(AlgorithmConfig::Instance().GetMinPeriodUpSwitch(AlgorithmConfig::kSteady), 7000);
    EXPECT_EQ(AlgorithmConfig::Instance().GetMaxLevelDrop(), 3);
    EXPECT_EQ(AlgorithmConfig::Instance().GetUpperGuardTrigger(), 10);
    EXPECT_EQ(AlgorithmConfig::Instance().GetMinBufferedToEnterAgile(), 40000);
    EXPECT_THROW(Grid(tunables, {"maxLevelDrop="}), std::runtime_error);
}
