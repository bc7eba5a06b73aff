// What the layers above count on, whichever way the television decodes.

#include <atomic>
#include <future>
#include <thread>

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
    const std::vector<uint8_t> m_megabyte = std::vector<uint8_t>(size_t{1} << 20);
};

INSTANTIATE_TEST_SUITE_P(Set, PlayerContract,
                         testing::Values(tvset::Decoding::Libav, tvset::Decoding::PassThrough),
                         [](const auto& mode) {
                             return mode.param == tvset::Decoding::Libav ? "Libav" : "PassThrough";
                         });

TEST_P(PlayerContract, StartsWithoutDataAndNeverCallsBackSynchronously) {
    ASSERT_EQ(m_player->MM_Initialize(), 0);
    ASSERT_EQ(Create(), 0);
    ASSERT_NE(m_item, 0u);
    Settle();
    ASSERT_EQ(Events(), Values{E_EVENT_INIT_OK});
    const auto journal = tvset::control::Journal();
    EXPECT_NE(journal.back().thread, journal.front().thread);

    ASSERT_EQ(m_player->MM_Play(m_item), 0);
    Run(49);
    EXPECT_EQ(Events().size(), 1u) << "PLAYING_OK before its time";
    Run(1);
    EXPECT_EQ(Events(), (Values{E_EVENT_INIT_OK, E_EVENT_PLAYING_OK}));
    EXPECT_EQ(Position(), 0u);
    EXPECT_EQ(Gauge(), 0u);

    PushFilm(0, 10, 60000);
    Settle();
    EXPECT_EQ(Shown(), Values{60000}) << "the first picture does not wait";
}

TEST_P(PlayerContract, DataIsTakenBeforeTheItemAndBeforePlay) {
    ASSERT_EQ(m_player->MM_Initialize(), 0);
    const film::Stream& sound = film::Audio(300);
    for (size_t i = 0; i < 5; ++i) {
        ASSERT_EQ(PushTo(0, sound[i].bytes, sound[i].pts, 0), 0);
        ASSERT_EQ(PushTo(0, film::Video()[i].bytes, film::Video()[i].pts, 1), 0);
    }
    ASSERT_EQ(Create(), 0);
    PushFilm(5, 25);
    Run(500);
    EXPECT_EQ(Shown(), Values()) << "shown before play";
    ASSERT_EQ(m_player->MM_Play(m_item), 0);
    Run(1000);
    EXPECT_EQ(Shown(), Pictures(0, 25));
    EXPECT_GT(AudioPlayedMs(), 80);
}

TEST_P(PlayerContract, PicturesAppearInOrderAtTheirTimeAndTheGaugeNeverMovesFirst) {
    StartPlaying();
    std::atomic<bool> stop{false};
    std::atomic<int> wrong{0};
    std::thread watcher([&] {
        while (!stop) {
            const unsigned long gauge = Gauge();
            if (gauge > 0 && Position() < 10000 + (gauge - 1) * film::kFrameMs)
                ++wrong;
        }
    });
    PushFilm(0, 50, 10000);
    Settle();
    for (int ms = 0; ms < 1600; ms += 20) {
        EXPECT_EQ(Position(), 10000u + static_cast<uint32_t>(ms / 40 * 40));
        EXPECT_EQ(Gauge(), static_cast<unsigned long>(ms / 40 + 1));
        Run(20);
    }
    stop = true;
    watcher.join();
    EXPECT_EQ(wrong, 0);
    EXPECT_EQ(Shown(), Pictures(10000, 41));
}

TEST_P(PlayerContract, PauseFreezesPictureAndSoundAndNothingIsRefused) {
    StartPlaying();
    PushFilm(0, 50);
    PushSound(film::Audio(2000));
    Run(400);
    ASSERT_EQ(SetPaused(true), 0);
    Settle();
    const double played = AudioPlayedMs();
    Run(2000);
    EXPECT_EQ(Shown(), Pictures(0, 11));
    EXPECT_EQ(AudioPlayedMs(), played);
    for (uint32_t i = 0; i < 100; ++i) {
        ASSERT_EQ(PushVideo(m_megabyte, 3000 + i), 0) << "a paused player refuses";
    }
    EXPECT_GT(GetStatistics().unitsDiscarded, 30u) << "memory is not bounded";
    ASSERT_EQ(SetPaused(false), 0);
    Run(200);
    EXPECT_EQ(Shown(), Pictures(0, 16));
    EXPECT_NEAR(AudioPlayedMs(), 600, 60);
}

TEST_P(PlayerContract, FlushDropsBothKindsAndTheNextPictureIsShownAtOnce) {
    StartPlaying();
    for (const uint32_t target : {60000u, 5000u, 20400u}) {
        SCOPED_TRACE(target);
        PushFilm(0, 50, 20000);
        PushSound(film::Audio(1900), 20000);
        Run(200);
        const uint32_t position = Position();
        const unsigned long gauge = Gauge();
        ASSERT_EQ(Flush(), 0);
        ForgetShown();
        const double sound = AudioPlayedMs();
        Run(1500);
        EXPECT_EQ(Shown(), Values());
        EXPECT_EQ(Position(), position) << "survives the flush";
        EXPECT_EQ(Gauge(), gauge);
        tvset::control::Freeze(true);
        PushFilm(0, 25, target);
        EXPECT_LE(Position(), target) << "what was pushed is not all still to come";
        tvset::control::Freeze(false);
        Settle();
        EXPECT_EQ(Shown(), Values{target});
        Run(400);
        EXPECT_EQ(Position(), target + 400);
        EXPECT_EQ(Shown(), Pictures(target, 11));
        EXPECT_EQ(AudioPlayedMs(), sound) << "sound from before the flush";
        ASSERT_EQ(Flush(), 0);
    }
}

TEST_P(PlayerContract, TheClockWaitsInAStarvationAndFollowsATimelineThatJumps) {
    StartPlaying();
    PushSound(film::Audio(2000));
    PushFilm(0, 25);
    Run(3000);
    const size_t first = Shown().size();
    EXPECT_GE(first, 23u);
    EXPECT_LT(AudioPlayedMs(), 1100) << "the clock has run away";
    PushFilm(25, 75);
    Run(400);
    EXPECT_NEAR(static_cast<double>(Shown().size() - first), 12, 2)
        << "not shown at the usual pace";
    Run(2000);
    EXPECT_EQ(Shown().size(), 75u);
    EXPECT_EQ(GetStatistics().framesDropped, 0u);
    EXPECT_NEAR(AudioPlayedMs(), 2000, 60);

    PushFilm(0, 25, 4000);
    PushFilm(25, 50, 3600000);
    PushFilm(50, 75, 4000);
    Run(6000);
    const Values shown = Shown();
    EXPECT_EQ(shown.size(), 150u);
    EXPECT_EQ(std::count(shown.begin(), shown.end(), 3601000), 1);
}

TEST_P(PlayerContract, VideoIsRefusedOnlyWhileThePlayerConsumesAndSoundNever) {
    ASSERT_EQ(m_player->MM_Initialize(), 0);
    for (uint32_t i = 0; i < 80; ++i) {
        ASSERT_EQ(PushTo(0, m_megabyte, i, i % 2), 0);
    }
    EXPECT_LE(GetStatistics().videoUnitsPushed, 32u) << "staged data is not bounded";
    Open(OptionsFor());
    StartPlaying();
    PushFilm(0, 12);
    int taken = 0;
    while (taken < 64 && PushVideo(m_megabyte, 500) == 0)
        ++taken;
    EXPECT_GE(taken, 30);
    EXPECT_LE(taken, 32);
    for (uint32_t i = 0; i < 20; ++i) {
        ASSERT_EQ(PushAudio(m_megabyte, i), 0);
    }
    EXPECT_GE(GetStatistics().unitsDiscarded, 12u) << "sound is not bounded";

    tvset::control::Freeze(true);
    EXPECT_EQ(PushVideo(m_megabyte, 500), 0) << "a hung decoder refuses for ever";
    tvset::control::Freeze(false);
    EXPECT_NE(PushVideo(m_megabyte, 500), 0);
    ASSERT_EQ(Flush(), 0);
    EXPECT_EQ(PushVideo(m_megabyte, 500), 0);
    const std::vector<uint8_t> huge((size_t{32} << 20) + 1);
    EXPECT_EQ(PushVideo(huge, 500), 0) << "a unit that never fits is refused for ever";
}

// The player's user starts playback with the first data after INIT_OK, and a film may be short.
TEST_P(PlayerContract, TheFirstDataReturnsWhenTheItemIsReady) {
    ASSERT_EQ(m_player->MM_Initialize(), 0);
    for (int i = 0; i < 50; ++i) {
        ASSERT_EQ(Create(), 0);
        PushFilm(0, 1);
        ASSERT_EQ(Events().size(), static_cast<size_t>(i) + 1);
        ASSERT_EQ(m_player->MM_DeleteMediaItem(m_item), 0);
    }
}

TEST_P(PlayerContract, StopEmptiesAndPlayStartsAnew) {
    StartPlaying();
    PushFilm(0, 25);
    Run(200);
    ASSERT_EQ(m_player->MM_Stop(m_item), 0);
    ForgetShown();
    Run(500);
    EXPECT_EQ(Shown(), Values());
    ASSERT_EQ(m_player->MM_Play(m_item), 0);
    ASSERT_EQ(m_player->MM_Stop(m_item), 0);
    Run(100);
    EXPECT_EQ(Events().size(), 2u) << "PLAYING_OK of a stopped item";
    PushFilm(0, 25, 7000);
    ASSERT_EQ(m_player->MM_Play(m_item), 0);
    Run(200);
    EXPECT_EQ(Shown(), Pictures(7000, 6));
    ASSERT_EQ(m_player->MM_Play(m_item), 0);
    ASSERT_EQ(m_player->MM_DeleteMediaItem(m_item), 0);
    Run(100);
    EXPECT_EQ(Events().size(), 3u) << "event of an item that is gone";
}

TEST_P(PlayerContract, SoundFollowsTheClockOfThePictures) {
    StartPlaying();
    const film::Stream& sound = film::Audio(1500);
    ASSERT_EQ(PushAudio(sound[0].bytes, 0xFFFFFFEB), 0);  // must not hold up what follows
    PushSound(sound, 10000);
    Run(500);
    EXPECT_EQ(AudioPlayedMs(), 0) << "sound before the first picture";
    PushFilm(0, 50, 10000);
    Run(600);
    EXPECT_NEAR(AudioPlayedMs(), 600, 50);

    ASSERT_EQ(m_player->MM_SwitchAudioTrack(m_item, ST_PLAYER_AUDIO_PARAM{}), 0);
    const double before = AudioPlayedMs();
    Run(300);
    EXPECT_EQ(AudioPlayedMs(), before) << "sound of the old track";
    PushSound(sound, 10000);  // 900 ms of it are over
    Run(400);
    EXPECT_NEAR(AudioPlayedMs() - before, 400, 40);
    EXPECT_EQ(GetStatistics().decodeErrors, 0u);
}

// How far each sound was from the picture of its time. Jumps are told apart by their entries in the
// journal: each begins where the last ended.
TEST_P(PlayerContract, SoundIsHeardWithItsPictureAfterEveryKindOfJump) {
    StartPlaying();
    const film::Stream& sound = film::Audio(1900);
    const auto push = [&](uint32_t shift, int soundLateMs) {
        PushFilm(0, 50, shift);
        Run(soundLateMs);
        PushSound(sound, shift);
        Run(600);
    };
    const std::pair<const char*, std::function<void()>> jumps[] = {
        {"start", [&] { push(0, 90); }},
        {"seek",
         [&] {
             ASSERT_EQ(Flush(), 0);
             push(20010, 70);
         }},
        {"audio change",
         [&] {
             ASSERT_EQ(m_player->MM_SwitchAudioTrack(m_item, ST_PLAYER_AUDIO_PARAM{}), 0);
             Run(95);
             PushSound(sound, 20010);
             Run(300);
         }},
        {"pauses",
         [&] {
             for (int i = 0; i < 5; ++i) {
                 ASSERT_EQ(SetPaused(true), 0);
                 Run(333);
                 ASSERT_EQ(SetPaused(false), 0);
                 Run(70);
             }
         }},
        {"starvation",
         [&] {
             Run(2000);
             PushFilm(50, 75, 20010);
             Run(70);
             PushSound(sound, 21900);
             Run(500);
         }},
    };
    for (const auto& [name, jump] : jumps) {
        SCOPED_TRACE(name);
        const size_t from = tvset::control::Journal().size();
        jump();
        const auto journal = tvset::control::Journal();
        std::vector<int64_t> off;
        for (size_t i = from; i < journal.size(); ++i) {
            if (journal[i].call != "heard")
                continue;
            // By the picture before it and the one after: a pause may lie between it and one of
            // them. The journal's order is not that of the times.
            const tvset::control::JournalEntry* before = nullptr;
            const tvset::control::JournalEntry* after = nullptr;
            for (const auto& entry : journal) {
                if (entry.call != "shown")
                    continue;
                if (entry.timeMs <= journal[i].timeMs)
                    before = &entry;
                else if (after == nullptr)
                    after = &entry;
            }
            int64_t nearest = INT64_MAX;
            for (const tvset::control::JournalEntry* shown : {before, after}) {
                if (shown != nullptr) {
                    const int64_t media =
                        static_cast<int64_t>(shown->value) + journal[i].timeMs - shown->timeMs;
                    nearest =
                        std::min(nearest, std::abs(static_cast<int64_t>(journal[i].value) - media));
                }
            }
            off.push_back(nearest);
        }
        ASSERT_GE(off.size(), 5u);
        std::sort(off.begin(), off.end());
        EXPECT_LE(off[off.size() / 2], 20);
        EXPECT_LE(off.back(), 40);
    }
}

TEST_P(PlayerContract, KeyPicturesOfTrickPlayAllAppearUnlessTheSetHoldsOneBack) {
    for (const bool hold : {false, true}) {
        SCOPED_TRACE(hold);
        tvset::Options options = OptionsFor();
        options.holdOnePicture = hold;
        Open(options);
        StartPlaying();
        PushFilm(0, 50);  // teaches the decoder to hold B pictures back
        Run(200);
        ASSERT_EQ(Flush(), 0);
        ForgetShown();
        const auto pushKey = [&](uint32_t i) {  // backwards in content, forwards in time
            const film::AccessUnit& unit = film::Video()[(2 - i % 3) * 25];
            ASSERT_TRUE(unit.key);
            ASSERT_EQ(PushVideo(unit.bytes, 60000 + i * 250), 0);
        };
        for (uint32_t i = 0; i < 4; ++i)
            pushKey(i);
        Run(2000);
        EXPECT_EQ(Shown().size(), hold ? 3u : 4u);
        if (hold) {
            pushKey(3);
            Run(500);
        }
        EXPECT_EQ(Shown(), (Values{60000, 60250, 60500, 60750}));
        EXPECT_EQ(GetStatistics().decodeErrors, 0u);
    }
}

std::promise<void> g_inside;
std::promise<void> g_release;

unsigned char BlockingRecipient(void*, void*, void*) {
    g_inside.set_value();
    g_release.get_future().wait();
    return 0;
}

TEST_P(PlayerContract, RemovingARecipientWaitsForItsDelivery) {
    g_inside = std::promise<void>();
    g_release = std::promise<void>();
    ASSERT_EQ(m_player->MM_Initialize(), 0);
    ASSERT_EQ(m_player->AddEventRecipient(BlockingRecipient), 0);
    ASSERT_EQ(Create(), 0);
    ASSERT_EQ(g_inside.get_future().wait_for(std::chrono::seconds(10)), std::future_status::ready);
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
    EXPECT_NE(m_player->MM_Play(m_item + 1), 0);
    EXPECT_NE(PushTo(m_item + 1, {1}, 0, 1), 0);
    EXPECT_NE(PushTo(m_item, {1}, 0, 2), 0);
    EXPECT_NE(PushTo(m_item, {}, 0, 1), 0);
    EXPECT_NE(m_player->MM_PushPayload(m_item, nullptr), 0);
    MSrv_MM_PlayerInterface second;
    EXPECT_NE(second.MM_Initialize(), 0) << "one player at a time";
    EXPECT_FALSE(tvset::Configure(tvset::Options())) << "a player exists";
    ASSERT_EQ(m_player->MM_DeleteMediaItem(m_item), 0);
    EXPECT_NE(PushVideo({1}, 0), 0);

    info.bytes[80] = 9;  // no codec of this television
    ASSERT_EQ(m_player->MM_CreateMediaItem(info, &m_item), 0);
    Settle();
    EXPECT_EQ(Events().back(), uint64_t{E_EVENT_INIT_FAIL});
}

}  // namespace
