#include <gmock/gmock.h>

#include "system/SessionFixture.h"

using namespace opal::test;
using testing::ElementsAre;

namespace {

class PlaybackTest : public SessionFixture {};

}  // namespace

TEST_F(PlaybackTest, AFilmPlaysToItsEndAndEveryBlockReachesTheSetOnce) {
    StartPlaying({});
    ASSERT_TRUE(m_listener.WaitFor("OnEndOfStream"));
    EXPECT_EQ(Pushed(kVideo), ExpectedBlocks("level0"));
    EXPECT_EQ(Pushed(kAudio), ExpectedBlocks("audio0"));
    int64_t duration = 0;
    EXPECT_EQ(m_player->GetDuration(duration), OPAL_OK);
    EXPECT_EQ(duration, 10000);
    const auto positions = m_listener.Positions();
    ASSERT_GE(positions.size(), 5u);
    for (size_t i = 1; i < positions.size(); ++i) {
        EXPECT_GT(positions[i].ms, positions[i - 1].ms);
        EXPECT_EQ(positions[i].level, 0u);
    }
    EXPECT_LT(FinalizeMs(), 3000);
    EXPECT_THAT(m_listener.Lines(), ElementsAre("OnVideoLevelChanged 1 0 0", "OnPlay 1 0 -1",
                                                "OnEndOfStream", "OnStop"));
    EXPECT_EQ(m_listener.Progress().back(), 100u);
    EXPECT_EQ(m_player->Finalize(), OPAL_OK) << "a second time finds nothing";
}

TEST_F(PlaybackTest, PauseSeekStopAndASecondSessionTellTheListenerOnceEach) {
    Presentation film;
    film.clusters = 15;
    StartPlaying(film);
    ASSERT_TRUE(WaitForPosition(1000));
    ASSERT_EQ(m_player->Pause(), OPAL_OK);
    ASSERT_TRUE(m_listener.WaitFor("OnPause"));
    ASSERT_EQ(m_player->Play(), OPAL_OK);
    ASSERT_TRUE(m_listener.WaitFor("OnPlay 1 0 -1", 2));

    int64_t position = 21000;
    ASSERT_EQ(m_player->Seek(position), OPAL_OK);
    EXPECT_EQ(position, 20000);
    ASSERT_TRUE(m_listener.WaitFor("OnPlay 1 0 -1", 3));
    ASSERT_TRUE(WaitForPosition(20000));
    position = 5000;
    ASSERT_EQ(m_player->Seek(position), OPAL_OK);
    EXPECT_EQ(position, 4000);
    ASSERT_TRUE(m_listener.WaitFor("OnPlay 1 0 -1", 4));
    ASSERT_TRUE(Eventually([this] {
        const auto positions = m_listener.Positions();
        return positions.back().ms >= 4000 && positions.back().ms < 20000;
    }));

    ASSERT_EQ(m_player->Stop(), OPAL_OK);
    ASSERT_TRUE(m_listener.WaitFor("OnStop"));
    ASSERT_EQ(m_player->Play(), OPAL_OK);
    ASSERT_TRUE(m_listener.WaitFor("OnPlay 1 0 -1", 5));
    EXPECT_LT(FinalizeMs(), 3000);
    EXPECT_THAT(
        m_listener.Lines(),
        ElementsAre("OnVideoLevelChanged 1 0 0", "OnPlay 1 0 -1", "OnPause", "OnPlay 1 0 -1",
                    "OnPlay 1 0 -1", "OnPlay 1 0 -1", "OnStop", "OnPlay 1 0 -1", "OnStop"));

    m_listener.Clear();
    tvset::control::Record(true);
    film.clusters = 2;
    StartPlaying(film);
    ASSERT_TRUE(m_listener.WaitFor("OnEndOfStream"));
    EXPECT_LT(FinalizeMs(), 3000);
    EXPECT_THAT(m_listener.Lines(), ElementsAre("OnVideoLevelChanged 1 0 0", "OnPlay 1 0 -1",
                                                "OnEndOfStream", "OnStop"));
}

TEST_F(PlaybackTest, SeeksBeyondTheEndsAndDuringAStalledTransfer) {
    Presentation film;
    film.clusters = 15;
    m_origin.SetRate(1000000 * kSpeed);
    StartPlaying(film);
    int64_t position = -1;
    EXPECT_EQ(m_player->Seek(position), OPAL_ERROR_INVALID_ARGUMENT);
    ASSERT_TRUE(WaitForPosition(1000));

    const uint64_t fault = m_origin.Hold("level0");
    ASSERT_TRUE(m_origin.WaitForHeld(fault, 1, 20000));
    position = 21000;
    const auto begin = std::chrono::steady_clock::now();
    ASSERT_EQ(m_player->Seek(position), OPAL_OK);
    EXPECT_LT(std::chrono::steady_clock::now() - begin, std::chrono::milliseconds(2500));
    EXPECT_EQ(position, 20000);
    m_origin.Release(fault);
    ASSERT_TRUE(WaitForPosition(20000));
    EXPECT_EQ(m_listener.Count("OnUnderflow"), 0u);

    position = INT64_MAX;
    ASSERT_EQ(m_player->Seek(position), OPAL_OK);
    EXPECT_EQ(position, 28000);
    ASSERT_TRUE(m_listener.WaitFor("OnEndOfStream"));
    EXPECT_EQ(m_listener.Count("OnEndOfStream"), 1u);
    EXPECT_LT(FinalizeMs(), 3000);
    EXPECT_EQ(m_listener.Count("OnError -2 ''"), 0u);
}

// All that is left to play is with the television before it says that it is ready.
TEST_F(PlaybackTest, AFilmOfOneClusterAndASeekToTheLastOneAtTheStart) {
    for (const int clusters : {1, 15}) {
        Presentation film;
        film.clusters = clusters;
        m_listener.Clear();
        StartPlaying(film);
        int64_t position = INT64_MAX;
        if (clusters > 1) {
            ASSERT_EQ(m_player->Seek(position), OPAL_OK);
        }
        ASSERT_TRUE(m_listener.WaitFor("OnEndOfStream")) << clusters;
        EXPECT_LT(FinalizeMs(), 3000);
    }
}

TEST_F(PlaybackTest, AnAudioTrackChangesInPlayAndInPause) {
    Presentation film;
    film.clusters = 15;
    film.audioTracks = 2;
    StartPlaying(film);
    ASSERT_TRUE(WaitForPosition(1000));
    ASSERT_EQ(m_player->SetAudioTrack(1), OPAL_OK);
    ASSERT_TRUE(m_listener.WaitFor("OnAudioTrackChanged 1"));
    EXPECT_EQ(m_player->GetCurrentAudioTrack(), 1u);
    const std::vector<SeenBlock> second = ExpectedBlocks("audio1");
    ASSERT_TRUE(Eventually([&] {
        const auto pushed = Pushed(kAudio);
        return std::find(second.begin(), second.end(), pushed.back()) != second.end();
    }));

    ASSERT_EQ(m_player->Pause(), OPAL_OK);
    ASSERT_TRUE(m_listener.WaitFor("OnPause"));
    ASSERT_EQ(m_player->SetAudioTrack(0), OPAL_OK);
    ASSERT_TRUE(m_listener.WaitFor("OnAudioTrackChanged 0"));
    ASSERT_EQ(m_player->Play(), OPAL_OK);
    const std::vector<SeenBlock> first = ExpectedBlocks("audio0");
    ASSERT_TRUE(Eventually([&] {
        const auto pushed = Pushed(kAudio);
        return std::find(first.begin(), first.end(), pushed.back()) != first.end();
    }));
    EXPECT_EQ(m_player->SetAudioTrack(2), OPAL_ERROR_OUT_OF_RANGE);
    EXPECT_LT(FinalizeMs(), 3000);
    EXPECT_EQ(m_listener.Count("OnUnderflow"), 0u);
}

TEST_F(PlaybackTest, TrickRatesShowKeyFramesInTheirDirectionAndReturn) {
    Presentation film;
    film.clusters = 60;
    film.trick = true;
    StartPlaying(film);
    ASSERT_TRUE(WaitForPosition(1000));
    EXPECT_EQ(m_player->SetPlayRate(static_cast<OPALPlayRate>(12)), OPAL_ERROR_INVALID_ARGUMENT);
    EXPECT_EQ(m_player->SetPlayRate(OPAL_PLAYRATE_EIGHTXFF), OPAL_OK);
    ASSERT_TRUE(m_listener.WaitFor("OnPlayRateChanged 6"));
    ASSERT_TRUE(WaitForPosition(40000));
    EXPECT_EQ(m_player->SetPlayRate(OPAL_PLAYRATE_FOURXRW), OPAL_OK);
    ASSERT_TRUE(m_listener.WaitFor("OnPlayRateChanged 5"));
    ASSERT_TRUE(Eventually([this] {
        const auto positions = m_listener.Positions();
        return positions.size() > 2 && positions.back().ms < 36000;
    }));
    EXPECT_EQ(m_player->SetPlayRate(OPAL_PLAYRATE_ONEX), OPAL_OK);
    ASSERT_TRUE(m_listener.WaitFor("OnPlay 1 0 -1", 2));
    const size_t soFar = m_listener.Positions().size();
    ASSERT_TRUE(Eventually([&] { return m_listener.Positions().size() >= soFar + 3; }));
    const auto positions = m_listener.Positions();
    EXPECT_GT(positions.back().ms, positions[soFar + 1].ms) << "forward again";
    EXPECT_LT(positions.back().ms, 40000);
    EXPECT_EQ(m_listener.Count("OnUnderflow"), 0u);

    // One request a trick cluster: of the cluster's opening, and then of the frames.
    const auto& clusters = m_files["trick"].layout.clusters;
    size_t trickRequests = 0;
    for (const auto& record : m_origin.Log("trick")) {
        if (record.ranges.size() < 2)
            continue;
        ++trickRequests;
        EXPECT_EQ(record.status, 206);
        EXPECT_TRUE(std::any_of(clusters.begin(), clusters.end(), [&](const auto& cluster) {
            return record.ranges[0].first == static_cast<int64_t>(cluster.offset) &&
                   record.ranges[0].last + 1 == static_cast<int64_t>(cluster.frameOffsets[0]);
        })) << record.rangeText;
    }
    EXPECT_GE(trickRequests, 6u);
    EXPECT_LT(FinalizeMs(), 3000);
}
