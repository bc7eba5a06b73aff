// The test control itself, the clocks and the system services.

#include <chrono>
#include <cstdlib>

#include "MSystem.h"
#include "PlayerFixture.h"

namespace {

using tvset::control::JournalEntry;
using tvset::control::Operation;

class Control : public PlayerFixture {
  protected:
    void SetUp() override {
        tvset::Options options;
        options.decoding = tvset::Decoding::PassThrough;
        Open(options);
    }
    static std::vector<JournalEntry> Entries(const std::string& call) {
        std::vector<JournalEntry> found;
        for (const JournalEntry& entry : tvset::control::Journal()) {
            if (entry.call == call) {
                found.push_back(entry);
            }
        }
        return found;
    }
};

TEST_F(Control, RefusalsAreCountedDown) {
    StartPlaying();
    tvset::control::RefusePayloads(2);
    EXPECT_NE(PushAudio({1}, 0), 0);
    EXPECT_NE(PushVideo({1}, 0), 0);
    EXPECT_EQ(PushVideo({1}, 0), 0);
    tvset::control::RefuseVideoPayloads(SIZE_MAX);
    for (uint32_t i = 0; i < 5; ++i) {
        EXPECT_EQ(PushAudio({1}, i), 0);
        EXPECT_NE(PushVideo({1}, i), 0);
    }
    EXPECT_EQ(tvset::GetStatistics().payloadsRefused, 7u);
    EXPECT_EQ(tvset::GetStatistics().videoUnitsPushed, 1u);
    tvset::control::Reset();
    EXPECT_EQ(PushVideo({1}, 0), 0);
}

TEST_F(Control, EachOperationFailsWhenToldAndHasNoEffectThen) {
    const auto failOnce = [](Operation operation, const std::function<int()>& call) {
        tvset::control::Fail(operation);
        EXPECT_NE(call(), 0);
        EXPECT_EQ(call(), 0);
    };
    failOnce(Operation::Initialize, [&] { return m_player->MM_Initialize(); });
    ASSERT_EQ(m_player->AddEventRecipient(Ear::Recipient), 0);
    failOnce(Operation::CreateMediaItem, [&] { return Create(); });
    failOnce(Operation::Play, [&] { return m_player->MM_Play(m_item); });
    PushFilm(0, 10);
    Run(80);
    EXPECT_EQ(Ear::Get().Events(), (Events{E_EVENT_INIT_OK, E_EVENT_PLAYING_OK}));
    tvset::control::Fail(Operation::Flush);
    EXPECT_NE(Flush(), 0);
    tvset::control::Fail(Operation::TrickMode);
    EXPECT_NE(SetPaused(true), 0);
    Run(80);
    EXPECT_EQ(Shown(), Pictures(0, 5)) << "flushed or paused all the same";
    failOnce(Operation::SwitchAudio,
             [&] { return m_player->MM_SwitchAudioTrack(m_item, ST_PLAYER_AUDIO_PARAM{}); });
    failOnce(Operation::Stop, [&] { return m_player->MM_Stop(m_item); });
    failOnce(Operation::Delete, [&] { return m_player->MM_DeleteMediaItem(m_item); });
    failOnce(Operation::Finalize, [&] { return m_player->MM_Finalize(); });
}

TEST_F(Control, EventsAreHeldAndDropped) {
    Connect();
    tvset::control::HoldEvent(E_EVENT_INIT_OK, true);
    ASSERT_EQ(Create(), 0);
    ASSERT_EQ(m_player->MM_Play(m_item), 0);
    Run(100);
    EXPECT_EQ(Ear::Get().Events(), Events{E_EVENT_PLAYING_OK});
    tvset::control::HoldEvent(E_EVENT_INIT_OK, false);
    Settle();
    EXPECT_EQ(Ear::Get().Events(), (Events{E_EVENT_PLAYING_OK, E_EVENT_INIT_OK}));
    tvset::control::DropEvent(E_EVENT_PLAYING_OK, true);
    ASSERT_EQ(m_player->MM_Play(m_item), 0);
    Run(100);
    EXPECT_EQ(Ear::Get().Events().size(), 2u);

    tvset::control::Reset();
    ASSERT_EQ(m_player->MM_Play(m_item), 0);
    ASSERT_EQ(m_player->MM_DeleteMediaItem(m_item), 0);
    Run(100);
    EXPECT_EQ(Ear::Get().Events().size(), 2u) << "event of an item that is gone";
}

TEST_F(Control, InitCanComeBeforeTheHandle) {
    Connect();
    tvset::control::DeliverInitBeforeHandle(true);
    ASSERT_EQ(Create(), 0);
    ASSERT_EQ(Ear::Get().All().size(), 1u) << "delivered before the call returned";
    EXPECT_EQ(Ear::Get().All()[0].item, 0u);
    EXPECT_NE(m_item, 0u);
}

TEST_F(Control, AFrozenSetShowsNothingAndLosesNothing) {
    StartPlaying();
    PushFilm(0, 25);
    Run(200);
    tvset::control::Freeze(true);
    Run(2000);
    EXPECT_EQ(Shown(), Pictures(0, 6));
    tvset::control::Freeze(false);
    Run(200);
    EXPECT_EQ(Shown(), Pictures(0, 11));
}

TEST_F(Control, TheJournalTellsWhatWasAskedInOrder) {
    Connect();
    tvset::control::Record(true);
    ASSERT_EQ(Create(48000), 0);
    const std::string check = "123456789";
    ASSERT_EQ(PushVideo({check.begin(), check.end()}, 77), 0);
    tvset::control::RefusePayloads(1);
    ASSERT_NE(PushAudio({1, 2}, 78), 0);
    m_clock->Advance(5);
    ASSERT_EQ(m_player->MM_Play(m_item), 0);
    Run(49);
    EXPECT_EQ(Ear::Get().Events(), Events{E_EVENT_INIT_OK});
    Run(1);
    tvset::control::Record(false);
    ASSERT_EQ(SetPaused(true), 0);

    std::vector<std::string> order;
    for (const JournalEntry& entry : tvset::control::Journal()) {
        if (entry.call.compare(0, 3, "MM_") == 0) {
            order.push_back(entry.call);
        }
    }
    EXPECT_EQ(order, (std::vector<std::string>{"MM_CreateMediaItem", "MM_PushPayload",
                                               "MM_PushPayload", "MM_Play"}));
    const JournalEntry create = Entries("MM_CreateMediaItem").at(0);
    ASSERT_EQ(create.record.size(), 192u);
    EXPECT_EQ(create.record[124] | create.record[125] << 8, 48000);
    const auto payloads = Entries("MM_PushPayload");
    EXPECT_EQ(payloads[0].crc32, 0xCBF43926u);
    EXPECT_EQ(payloads[0].size, 9u);
    EXPECT_EQ(payloads[0].value, 77u);
    EXPECT_EQ(payloads[0].streamType, 1u);
    EXPECT_EQ(payloads[0].item, m_item);
    EXPECT_EQ(payloads[0].head, (std::vector<uint8_t>{'1', '2', '3', '4', '5', '6', '7', '8'}));
    EXPECT_EQ(payloads[0].result, 0);
    EXPECT_EQ(payloads[1].result, 1);
    EXPECT_EQ(payloads[1].head.size(), 2u);
    EXPECT_EQ(Entries("shown").at(0).value, 77u);
    const JournalEntry play = Entries("MM_Play").at(0);
    const JournalEntry playing = Entries("event").back();
    EXPECT_EQ(playing.value, static_cast<uint64_t>(E_EVENT_PLAYING_OK));
    EXPECT_EQ(playing.timeMs - play.timeMs, 50) << "in the set's time";
    EXPECT_NE(playing.thread, play.thread);
}

TEST(Clock, TheManualOneMovesOnlyWhenToldAndWakesSleepers) {
    const auto clock = tvset::NewManualClock();
    EXPECT_EQ(clock->NowMs(), 0);
    std::thread sleeper([&] { clock->SleepUntil(100, clock->Interrupts()); });
    clock->Advance(60);
    clock->Advance(-10);
    EXPECT_EQ(clock->NowMs(), 60);
    clock->Advance(60);
    sleeper.join();
    const uint64_t seen = clock->Interrupts();
    clock->Interrupt();
    clock->SleepUntil(INT64_MAX, seen);  // returns: interrupted since
    EXPECT_EQ(clock->Interrupts(), seen + 1);
}

TEST(Clock, TheRealOneRunsAtItsSpeed) {
    const auto clock = tvset::NewRealClock(50);
    const auto real = std::chrono::steady_clock::now();
    const int64_t start = clock->NowMs();
    clock->SleepUntil(start + 2000, clock->Interrupts());
    const auto took = std::chrono::steady_clock::now() - real;
    EXPECT_GE(clock->NowMs(), start + 2000);
    EXPECT_GE(took, std::chrono::milliseconds(39));
    EXPECT_LT(took, std::chrono::milliseconds(1900)) << "slept in real time";
    const uint64_t seen = clock->Interrupts();
    clock->Interrupt();
    clock->SleepUntil(INT64_MAX, seen);
}

TEST(System, PicksDirectFBsSystemOnlyWhereTheEnvironmentDoesNot) {
    ::setenv("DFBARGS", "system=none", 1);
    EXPECT_TRUE(MSystem::InitializeDFBLayer());
    EXPECT_STREQ(std::getenv("DFBARGS"), "system=none");
    const char* display = std::getenv("DISPLAY");
    const std::string saved = display != nullptr ? display : "";
    ::unsetenv("DFBARGS");
    ::setenv("DISPLAY", ":77", 1);
    EXPECT_TRUE(MSystem::InitializeDFBLayer());
    EXPECT_EQ(std::string(std::getenv("DFBARGS")).rfind("system=x11", 0), 0u);
    ::unsetenv("DFBARGS");
    ::unsetenv("DISPLAY");
    EXPECT_TRUE(MSystem::InitializeDFBLayer());
    EXPECT_EQ(std::string(std::getenv("DFBARGS")).rfind("system=dummy,mode=1280x720", 0), 0u);
    ::unsetenv("DFBARGS");
    if (!saved.empty()) {
        ::setenv("DISPLAY", saved.c_str(), 1);
    }
    EXPECT_TRUE(MSystem::Initialize(0, nullptr, 0));
    EXPECT_TRUE(MSystem::Initialize(0, nullptr, 0));
}

TEST(System, TheTrackerKnowsWhoHoldsAMutex) {
    pthread_mutex_t mutex = PTHREAD_MUTEX_INITIALIZER;
    tvset::MutexHolder holder;
    EXPECT_FALSE(tvset::FindMutexHolder(&mutex, holder));
    ASSERT_EQ(pthread_mutex_lock_tracker(&mutex, "Here", 42), 0);
    EXPECT_EQ(pthread_mutex_trylock(&mutex), EBUSY);
    ASSERT_TRUE(tvset::FindMutexHolder(&mutex, holder));
    EXPECT_EQ(holder.function, "Here");
    EXPECT_EQ(holder.line, 42);
    EXPECT_NE(holder.thread, 0u);
    ASSERT_EQ(pthread_mutex_unlock_tracker(&mutex), 0);
    EXPECT_FALSE(tvset::FindMutexHolder(&mutex, holder));
    EXPECT_EQ(pthread_mutex_destroy(&mutex), 0);
}

}  // namespace
