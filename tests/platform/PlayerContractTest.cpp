// What the layers above count on, whichever way the set decodes.

#include <atomic>
#include <future>

#include "PlayerFixture.h"

namespace {

using tvset::GetStatistics;

class PlayerContract : public PlayerFixture, public testing::WithParamInterface<tvset::Decoding> {
  protected:
    void SetUp() override { Open(OptionsFor()); }
    static tvset::Options OptionsFor() {
        tvset::Options options;
        options.decoding = GetParam();
        return options;
    }
    static bool Decodes() { return GetParam() == tvset::Decoding::Libav; }
};

INSTANTIATE_TEST_SUITE_P(Set, PlayerContract,
                         testing::Values(tvset::Decoding::Libav, tvset::Decoding::PassThrough),
                         [](const auto& mode) {
                             return mode.param == tvset::Decoding::Libav ? "Libav" : "PassThrough";
                         });

TEST_P(PlayerContract, StartsWithoutDataAndNeverCallsBackSynchronously) {
    Connect();
    m_item = 0;
    ASSERT_EQ(Create(), 0);
    ASSERT_NE(m_item, 0u);
    Settle();
    ASSERT_EQ(Ear::Get().Events(), Events{E_EVENT_INIT_OK});
    EXPECT_EQ(Ear::Get().All()[0].item, m_item);
    EXPECT_NE(Ear::Get().All()[0].thread, std::this_thread::get_id());

    ASSERT_EQ(m_player->MM_Play(m_item), 0);
    Run(40);
    EXPECT_EQ(Ear::Get().Events().size(), 1u) << "PLAYING_OK before its time";
    Run(20);
    EXPECT_EQ(Ear::Get().Events(), (Events{E_EVENT_INIT_OK, E_EVENT_PLAYING_OK}));
    EXPECT_EQ(Position(), 0u);
    EXPECT_EQ(Gauge(), 0u);
    EXPECT_EQ(GetStatistics().firstPictureMs, -1);

    PushFilm(0, 10, 60000);
    Settle();
    EXPECT_EQ(Shown(), Pictures(60000, 1)) << "the first picture does not wait";
    EXPECT_EQ(GetStatistics().firstPictureMs, m_clock->NowMs());
}

TEST_P(PlayerContract, DataIsTakenBeforeTheItemAndBeforePlay) {
    Connect();
    const film::Stream sound = film::Audio(300, 44100, 2);
    for (size_t i = 0; i < 5; ++i) {
        ASSERT_EQ(PushTo(0, sound[i].bytes, sound[i].pts, 0), 0);
        ASSERT_EQ(PushTo(0, film::Video()[i].bytes, film::Video()[i].pts, 1), 0);
    }
    ASSERT_EQ(Create(), 0);
    PushFilm(5, 25);
    Run(500);
    EXPECT_EQ(Shown(), Ptss()) << "shown before play";
    ASSERT_EQ(m_player->MM_Play(m_item), 0);
    Run(1000);
    EXPECT_EQ(Shown().size(), Decodes() ? 23u : 25u);
    EXPECT_GT(GetStatistics().audioPlayedMs, 80u);
}

TEST_P(PlayerContract, PicturesAppearInOrderAtTheirTimeAndTheGaugeCountsThem) {
    StartPlaying();
    PushFilm(0, 50, 10000);
    Settle();
    EXPECT_EQ(Gauge(), 1u);
    for (int ms = 0; ms < 1600; ms += 20) {
        EXPECT_EQ(Position(), 10000u + static_cast<uint32_t>(ms / 40 * 40));
        EXPECT_EQ(Gauge(), static_cast<unsigned long>(ms / 40 + 1));
        Run(20);
    }
    EXPECT_EQ(Shown(), Pictures(10000, 41));
    const tvset::Statistics statistics = GetStatistics();
    EXPECT_EQ(statistics.framesShown, 41u);
    EXPECT_EQ(statistics.framesDropped, 0u);
    EXPECT_EQ(statistics.shownPts, 11600u);
    EXPECT_EQ(statistics.videoUnitsPushed, 50u);
}

TEST_P(PlayerContract, TheGaugeNeverMovesBeforeThePosition) {
    StartPlaying();
    std::atomic<bool> stop{false};
    std::atomic<int> wrong{0};
    std::thread watcher([&] {
        while (!stop) {
            unsigned long gauge = 0;
            (void)m_player->MM_GetVideoDataBufferInfo(m_item, EN_PLAYER_VIDEO_BUFFER_LEVEL, &gauge);
            const uint32_t position = m_player->MM_GetVideoPTS();
            if (gauge > 0 && position < 1000 + (gauge - 1) * film::kFrameMs) {
                ++wrong;
            }
        }
    });
    PushFilm(0, 50, 1000);
    Run(1600);
    stop = true;
    watcher.join();
    EXPECT_EQ(wrong, 0);
    EXPECT_EQ(Gauge(), 41u);
}

TEST_P(PlayerContract, PauseFreezesPictureAndSoundAndNothingIsRefused) {
    StartPlaying();
    PushFilm(0, 50);
    PushSound(film::Audio(2000, 44100, 2));
    Run(400);
    ASSERT_EQ(SetPaused(true), 0);
    Settle();
    const auto before = GetStatistics();
    Run(2000);
    EXPECT_EQ(Position(), 400u);
    EXPECT_EQ(GetStatistics().framesShown, before.framesShown);
    EXPECT_EQ(GetStatistics().audioPlayedMs, before.audioPlayedMs);
    const std::vector<uint8_t> big(size_t{1} << 20);
    for (uint32_t i = 0; i < 100; ++i) {
        ASSERT_EQ(PushVideo(big, 3000 + i), 0) << "a paused player refuses";
    }
    EXPECT_GT(GetStatistics().unitsDiscarded, 30u) << "memory is not bounded";
    ASSERT_EQ(SetPaused(false), 0);
    Run(200);
    EXPECT_EQ(Shown(), Pictures(0, 16));
    EXPECT_NEAR(static_cast<double>(GetStatistics().audioPlayedMs), 600, 60);
}

TEST_P(PlayerContract, FlushDropsBothKindsAndTheNextPictureIsShownAtOnce) {
    StartPlaying();
    for (const uint32_t target : {60000u, 5000u, 5000u}) {
        SCOPED_TRACE(target);
        PushFilm(0, 50, 20000);
        PushSound(film::Audio(1900, 44100, 2), 20000);
        Run(200);
        const uint32_t position = Position();
        const unsigned long gauge = Gauge();
        ASSERT_EQ(Flush(), 0);
        ForgetShown();
        const uint64_t sound = GetStatistics().audioPlayedMs;
        Run(1500);
        EXPECT_EQ(Shown(), Ptss());
        EXPECT_EQ(Position(), position) << "survives the flush";
        EXPECT_EQ(Gauge(), gauge);
        PushFilm(0, 1, target);
        EXPECT_LE(Position(), target) << "never above what was pushed last";
        PushFilm(1, 25, target);
        Settle();
        EXPECT_EQ(Shown(), Pictures(target, 1));
        EXPECT_EQ(Gauge(), gauge + 1);
        Run(400);
        EXPECT_EQ(Shown(), Pictures(target, 11));
        EXPECT_EQ(GetStatistics().audioPlayedMs, sound) << "sound from before the flush";
        ASSERT_EQ(Flush(), 0);
    }
    EXPECT_NE(m_player->MM_SetFlushData(m_item, static_cast<EN_DATA_TYPE>(1)), 0);
}

TEST_P(PlayerContract, AfterAStarvationTheClockHasWaited) {
    StartPlaying();
    const film::Stream sound = film::Audio(2000, 44100, 2);
    PushSound(sound);
    PushFilm(0, 25);
    Run(3000);
    const size_t first = Shown().size();
    EXPECT_GE(first, 23u);
    EXPECT_LT(GetStatistics().audioPlayedMs, 1100u) << "the clock has run away";
    PushFilm(25, 75);
    Run(400);
    EXPECT_NEAR(static_cast<double>(Shown().size() - first), 12, 2) << "shown at the usual pace";
    Run(2000);
    EXPECT_EQ(Shown().size(), Decodes() ? 73u : 75u);
    EXPECT_EQ(GetStatistics().framesDropped, 0u);
    EXPECT_NEAR(static_cast<double>(GetStatistics().audioPlayedMs), 2000, 60);
}

TEST_P(PlayerContract, ATimelineThatJumpsIsFollowed) {
    StartPlaying();
    PushFilm(0, 25);
    PushFilm(25, 50, 3600000);
    PushFilm(50, 75);
    Run(4500);
    const Ptss shown = Shown();
    EXPECT_EQ(shown.size(), Decodes() ? 73u : 75u);
    EXPECT_EQ(std::count(shown.begin(), shown.end(), 3601000u), 1);
}

TEST_P(PlayerContract, VideoIsRefusedOnlyWhileThePlayerConsumesAndSoundNever) {
    StartPlaying();
    PushFilm(0, 12);
    const std::vector<uint8_t> big(size_t{1} << 20);
    int taken = 0;
    while (taken < 64 && PushVideo(big, 500) == 0) {
        ++taken;
    }
    EXPECT_GE(taken, 30);
    EXPECT_LE(taken, 32);
    EXPECT_EQ(GetStatistics().payloadsRefused, 1u);
    for (uint32_t i = 0; i < 20; ++i) {
        ASSERT_EQ(PushAudio(big, i), 0);
    }
    EXPECT_GE(GetStatistics().unitsDiscarded, 12u) << "sound is not bounded";

    tvset::control::Freeze(true);
    EXPECT_EQ(PushVideo(big, 500), 0) << "a hung decoder refuses for ever";
    tvset::control::Freeze(false);
    EXPECT_NE(PushVideo(big, 500), 0);
    ASSERT_EQ(Flush(), 0);
    EXPECT_EQ(PushVideo(big, 500), 0);

    const std::vector<uint8_t> huge((size_t{32} << 20) + 1);
    EXPECT_EQ(PushVideo(huge, 500), 0) << "a unit that never fits is refused for ever";
}

TEST_P(PlayerContract, StagedDataIsBounded) {
    Connect();
    const std::vector<uint8_t> big(size_t{1} << 20);
    for (uint32_t i = 0; i < 80; ++i) {
        ASSERT_EQ(PushTo(0, big, i, i % 2), 0);
    }
    const auto statistics = GetStatistics();
    EXPECT_LE(statistics.videoUnitsPushed, 32u);
    EXPECT_GT(statistics.unitsDiscarded, 30u);
}

TEST_P(PlayerContract, StopEmptiesAndPlayStartsAnew) {
    StartPlaying();
    PushFilm(0, 25);
    Run(200);
    ASSERT_EQ(m_player->MM_Stop(m_item), 0);
    ForgetShown();
    Run(500);
    PushFilm(0, 25, 7000);
    Run(100);
    EXPECT_EQ(Shown(), Ptss());
    ASSERT_EQ(m_player->MM_Play(m_item), 0);
    ASSERT_EQ(m_player->MM_Stop(m_item), 0);
    Run(100);
    EXPECT_EQ(Ear::Get().Events().size(), 2u) << "PLAYING_OK of a stopped item";
    ForgetShown();
    PushFilm(0, 25, 7000);
    ASSERT_EQ(m_player->MM_Play(m_item), 0);
    Run(200);
    EXPECT_EQ(Shown(), Pictures(7000, 6));
}

TEST_P(PlayerContract, SoundFollowsTheClockOfThePictures) {
    StartPlaying();
    const film::Stream sound = film::Audio(1500, 44100, 2);
    ASSERT_EQ(PushAudio(sound[0].bytes, 0xFFFFFFEB), 0);  // must not hold up what follows
    PushSound(sound, 10000);
    Run(500);
    EXPECT_EQ(GetStatistics().audioPlayedMs, 0u) << "sound before the first picture";
    PushFilm(0, 50, 10000);
    Run(600);
    EXPECT_NEAR(static_cast<double>(GetStatistics().audioPlayedMs), 600, 50);

    ST_PLAYER_AUDIO_PARAM param{};
    param.bytes[16] = 2;
    const uint32_t rate = 44100;
    std::memcpy(param.bytes + 20, &rate, sizeof(rate));
    param.bytes[56] = 6;
    ASSERT_EQ(m_player->MM_SwitchAudioTrack(m_item, param), 0);
    const uint64_t before = GetStatistics().audioPlayedMs;
    Run(300);
    EXPECT_EQ(GetStatistics().audioPlayedMs, before) << "sound of the old track";
    PushSound(sound, 10000);  // 900 ms of it are over
    Run(400);
    EXPECT_NEAR(static_cast<double>(GetStatistics().audioPlayedMs - before), 500, 60);
    EXPECT_EQ(GetStatistics().decodeErrors, 0u);
}

TEST_P(PlayerContract, KeyPicturesOfTrickPlayAllAppearAlsoAfterANormalStream) {
    StartPlaying();
    PushFilm(0, 50);  // teaches the decoder to hold B pictures back
    Run(200);
    ASSERT_EQ(Flush(), 0);
    ForgetShown();
    Ptss expected;
    for (uint32_t i = 0; i < 6; ++i) {
        const size_t key = (2 - i % 3) * 25;  // backwards in content, forwards in time
        ASSERT_TRUE(film::Video()[key].key);
        ASSERT_EQ(PushVideo(film::Video()[key].bytes, 60000 + i * 250), 0);
        expected.push_back(60000 + i * 250);
    }
    Run(2500);
    EXPECT_EQ(Shown(), expected);
    EXPECT_EQ(GetStatistics().decodeErrors, 0u);
}

TEST_P(PlayerContract, ASetThatHoldsOnePictureNeedsAnotherToLetItGo) {
    m_player.reset();
    tvset::Options options = OptionsFor();
    options.holdOnePicture = true;
    Open(options);
    StartPlaying();
    const std::vector<uint8_t>& key = film::Video()[0].bytes;
    for (const uint32_t pts : {60000u, 60125u, 60250u}) {
        ASSERT_EQ(PushVideo(key, pts), 0);
    }
    Run(2000);
    EXPECT_EQ(Shown(), (Ptss{60000, 60125}));
    ASSERT_EQ(PushVideo(key, 60250), 0);
    Run(500);
    EXPECT_EQ(Shown(), (Ptss{60000, 60125, 60250}));
}

std::atomic<bool> g_inside{false};
std::promise<void> g_release;

unsigned char BlockingRecipient(void*, void*, void*) {
    g_inside = true;
    g_release.get_future().wait();
    return 0;
}

TEST_P(PlayerContract, RemovingARecipientWaitsForItsDelivery) {
    g_inside = false;
    g_release = std::promise<void>();
    ASSERT_EQ(m_player->MM_Initialize(), 0);
    ASSERT_EQ(m_player->AddEventRecipient(BlockingRecipient), 0);
    ASSERT_EQ(Create(), 0);
    while (!g_inside) {
        std::this_thread::yield();
    }
    std::future<int> removed = std::async(
        std::launch::async, [&] { return m_player->RemoveEventRecipient(BlockingRecipient); });
    EXPECT_EQ(removed.wait_for(std::chrono::milliseconds(50)), std::future_status::timeout);
    EXPECT_EQ(m_player->MM_Play(m_item), 0) << "a recipient that runs blocks the player";
    g_release.set_value();
    EXPECT_EQ(removed.get(), 0);
    EXPECT_NE(m_player->RemoveEventRecipient(BlockingRecipient), 0);
}

TEST_P(PlayerContract, WrongUseIsAnsweredNotObeyed) {
    unsigned long item = 99;
    ST_MEDIA_INFO info{};
    EXPECT_NE(m_player->MM_CreateMediaItem(info, &item), 0) << "not initialised";
    EXPECT_EQ(PushTo(0, {1, 2, 3}, 0, 1), 0) << "data without an item is always taken";
    StartPlaying();
    EXPECT_NE(m_player->MM_CreateMediaItem(info, &item), 0) << "one item only";
    EXPECT_EQ(item, 99u);
    EXPECT_NE(m_player->MM_CreateMediaItem(info, nullptr), 0);
    EXPECT_NE(m_player->MM_Play(m_item + 1), 0);
    EXPECT_NE(m_player->MM_Stop(0), 0);
    EXPECT_NE(PushTo(m_item + 1, {1}, 0, 1), 0);
    EXPECT_NE(PushTo(m_item, {1}, 0, 2), 0);
    EXPECT_NE(PushTo(m_item, {}, 0, 1), 0);
    EXPECT_NE(m_player->MM_PushPayload(m_item, nullptr), 0);
    EXPECT_NE(m_player->MM_SetTrickMode(m_item, ST_TRICK_INFO{2, 1}), 0);
    EXPECT_NE(m_player->AddEventRecipient(nullptr), 0);
    EXPECT_EQ(m_player->MM_DemuxReset(0), 0);

    MSrv_MM_PlayerInterface second;
    EXPECT_NE(second.MM_Initialize(), 0) << "one player at a time";
    EXPECT_FALSE(tvset::Configure(tvset::Options())) << "a player exists";
    ASSERT_EQ(m_player->MM_DeleteMediaItem(m_item), 0);
    EXPECT_NE(m_player->MM_DeleteMediaItem(m_item), 0);
    EXPECT_NE(PushVideo({1}, 0), 0);

    info.bytes[80] = 9;  // no codec of this set
    ASSERT_EQ(m_player->MM_CreateMediaItem(info, &m_item), 0);
    Settle();
    EXPECT_EQ(Ear::Get().Events().back(), static_cast<unsigned long>(E_EVENT_INIT_FAIL));
}

TEST_P(PlayerContract, SessionsOneAfterAnotherAreAlike) {
    std::vector<std::string> journals;  // calls in their order, then what the set did in its own
    for (int session = 0; session < 2; ++session) {
        m_player.reset();
        Open(OptionsFor());
        tvset::control::Record(true);
        StartPlaying();
        PushFilm(0, 25);
        Run(400);
        ASSERT_EQ(m_player->MM_Stop(m_item), 0);
        ASSERT_EQ(m_player->MM_DeleteMediaItem(m_item), 0);
        ASSERT_EQ(m_player->MM_SetVideoBlackScreen(1), 0);
        ASSERT_EQ(m_player->RemoveEventRecipient(Ear::Recipient), 0);
        ASSERT_EQ(m_player->MM_Finalize(), 0);
        std::string calls;
        std::string deeds;
        for (const auto& entry : tvset::control::Journal()) {
            std::string& list = entry.call == "event" || entry.call == "shown" ? deeds : calls;
            list += entry.call + ' ' + std::to_string(entry.item) + ' ' +
                    std::to_string(entry.value) + ' ' + std::to_string(entry.crc32) + '\n';
        }
        journals.push_back(calls + deeds);
    }
    EXPECT_EQ(journals[0], journals[1]);
    EXPECT_NE(journals[0].find("event 1 19"), std::string::npos);
    EXPECT_NE(journals[0].find("shown 0 400"), std::string::npos);
    m_player.reset();
    EXPECT_EQ(GetStatistics().framesShown, 11u) << "the counters outlive the player";
}

TEST_P(PlayerContract, ByItselfTheSetKeepsTimeToo) {
    m_player.reset();
    tvset::Options options = OptionsFor();
    options.clock = tvset::NewRealClock(5);
    Open(options);
    const film::Stream sound = film::Audio(2900, 44100, 2);
    Connect();
    ASSERT_EQ(Create(), 0);
    PushSound(sound);
    PushFilm(0, 75);
    const int64_t start = options.clock->NowMs();
    ASSERT_EQ(m_player->MM_Play(m_item), 0);
    const int64_t giveUp = start + 60000;
    for (int64_t now = start; Position() < 2800 && now < giveUp; now = options.clock->NowMs()) {
        options.clock->SleepUntil(now + 20, options.clock->Interrupts());
    }
    EXPECT_GE(Position(), 2800u);
    EXPECT_GE(options.clock->NowMs() - start, 2800);
    const auto statistics = GetStatistics();
    EXPECT_GE(statistics.framesShown + statistics.framesDropped, 71u);
    EXPECT_GE(statistics.framesShown, 12u);
    EXPECT_GE(statistics.audioPlayedMs, 1000u);  // a machine under load loses some
    EXPECT_LE(statistics.audioPlayedMs, 3000u);
}

}  // namespace
