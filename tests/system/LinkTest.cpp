#include <gmock/gmock.h>

#include <set>

#include "opal-simulate/Replay.h"
#include "opal-simulate/SimulatedClock.h"
#include "support/TemporaryDirectory.h"
#include "system/Nginx.h"
#include "system/SessionFixture.h"

using namespace opal::test;

namespace {

class LinkTest : public SessionFixture {
  protected:
    explicit LinkTest(int speed = kSpeed) : SessionFixture(speed) {}

    /// A link as the session sees it: real time is kSpeed times as short.
    void SetRateKbps(int64_t kbps) { m_origin.SetRate(kbps * 1000 * kSpeed); }
    void ExpectTheLevelFollowed();
    void ExpectTheSameDecisionsAgain();

    SwitchingObserver m_switching;
};

/// No gap and no overlap: each block starts where the one before it ended.
void ExpectGapless(const std::vector<SeenBlock>& blocks, int64_t blockMs) {
    for (size_t i = 1; i < blocks.size(); ++i)
        ASSERT_EQ(blocks[i].timeMs, blocks[i - 1].timeMs + blockMs) << i;
}

// Up, down and up again, at cluster boundaries, with no flush, gap or overlap; and the level told
// with a position is that of the block on the screen.
void LinkTest::ExpectTheLevelFollowed() {
    const std::vector<SeenBlock> pushed = Pushed(kVideo);
    ExpectGapless(pushed, 200);
    for (const auto& entry : tvset::control::Journal())
        EXPECT_NE(entry.call, "MM_SetFlushData");

    std::vector<std::vector<SeenBlock>> levels;
    for (size_t i = 0; i < m_presentation.levelKbps.size(); ++i)
        levels.push_back(ExpectedBlocks("level" + std::to_string(i)));
    std::vector<size_t> shown;  // level of each block
    for (size_t i = 0; i < pushed.size(); ++i) {
        size_t level = 0;
        while (level < levels.size() && !(levels[level][i] == pushed[i]))
            ++level;
        ASSERT_LT(level, levels.size()) << "block " << i << " is of no level";
        shown.push_back(level);
        if (i % 10 != 0) {
            ASSERT_EQ(shown[i], shown[i - 1]) << "a switch within a cluster, block " << i;
        }
    }
    const auto above = [](size_t level) { return level >= 2; };
    const auto below = [](size_t level) { return level <= 1; };
    auto at = std::find_if(shown.begin(), shown.end(), above);
    at = std::find_if(at, shown.end(), below);
    EXPECT_NE(at, shown.end()) << "never up and down";
    at = std::find_if(at, shown.end(), above);
    EXPECT_NE(at, shown.end()) << "never up again";

    for (const auto& position : m_listener.Positions()) {
        if (position.level == static_cast<size_t>(-1))
            continue;
        const auto index = static_cast<size_t>(position.ms / 200);
        ASSERT_LT(index, shown.size());
        EXPECT_EQ(position.level, shown[index]) << position.ms;
    }
}

void LinkTest::ExpectTheSameDecisionsAgain() {
    opal::simulate::SimulatedClock clock;
    opal::SetClock(&clock);
    size_t levels = 0;
    for (const auto& answer : opal::simulate::Replay(m_switching.Records())) {
        levels += answer.IsLevel() ? 1 : 0;
        EXPECT_EQ(answer.now, answer.then) << answer.timeUs;
    }
    EXPECT_GT(levels, 10u);
    opal::SetClock(&m_clock);
}

class NginxLinkTest : public LinkTest {
  protected:
    NginxLinkTest() : LinkTest(1) {}
};

}  // namespace

// Six megabits a second, one from 20 s on, eight from 60 s on.
TEST_F(LinkTest, TheLevelFollowsTheLink) {
    Presentation film;
    film.levelKbps = {400, 800, 1500, 3000, 5000};
    film.clusters = 50;
    opal::origin::RateScript link;
    link.steps = {{0, 6000000 * kSpeed, 0},
                  {20000 / kSpeed, 1000000 * kSpeed, 0},
                  {60000 / kSpeed, 8000000 * kSpeed, 0}};
    m_origin.SetRateScript(link);
    StartPlaying(film);
    ASSERT_TRUE(m_listener.WaitFor("OnEndOfStream", 1, std::chrono::seconds(60)));
    EXPECT_EQ(Pushed(kVideo).size(), 500u);
    ExpectTheLevelFollowed();
    // Whatever the level, clusters are asked for in order; one comes again when the buffer is full.
    std::vector<int> asked;
    for (const std::string& request : ClusterRequests()) {
        if (request.rfind("level", 0) == 0)
            asked.push_back(std::stoi(request.substr(request.find('/') + 1)));
    }
    EXPECT_TRUE(std::is_sorted(asked.begin(), asked.end()));
    EXPECT_EQ(std::set<int>(asked.begin(), asked.end()).size(), 50u);
    EXPECT_LT(FinalizeMs(), 3000);
    ExpectTheSameDecisionsAgain();
}

// nginx limits the rate of each reply, but lets the first second of it through; so the rates lie
// between what a cluster of the first level is and what two seconds of the last one need.
TEST_F(NginxLinkTest, TheLevelFollowsTheLink) {
    const char* fast = "240k";
    const char* slow = "90k";
    Presentation film;
    film.levelKbps = {1000, 1500, 2400};
    film.clusters = 60;
    Serve(film);
    TemporaryDirectory folder;
    for (const auto& [name, file] : m_files)
        folder.Write(name, std::string(file.bytes.begin(), file.bytes.end()));
    Nginx nginx(folder.Path(), fast);
    ASSERT_FALSE(nginx.Url().empty());
    folder.Write("film.smil", ManifestText(nginx.Url()));

    ASSERT_EQ(InitializeFrom(nginx.Url() + "film.smil"), OPAL_OK);
    ASSERT_EQ(m_player->Play(), OPAL_OK);
    const auto goesTo = [this](size_t level) {
        return Eventually([&] { return m_player->GetCurrentVideoLevel() == level; },
                          std::chrono::seconds(60));
    };
    ASSERT_TRUE(goesTo(2));
    ASSERT_TRUE(nginx.SetRate(slow));
    ASSERT_TRUE(goesTo(0));
    ASSERT_TRUE(nginx.SetRate(fast));
    ASSERT_TRUE(goesTo(2));
    const size_t told = m_listener.Positions().size();
    ASSERT_TRUE(Eventually(
        [&] {
            const auto positions = m_listener.Positions();
            return positions.size() > told && positions.back().level == 2;
        },
        std::chrono::seconds(60)));
    ExpectTheLevelFollowed();
    EXPECT_LT(FinalizeMs(), 3000);
    ExpectTheSameDecisionsAgain();
}

TEST_F(LinkTest, ACutLinkUnderflowsOnceAndPlaybackResumesByItself) {
    Presentation film;
    film.levelKbps = {400};
    film.clusters = 30;
    SetRateKbps(900);
    StartPlaying(film);
    ASSERT_TRUE(WaitForPosition(3000));
    m_listener.Clear();
    m_origin.SetRate(0);
    ASSERT_TRUE(m_listener.WaitFor("OnUnderflow"));
    SetRateKbps(4000);
    ASSERT_TRUE(m_listener.WaitFor("OnPlay 1 0 -1"));
    const std::vector<size_t> progress = m_listener.Progress();
    ASSERT_FALSE(progress.empty());
    EXPECT_TRUE(std::is_sorted(progress.begin(), progress.end()));
    EXPECT_EQ(progress.back(), 100u);
    ASSERT_TRUE(m_listener.WaitFor("OnEndOfStream", 1, std::chrono::seconds(60)));
    EXPECT_EQ(m_listener.Count("OnUnderflow"), 1u);
    ExpectGapless(Pushed(kVideo), 200);
    EXPECT_LT(FinalizeMs(), 3000);
}

TEST_F(LinkTest, StalledAudioLeavesThePictureRunning) {
    Presentation film;
    film.clusters = 20;
    StartPlaying(film);
    const uint64_t fault = m_origin.Hold("audio0");
    ASSERT_TRUE(WaitForPosition(8000));
    const auto begin = std::chrono::steady_clock::now();
    EXPECT_EQ(m_player->Pause(), OPAL_OK);  // 100 ms where nothing else runs
    EXPECT_LT(std::chrono::steady_clock::now() - begin, std::chrono::milliseconds(500));
    ASSERT_EQ(m_player->Play(), OPAL_OK);
    m_origin.Release(fault);
    ASSERT_TRUE(m_listener.WaitFor("OnEndOfStream", 1, std::chrono::seconds(60)));
    EXPECT_EQ(m_listener.Count("OnUnderflow"), 0u);
    EXPECT_EQ(Pushed(kVideo), ExpectedBlocks("level0"));
    EXPECT_LT(FinalizeMs(), 3000);
}
