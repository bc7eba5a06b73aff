#include <gmock/gmock.h>

#include <future>

#include "PlatformAdapter/Common/PlatformAudio.h"
#include "PlatformAdapter/Common/PlatformVideo.h"
#include "PlayerFixture.h"
#include "support/AssertionTrap.h"

namespace opal::test {
namespace {

using testing::ElementsAre;
namespace control = tvset::control;

/// The sinks of one session, made and configured as the controller does it.
struct Sinks {
    Sinks() {
        HABArch_New(&arch);
        HABTimer_New(&timer, arch, kSessionTimerKind);
        video.reset(new PlatformVideo(arch, timer));
        audio.reset(new PlatformAudio(arch, timer));
        EXPECT_EQ(OPAL_OK, video->Initialize());
        EXPECT_EQ(OPAL_OK, audio->Initialize());
        EXPECT_EQ(OPAL_OK, video->Configure(VIDEOCODECID_AVC, 640, 360, 1, nullptr, 0, true));
        EXPECT_EQ(OPAL_OK, audio->Configure(AUDIOCODECID_AAC, 44100, 2, kStereoConfig.data(),
                                            kStereoConfig.size(), true));
    }
    ~Sinks() {
        video.reset();
        audio.reset();
        HABTimer_Delete(timer);
        HABArch_Delete(arch);
    }
    OPALError Queue(int64_t ts) {
        Bytes unit = {0, 0, 0, 1, 0x65};
        return video->Queue(unit.data(), unit.size(), ts, 40);
    }

    HHABARCH arch = nullptr;
    HHABTIMER timer = nullptr;
    std::unique_ptr<PlatformVideo> video;
    std::unique_ptr<PlatformAudio> audio;
};

class PlatformSinkTest : public PlayerTest {
  protected:
    /// A whole session, and what the set was asked in it.
    std::vector<std::string> PlayOnce() {
        control::HoldEvent(E_EVENT_INIT_OK, true);
        const size_t before = control::Journal().size();
        {
            Sinks sinks;
            EXPECT_EQ(OPAL_OK, sinks.Queue(0));
            control::HoldEvent(E_EVENT_INIT_OK, false);
            Settle();
            EXPECT_EQ(OPAL_OK, sinks.Queue(40));
            Advance(60);
            int64_t position = -1;
            EXPECT_EQ(OPAL_OK, sinks.video->GetPosition(position));
            EXPECT_EQ(40, position);
        }
        std::vector<std::string> calls;
        const auto journal = control::Journal();
        for (size_t i = before; i < journal.size(); ++i) {
            if (journal[i].call != "event" && journal[i].call != "shown")
                calls.push_back(journal[i].call);
        }
        return calls;
    }
};

TEST_F(PlatformSinkTest, ASessionAndTheNextAreTheSame) {
    const std::vector<std::string> first = PlayOnce();
    EXPECT_THAT(first, ElementsAre("MM_Initialize", "AddEventRecipient", "MM_CreateMediaItem",
                                   "MM_PushPayload", "MM_Play", "MM_PushPayload", "MM_Stop",
                                   "MM_DeleteMediaItem", "MM_SetVideoBlackScreen",
                                   "RemoveEventRecipient", "MM_Finalize"));
    EXPECT_EQ(first, PlayOnce());
    for (const char* call : {"MM_PushPayload", "MM_Stop"})
        EXPECT_NE(0u, Entries(call).back().item) << call;

    const Bytes record = Entries("MM_CreateMediaItem").back().record;
    Bytes expected(192, 0);
    for (const auto& [offset, value] : std::vector<std::pair<size_t, uint8_t>>{{16, 1},
                                                                               {40, 2},
                                                                               {44, 3},
                                                                               {72, 2},
                                                                               {80, 7},
                                                                               {98, 1},
                                                                               {124, 0x44},
                                                                               {125, 0xAC},
                                                                               {160, 6}})
        expected[offset] = value;
    std::fill(&expected[32], &expected[40], uint8_t{0xFF});
    EXPECT_EQ(expected, record);
}

TEST_F(PlatformSinkTest, PlaybackStartsWheneverTheHandleComesFirst) {
    constexpr int kRuns = 300;
    for (int run = 0; run < kRuns; ++run) {
        Session session;
        session.ConfigureAudio();
        EXPECT_EQ(HAB_OK, session.Queue(0));
        Await([&] { return session.arch->itemReady == 1; });
        EXPECT_EQ(HAB_OK, session.Queue(40));
        EXPECT_EQ(0, session.arch->held);
    }
    EXPECT_EQ(size_t{kRuns}, Entries("MM_Play").size());
    control::DeliverInitBeforeHandle(true);
    Session session;
    session.ConfigureAudio();
    EXPECT_EQ(HAB_OK, session.Queue(0));
    Settle();
    EXPECT_EQ(HAB_OK, session.Queue(40));
    EXPECT_EQ(size_t{kRuns}, Entries("MM_Play").size());
}

TEST_F(PlatformSinkTest, NothingBeforeConfigureOrAfterFinalize) {
    HHABARCH arch = nullptr;
    HABArch_New(&arch);
    {
        PlatformVideo video(arch, nullptr);
        PlatformAudio audio(arch, nullptr);
        for (PlatformBase* sink :
             {static_cast<PlatformBase*>(&video), static_cast<PlatformBase*>(&audio)}) {
            uint8_t byte = 0;
            size_t trailer = 9;
            uint32_t time = 0;
            EXPECT_EQ(OPAL_OK, sink->Initialize());
            EXPECT_EQ(OPAL_ERROR_GENERAL, sink->Start());
            EXPECT_EQ(OPAL_ERROR_GENERAL, sink->Queue(&byte, 1, -1, -1));
            EXPECT_EQ(OPAL_ERROR_GENERAL, sink->Flush());
            EXPECT_EQ(OPAL_ERROR_GENERAL, sink->SetPaused(true));
            EXPECT_EQ(OPAL_ERROR_GENERAL, sink->GetBlockTrailerSize(trailer));
            EXPECT_EQ(OPAL_ERROR_GENERAL, sink->GetTime(time));  // no timer
            EXPECT_EQ(OPAL_OK, sink->Finalize());
            EXPECT_EQ(OPAL_OK, sink->Finalize());
        }
        EXPECT_EQ(OPAL_ERROR_GENERAL, video.Stop());
        EXPECT_EQ(OPAL_OK, audio.Stop());
    }
    HABArch_Delete(arch);
    EXPECT_TRUE(Entries("MM_Initialize").empty());
}

TEST_F(PlatformSinkTest, TranslatesResultsAndAsksOnlyTheVideoSideToPause) {
    Sinks sinks;
    uint8_t byte = 0;
    int64_t ms = -1;
    size_t trailer = 9;
    uint32_t time = 9;
    EXPECT_EQ(OPAL_ERROR_NOT_YET, sinks.audio->Queue(&byte, 1, 1001, 21));
    EXPECT_EQ(OPAL_OK, sinks.audio->Queue(&byte, 1, 1000, 21));
    EXPECT_EQ(OPAL_OK, sinks.Queue(0));
    EXPECT_EQ(OPAL_OK, sinks.Queue(2040));
    EXPECT_EQ(OPAL_ERROR_NOT_YET, sinks.Queue(2080));
    EXPECT_EQ(2u, Taken(1).size());
    EXPECT_EQ(OPAL_OK, sinks.video->GetBufferedDuration(ms));
    EXPECT_EQ(2040, ms);
    EXPECT_EQ(OPAL_OK, sinks.audio->GetBufferedDuration(ms));
    EXPECT_EQ(2040, ms);
    EXPECT_EQ(OPAL_OK, sinks.audio->GetPosition(ms));
    EXPECT_EQ(0, ms);
    EXPECT_EQ(OPAL_OK, sinks.video->GetBlockTrailerSize(trailer));
    EXPECT_EQ(0u, trailer);
    EXPECT_EQ(OPAL_OK, sinks.video->GetTime(time));
    EXPECT_EQ(0u, time);
    Settle();
    EXPECT_EQ(OPAL_OK, sinks.video->Start());
    EXPECT_EQ(OPAL_OK, sinks.audio->SetRate(OPAL_PLAYRATE_FOURXFF));
    EXPECT_EQ(OPAL_OK, sinks.audio->SetPaused(true));
    EXPECT_TRUE(Entries("MM_SetTrickMode").empty());
    EXPECT_EQ(OPAL_OK, sinks.video->SetPaused(true));
    EXPECT_EQ(1u, Entries("MM_SetTrickMode").size());
    EXPECT_EQ("msTimeStamp >= 0", AssertionTextOf([&] { (void)sinks.Queue(-1); }));
    EXPECT_EQ("msDuration >= 0",
              AssertionTextOf([&] { (void)sinks.audio->Queue(&byte, 1, 0, -1); }));
    EXPECT_EQ(OPAL_ERROR_GENERAL, sinks.video->Queue(&byte, size_t{1} << 31, 0, 0));
}

TEST_F(PlatformSinkTest, ARefusedPayloadHoldsUpQueriesUntilTheSessionCloses) {
    Sinks sinks;
    control::RefusePayloads(SIZE_MAX);
    std::future<OPALError> video = std::async(std::launch::async, [&] { return sinks.Queue(0); });
    std::future<OPALError> audio = std::async(std::launch::async, [&] {
        uint8_t byte = 0;
        return sinks.audio->Queue(&byte, 1, 0, 0);
    });
    Await([] { return tvset::GetStatistics().payloadsRefused >= 6; });
    std::future<OPALError> query = std::async(std::launch::async, [&] {
        int64_t ms = 0;
        return sinks.video->GetPosition(ms);
    });
    EXPECT_EQ(std::future_status::timeout, query.wait_for(std::chrono::milliseconds(50)));
    HABArch_SetClosing(sinks.arch);
    EXPECT_EQ(OPAL_OK, video.get());
    EXPECT_EQ(OPAL_OK, audio.get());
    EXPECT_EQ(OPAL_OK, query.get());
}

TEST_F(PlatformSinkTest, TwoSessionsAtOnceDisturbEachOtherWithoutACrash) {
    Sinks first;
    std::atomic<bool> stop{false};
    std::thread writer([&] {
        for (int64_t ts = 0; !stop; ts += 40) {
            (void)first.Queue(ts);
            int64_t ms = 0;
            (void)first.video->GetPosition(ms);
        }
    });
    for (int i = 0; i < 50; ++i) {
        Sinks second;
        (void)second.Queue(0);
        (void)second.video->Flush();
    }
    stop = true;
    HABArch_SetClosing(first.arch);
    writer.join();
}

}  // namespace
}  // namespace opal::test
