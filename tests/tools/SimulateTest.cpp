#include <gmock/gmock.h>

#include <filesystem>
#include <future>
#include <sstream>

#include "opal-simulate/Film.h"
#include "opal-simulate/Replay.h"
#include "opal-simulate/Session.h"
#include "opal-simulate/SessionRecorder.h"
#include "opal-simulate/SimulatedClock.h"
#include "opal-simulate/Tunables.h"
#include "recording/SessionReader.h"
#include "support/TemporaryDirectory.h"

using namespace opal::simulate;

namespace {

constexpr double kLimitMs = 1e6;

Film Ladder(const std::vector<int>& kbps, size_t clusters) {
    Film film;
    for (int rate : kbps) {
        const int bits = rate * 1000;
        film.levels.push_back({bits, bits * 2, std::vector<int64_t>(clusters, bits / 4)});
    }
    return film;
}

class SimulateTest : public testing::Test {
  protected:
    SimulateTest() {
        AlgorithmConfig::Instance().Reset();
        opal::SetClock(&m_clock);
    }
    ~SimulateTest() override {
        opal::SetClock(nullptr);
        AlgorithmConfig::Instance().Reset();
    }
    SimulatedClock m_clock;
};

}  // namespace

TEST_F(SimulateTest, FilmsAreCutAnewIntoClustersOfTwoSeconds) {
    const opal::test::TemporaryDirectory directory;
    const auto read = [&directory](const std::string& text) {
        return ReadFilm(directory.Write("film.json", text));
    };
    const Film film = read(
        R"({"segment_duration_ms": 3000, "bitrates_kbps": [800, 400],
            "segment_sizes_bits": [[2400000, 1200000], [2400000, 600000]]})");
    ASSERT_EQ(film.levels.size(), 2u);
    EXPECT_EQ(film.levels[0].bitrate, 400000);
    EXPECT_THAT(film.levels[0].clusterSizes, testing::ElementsAre(100000, 75000, 50000));
    EXPECT_THAT(film.levels[1].clusterSizes, testing::ElementsAre(200000, 200000, 200000));
    for (const char* text :
         {"", "{}",
          R"({"segment_duration_ms": 0, "bitrates_kbps": [1], "segment_sizes_bits": [[1]]})",
          R"({"segment_duration_ms": 2000, "bitrates_kbps": [1, 2], "segment_sizes_bits": [[1]]})",
          R"({"segment_duration_ms": 2000, "bitrates_kbps": [-1], "segment_sizes_bits": [[1]]})"})
        EXPECT_THROW(read(text), std::runtime_error) << text;
    for (const char* text : {"", "[]", R"([{"duration_ms": -1, "bandwidth_kbps": 1}])",
                             R"([{"duration_ms": 1, "bandwidth_kbps": 0}])"})
        EXPECT_THROW(ReadTrace(directory.Write("trace.json", text)), std::runtime_error) << text;
}

// They were made before the switching code had the settings that are off by default.
TEST_F(SimulateTest, RecordedSessionsAreDecidedAsTheyWere) {
    size_t levels = 0;
    for (const auto& file : std::filesystem::directory_iterator(OPAL_TEST_RECORDINGS)) {
        opal::recording::Session session;
        std::string problem;
        ASSERT_TRUE(opal::recording::SessionReader::ReadFile(file.path(), &session, &problem));
        for (const Replayed& answer : Replay(session.records)) {
            levels += answer.IsLevel() ? 1 : 0;
            EXPECT_EQ(answer.now, answer.then) << file.path() << " " << answer.timeUs;
        }
        auto call = opal::SwitchingCallEvent();  // before the levels are known
        EXPECT_THROW(Replay({call}), std::runtime_error);
        call.kind = opal::SwitchingCallEvent::Kind::SetLevels;
        call.levels.resize(65);
        EXPECT_THROW(Replay({call}), std::runtime_error);
    }
    EXPECT_GT(levels, 150u);
}

TEST_F(SimulateTest, ASimulatedSessionIsRecordedAndDecidedTheSameAgain) {
    Film film = Ladder({300, 1000, 3000, 5000}, 60);
    film.audioBitrate = 128000;
    Tunables tunables = Tunables::Current();
    tunables.Set("abandonTransfers=1");
    tunables.Set("minBufferedToEnterAgile=20000");
    tunables.Apply();
    const std::string settings = Tunables::Current().ToSettingsFile();
    std::stringstream text;
    PlayOptions options{kLimitMs};
    Result result;
    {
        SessionRecorder recorder({}, [&text](const std::string& line) { text << line << "\n"; });
        options.recorder = &recorder;
        result = Play(film, {"", {{1e4, 750, 20}, {3e4, 25, 20}, {1e6, 100, 20}}}, options);
    }
    opal::recording::Session session;
    std::string problem;
    ASSERT_TRUE(opal::recording::SessionReader::Read(text, &session, &problem)) << problem;
    EXPECT_EQ(session.skipped + session.unreadable, 0u);
    std::map<std::string, int> seen;
    int64_t bytes = 0;
    for (const auto& record : session.records) {
        if (const auto* request = std::get_if<opal::RequestEvent>(&record)) {
            const bool cluster = request->purpose == opal::RequestPurpose::Cluster;
            bytes += cluster ? request->bytes : 0;
            seen["given up"] += request->end == opal::RequestEnd::SlowTransfer ? 1 : 0;
            EXPECT_LE(request->waitUs, 20000);
        } else if (const auto* state = std::get_if<opal::StateEvent>(&record)) {
            seen["stalls"] += state->state == opal::SessionState::Underflow ? 1 : 0;
            seen["switches"] += state->state == opal::SessionState::Level ? 1 : 0;
            seen["ends"] += state->state == opal::SessionState::EndOfStream ? 1 : 0;
        }
    }
    EXPECT_GT(result.stalls, 0);
    EXPECT_EQ(seen, (std::map<std::string, int>{{"given up", result.abandoned},
                                                {"stalls", result.stalls},
                                                {"switches", result.switches},
                                                {"ends", 1}}));
    EXPECT_EQ(bytes, result.bytes);
    AlgorithmConfig::Instance().Reset();
    ASSERT_TRUE(LoadConfigText(settings));
    EXPECT_EQ(AlgorithmConfig::Instance().GetMinBufferedToEnterAgile(), 20000);
    for (const Replayed& answer : Replay(session.records))
        EXPECT_EQ(answer.now, answer.then) << answer.timeUs;
    tunables.Set("agile.minPeriodUpSwitch=1500");
    EXPECT_THROW((void)tunables.ToSettingsFile(), UsageError) << "a file has whole seconds";
}

TEST_F(SimulateTest, SessionsSideBySideFollowTheirLinksStallAndRecover) {
    const std::tuple<const char*, std::vector<Trace::Piece>, int, int, bool> rows[] = {
        {"1.5 Mbit/s", {{1e3, 187.5, 20}}, 1, 0, true},
        {"2.6 Mbit/s", {{1e3, 325, 20}}, 2, 0, true},
        {"9 Mbit/s", {{1e3, 1125, 20}}, 3, 0, true},
        {"9 Mbit/s without latency", {{1e3, 1125, 0}}, 3, 0, true},
        {"cut for 50 s", {{2e4, 250, 20}, {5e4, 0, 20}, {1e6, 250, 20}}, 1, 1, true},
        {"dead after 20 s", {{2e4, 250, 20}, {1e7, 0, 20}}, 1, 1, false},
        {"dead in the header", {{1, 250, 20}, {1e7, 0, 20}}, -1, 0, false},
        {"dead while the probe measures", {{110, 250, 20}, {1e7, 0, 20}}, -1, 0, false},
    };
    const Film film = Ladder({500, 1000, 2000, 4000}, 60);
    std::vector<std::future<void>> sessions;
    for (const auto& row : rows) {
        sessions.push_back(std::async(std::launch::async, [&film, &row] {
            const auto& [what, pieces, lastLevel, stalls, finished] = row;
            int last = -1;
            PlayOptions options{kLimitMs};
            options.listener = [&last](double, size_t, int level) { last = level; };
            const Result result = Play(film, {what, pieces}, options);
            EXPECT_EQ(result.finished, finished) << what;
            EXPECT_EQ(result.stalls, stalls) << what;
            EXPECT_EQ(last, lastLevel) << what;
            EXPECT_LT(result.stallMs, 60000.0) << what;
            EXPECT_EQ(result.clusters == 60, finished) << what;
        }));
    }
    for (auto& session : sessions)
        session.get();
    Tunables bounded = Tunables::Current();
    bounded.Set("maxBuffer=8000");
    bounded.Apply();
    const Result result = Play(Ladder({500, 1000}, 40), {"", {{1e3, 1000, 20}}}, {kLimitMs});
    EXPECT_TRUE(result.finished);
    EXPECT_GT(result.refetches, 10) << "a cluster that meets a full buffer is fetched again";
}

// Ten seconds of 6 Mbit/s, then 400 kbit/s: a cluster of a high level is on its way.
TEST_F(SimulateTest, ATransferThatOutlastsTheBufferIsGivenUpAndTheSessionDoesNotStall) {
    const Film film = Ladder({300, 1000, 3000, 5000}, 60);
    const Trace falling = {"", {{1e4, 750, 20}, {1e6, 50, 20}}};
    for (const char* setting : {"initialBandwidthDecision=1", "minBufferedToEnterAgile=20000"}) {
        Tunables tunables = Tunables::Current();
        tunables.Set(setting);
        tunables.Apply();
        const Result without = Play(film, falling, {kLimitMs});
        tunables.Set("abandonTransfers=1");
        tunables.Apply();
        const Result with = Play(film, falling, {kLimitMs});
        AlgorithmConfig::Instance().Reset();
        EXPECT_EQ(without.abandoned, 0);
        EXPECT_GT(without.stallMs, 0.0) << setting;
        EXPECT_GT(with.abandoned, 0) << setting;
        EXPECT_LT(with.stallMs, without.stallMs / 2) << setting;
        EXPECT_EQ(with.levels.size(), 60u) << "a cluster that was given up is fetched again";
    }
}

TEST_F(SimulateTest, TheOrderOfIdleTimeKeepsTheLevelStillUnderSound) {
    Film film = Ladder({500, 1000, 1500, 2000, 2500, 3000, 4000}, 300);
    film.audioBitrate = 128000;
    const Trace steady = {"", {{1e3, 375, 20}}};
    const int byEnd = Play(film, steady, {kLimitMs}).switches;
    Tunables tunables = Tunables::Current();
    tunables.Set("bandwidthMonitorGapOrder=1");
    tunables.Apply();
    const int byStart = Play(film, steady, {kLimitMs}).switches;
    EXPECT_GT(byEnd, 10);
    EXPECT_LE(byStart, 4);
}

TEST_F(SimulateTest, BolaGoesByTheBufferAndByWhatTheLinkCarries) {
    BolaRule rule({500000, 1000000, 2000000, 4000000}, 2000.0, 25000.0);
    EXPECT_EQ(rule.Choose(0.0).level, 0u) << "nothing is known of the link";
    rule.OnDownload(562500, 1500);  // 3 Mbit/s
    EXPECT_EQ(rule.Choose(2000.0).level, 2u) << "what the link carries";
    EXPECT_EQ(rule.Choose(1000.0).level, 1u)
        << "what the buffer carries, and 8 s more from the start";
    const auto full = rule.Choose(25000.0);
    EXPECT_EQ(full.level, 2u) << "no more than the link carries";
    EXPECT_GE(full.waitMs, 2000.0) << "there is no room for a cluster";
    EXPECT_FALSE(rule.Abandon(2, 500000, 400000, 20000.0));
    EXPECT_EQ(rule.Abandon(2, 500000, 10000, 0.0), 0u);
    for (const auto& [kbps, mean] : {std::pair{1500, 1000.0}, {6000, 4000.0}}) {
        PlayOptions options{kLimitMs};
        options.rule = RuleName::BolaE;
        const Result result =
            Play(Ladder({500, 1000, 2000, 4000}, 100), {"", {{1e3, kbps / 8.0, 20}}}, options);
        EXPECT_TRUE(result.finished);
        EXPECT_EQ(result.stalls, 0);
        EXPECT_NEAR(result.MeanKbps(), mean, 300.0);
    }
}

TEST_F(SimulateTest, TunablesAreSetByNameAndSpanGrids) {
    Tunables tunables = Tunables::Current();
    EXPECT_THROW(Grid(tunables, {"maxLevelDrop="}), std::runtime_error);
    for (const char* wrong : {"", "=1", "nothing=1", "maxLevelDrop=x", "agile.maxLevelDrop=1"})
        EXPECT_THROW(tunables.Set(wrong), std::runtime_error) << wrong;
    tunables.Set("steady.minPeriodUpSwitch=7000");
    const auto grid = Grid(tunables, {"maxLevelDrop=0,3", "upperGuardTrigger=5,10,20"});
    ASSERT_EQ(grid.size(), 6u);
    EXPECT_EQ(grid[4].Describe(),
              "steady.minPeriodUpSwitch=7000 maxLevelDrop=3 upperGuardTrigger=10");
    grid[4].Apply();
    EXPECT_EQ(AlgorithmConfig::Instance().GetMaxLevelDrop(), 3);
}
