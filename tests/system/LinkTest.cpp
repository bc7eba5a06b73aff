#include <gmock/gmock.h>

#include "opal-simulate/SimulatedClock.h"
#include "system/SessionFixture.h"

using namespace opal::test;
using opal::origin::Fault;

namespace {

constexpr uint32_t kVideo = 1;

class LinkTest : public SessionFixture {
  protected:
    /// A link as the session sees it: real time is kSpeed times as short.
    void SetRateKbps(int64_t kbps) { m_origin.SetRate(kbps * 1000 * kSpeed); }
};

/// No gap and no overlap: each block starts where the one before it ended.
void ExpectGapless(const std::vector<SeenBlock>& blocks, int64_t blockMs) {
    for (size_t i = 1; i < blocks.size(); ++i)
        ASSERT_EQ(blocks[i].timeMs, blocks[i - 1].timeMs + blockMs) << i;
}

size_t Flushes() {
    size_t count = 0;
    for (const auto& entry : tvset::control::Journal())
        count += entry.call == "MM_SetFlushData" ? 1 : 0;
    return count;
}

}  // namespace

// The link carries the second level, then hardly the first, then all of them. The level follows at
// cluster boundaries, nothing is flushed, and the switching code decides the same when the recorded
// samples are fed to it again.
TEST_F(LinkTest, TheLevelFollowsTheLink) {
    Presentation film;
    film.levelKbps = {200, 500, 1200};
    film.clusters = 40;
    film.audioKbps = 16;
    SetRateKbps(800);
    StartPlaying(film);
    ASSERT_TRUE(m_listener.WaitFor("OnVideoLevelChanged 3 0 1"));
    ASSERT_TRUE(WaitForPosition(10000));
    SetRateKbps(350);
    ASSERT_TRUE(m_listener.WaitFor("OnVideoLevelChanged 3 1 0"));
    SetRateKbps(4000);
    ASSERT_TRUE(m_listener.WaitFor("OnEndOfStream", 1, std::chrono::seconds(60)));
    EXPECT_GE(m_listener.Count("OnVideoLevelChanged 3 0 2") +
                  m_listener.Count("OnVideoLevelChanged 3 1 2"),
              1u);
    EXPECT_EQ(m_listener.Count("OnUnderflow"), 0u);

    const std::vector<SeenBlock> pushed = Pushed(kVideo);
    EXPECT_EQ(pushed.size(), 400u);
    ExpectGapless(pushed, 200);
    EXPECT_EQ(Flushes(), 0u);
    // The level told with the position is that of the block on the screen.
    for (const auto& position : m_listener.Positions()) {
        if (position.level == static_cast<size_t>(-1))
            continue;
        const auto blocks = ExpectedBlocks("level" + std::to_string(position.level));
        const auto index = static_cast<size_t>(position.ms / 200);
        ASSERT_LT(index, pushed.size());
        EXPECT_EQ(pushed[index], blocks[index]) << position.ms;
    }
    EXPECT_LT(FinalizeMs(), 3000);

    const std::shared_ptr<opal::simulate::Recording> recording = m_player->recording;
    opal::simulate::SimulatedClock clock;
    opal::SetClock(&clock);
    EXPECT_EQ(opal::simulate::Replay(*recording).Decisions(), recording->Decisions());
    opal::SetClock(&m_clock);
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
    EXPECT_EQ(m_player->Pause(), OPAL_OK);
    EXPECT_LT(std::chrono::steady_clock::now() - begin, std::chrono::milliseconds(1000));
    ASSERT_EQ(m_player->Play(), OPAL_OK);
    m_origin.Release(fault);
    ASSERT_TRUE(m_listener.WaitFor("OnEndOfStream", 1, std::chrono::seconds(60)));
    EXPECT_EQ(m_listener.Count("OnUnderflow"), 0u);
    EXPECT_EQ(Pushed(kVideo), ExpectedBlocks("level0"));
    EXPECT_LT(FinalizeMs(), 3000);
}
