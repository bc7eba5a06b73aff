#include <future>

#include "PlayerFixture.h"

namespace opal::test {
namespace {

class PlatformSinkTest : public PlayerTest {
  protected:
    /// A whole session, and what the television was asked in it.
    std::vector<std::string> PlayOnce() {
        control::HoldEvent(E_EVENT_INIT_OK, true);
        const size_t before = control::Journal().size();
        {
            Session session;
            session.QueueAll({0});
            control::HoldEvent(E_EVENT_INIT_OK, false);
            Settle();
            session.QueueAll({40});
            Advance(60);
            EXPECT_EQ(40, session.Position());
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
    EXPECT_EQ(1u, Entries("MM_SetVideoBlackScreen").back().value);

    Bytes expected(192, 0);
    std::fill_n(&expected[32], 8, uint8_t{0xFF});
    const std::vector<std::pair<size_t, uint8_t>> rest = {
        {16, 1}, {40, 2}, {44, 3}, {72, 2}, {80, 7}, {98, 1}, {124, 0x44}, {125, 0xAC}, {160, 6}};
    for (const auto& [offset, value] : rest)
        expected[offset] = value;
    EXPECT_EQ(expected, Entries("MM_CreateMediaItem").back().record);
}

TEST_F(PlatformSinkTest, PlaybackStartsWheneverTheHandleComesFirst) {
    constexpr int kRuns = 300;
    for (int run = 0; run < kRuns; ++run) {
        Session session;
        EXPECT_EQ(OPAL_OK, session.Queue(0));
        ASSERT_TRUE(Await([&] { return session.arch->itemReady == 1; }));
        EXPECT_EQ(OPAL_OK, session.Queue(40));
        EXPECT_EQ(0, session.arch->held);
    }
    EXPECT_EQ(size_t{kRuns}, Entries("MM_Play").size());
    control::DeliverInitBeforeHandle(true);
    Session session;
    EXPECT_EQ(OPAL_OK, session.Queue(0));
    Settle();
    EXPECT_EQ(OPAL_OK, session.Queue(40));
    EXPECT_EQ(size_t{kRuns}, Entries("MM_Play").size());
}

TEST_F(PlatformSinkTest, NothingBeforeConfigureOrAfterFinalize) {
    Session session;
    for (PlatformBase* sink :
         std::initializer_list<PlatformBase*>{session.video.get(), session.audio.get()}) {
        uint8_t byte = 0;
        for (const auto stage : {&PlatformBase::Finalize, &PlatformBase::Initialize}) {
            EXPECT_EQ(OPAL_OK, (sink->*stage)());
            EXPECT_EQ(OPAL_ERROR_GENERAL, sink->Start());
            EXPECT_EQ(OPAL_ERROR_GENERAL, sink->Queue(&byte, 1, -1, -1));
            EXPECT_EQ(OPAL_ERROR_GENERAL, sink->Flush());
            EXPECT_EQ(OPAL_ERROR_GENERAL, sink->SetPaused(true));
        }
    }
}

TEST_F(PlatformSinkTest, WhatABlockMustNotBe) {
    Session session;
    uint8_t byte = 0;
    PlatformVideo& video = *session.video;
    const auto queue = [&](void* data, size_t size) { return video.Queue(data, size, 0, 40); };
    EXPECT_EQ("msTimeStamp >= 0", AssertionTextOf([&] { (void)session.Queue(-1); }));
    EXPECT_EQ("msDuration >= 0",
              AssertionTextOf([&] { (void)session.audio->Queue(&byte, 1, 0, -1); }));
    EXPECT_EQ("pVideoData != __null", AssertionTextOf([&] { (void)queue(nullptr, 1); }));
    EXPECT_EQ("dataSize != 0", AssertionTextOf([&] { (void)queue(&byte, 0); }));
    EXPECT_EQ(OPAL_ERROR_GENERAL, queue(&byte, size_t{1} << 31));
    EXPECT_TRUE(Pushed(1).empty());
}

TEST_F(PlatformSinkTest, ARefusedPayloadHoldsUpQueriesUntilTheSessionCloses) {
    Session session;
    control::RefusePayloads(SIZE_MAX);
    const auto async = [](auto call) { return std::async(std::launch::async, call); };
    std::future<OPALError> video = async([&] { return session.Queue(0); });
    std::future<OPALError> audio = async([&] { return session.QueueAudio(0); });
    EXPECT_TRUE(Await([] { return !Pushed(0, false).empty(); })) << "audio";
    EXPECT_TRUE(Await([] { return !Pushed(1, false).empty(); })) << "video";
    std::future<int64_t> query = async([&] { return session.Position(); });
    EXPECT_EQ(std::future_status::timeout, query.wait_for(std::chrono::milliseconds(50)));
    session.stop.Raise();
    EXPECT_EQ(OPAL_OK, video.get());
    EXPECT_EQ(OPAL_OK, audio.get());
    EXPECT_EQ(0, query.get());
}

TEST_F(PlatformSinkTest, TwoSessionsAtOnceDisturbEachOtherWithoutACrash) {
    Session first;
    std::atomic<bool> stop{false};
    std::thread writer([&] {
        for (int64_t ts = 0; !stop; ts += 40) {
            (void)first.Queue(ts);
            (void)first.Position();
        }
    });
    for (int i = 0; i < 50; ++i) {
        Session second;
        (void)second.Queue(0);
        (void)second.video->Flush();
    }
    stop = true;
    first.stop.Raise();
    writer.join();
}

}  // namespace
}  // namespace opal::test
