#include "PlatformAdapter/Mstar/src/GoldenFileCheck.h"
#include "PlayerFixture.h"

namespace opal::test {
namespace {

class HABVideoTest : public PlayerTest {
  protected:
    /// Plays two pictures from `ts` on.
    void Play(int64_t ts) {
        m_session.QueueAll({ts});
        Settle();
        m_session.QueueAll({ts + 40});
        Advance(60);
        EXPECT_TRUE(m_session.arch->playing);
    }
    /// Queues blocks up to and without `end`, 40 ms apart; the time of the first one refused.
    int64_t QueueWhileTaken(int64_t ts, int64_t end) {
        while (ts < end && m_session.Queue(ts) == OPAL_OK)
            ts += 40;
        return ts;
    }

    Session m_session;
};

TEST_F(HABVideoTest, ChangesLengthPrefixesToStartCodes) {
    struct Case {
        const char* what;
        Bytes before, after;
    };
    const Case cases[] = {
        {"two units", {0, 0, 0, 1, 9, 0, 0, 0, 2, 5, 6}, {0, 0, 0, 1, 9, 0, 0, 0, 1, 5, 6}},
        {"zero first", {0, 0, 0, 0, 0, 0, 0, 2, 5, 6}, {0, 0, 0, 0, 0, 0, 0, 2, 5, 6}},
        {"negative", {0, 0, 0, 1, 9, 0xFF, 0, 0, 2}, {0, 0, 0, 1, 9, 0xFF, 0, 0, 2}},
        {"beyond the block", {0x7F, 0xFF, 0xFF, 0xFF, 9}, {0, 0, 0, 1, 9}},
        {"short rest", {0, 0, 0, 1, 9, 0, 0, 2}, {0, 0, 0, 1, 9, 0, 0, 2}},
        {"below 4 bytes", {0, 0, 9}, {0, 0, 9}},
        {"length at the end", {0, 0, 0, 2}, {0, 0, 0, 1}},
    };
    for (const Case& test : cases) {
        // Exactly as large as the block, so that a sanitizer sees each step beyond it.
        std::unique_ptr<uint8_t[]> block(new uint8_t[test.before.size()]);
        std::copy(test.before.begin(), test.before.end(), block.get());
        EXPECT_EQ(OPAL_OK, m_session.video->Queue(block.get(), test.before.size(), 0, 40));
        EXPECT_EQ(test.after, Bytes(block.get(), block.get() + test.before.size())) << test.what;
    }
}

TEST_F(HABVideoTest, WaitsForAudioThenForTheItemThenForTheDecoder) {
    m_session.ConfigureVideo();  // as if audio had never been
    for (int i = 0; i < 3; ++i)
        EXPECT_EQ(OPAL_ERROR_NOT_YET, m_session.Queue(0));
    EXPECT_TRUE(Entries("MM_CreateMediaItem").empty());
    control::HoldEvent(E_EVENT_INIT_OK, true);
    m_session.ConfigureAudio();
    m_session.QueueAll({60000, 60040});
    Settle();
    EXPECT_TRUE(Entries("MM_Play").empty());
    control::HoldEvent(E_EVENT_INIT_OK, false);
    Settle();
    m_session.QueueAll({60080});
    EXPECT_EQ(1u, Entries("MM_Play").size());
    EXPECT_EQ(0, m_session.Position());
    EXPECT_EQ(60080, m_session.Buffered());
    Advance(100);
    EXPECT_EQ(60080, m_session.Position());
    EXPECT_EQ(0, m_session.Buffered());
    EXPECT_THAT(TakePrinted(), HasSubstr("KMT Video firstpts=60000 \n"));
}

TEST_F(HABVideoTest, AnItemThatCannotBeMadeShowsAsAFullQueue) {
    control::Fail(control::Operation::CreateMediaItem, SIZE_MAX);
    EXPECT_EQ(2080, QueueWhileTaken(0, 5000));
    EXPECT_EQ(1u, Entries("MM_CreateMediaItem").size());
    EXPECT_EQ(0u, Entries("MM_PushPayload").front().item);
}

TEST_F(HABVideoTest, ReversePlayMapsTimesThereAndBack) {
    EXPECT_EQ(OPAL_OK, m_session.video->SetRate(OPAL_PLAYRATE_SIXTEENXRW));
    m_session.QueueAll({60000});
    Settle();
    m_session.QueueAll({58000, 30000, 0});
    EXPECT_THAT(Pushed(1), ElementsAre(60000, 60125, 61875, 63750, 63750));
    EXPECT_THAT(TakePrinted(), HasSubstr("RW to Final Frame \nPush Final data to ES "));
    Settle();  // the television's clock stands still until it has looked at all of them
    // At the anchor itself the position stays.
    for (const auto& [ms, position] : {std::pair{60, 0}, {70, 58000}, {1800, 30000}, {2000, 0}}) {
        Advance(ms);
        EXPECT_EQ(position, m_session.Position());
    }
}

TEST_F(HABVideoTest, ReversePlayNeverFallsBelowZero) {
    (void)m_session.video->SetRate(OPAL_PLAYRATE_FOURXRW);
    m_session.QueueAll({1000});
    Settle();
    m_session.QueueAll({600, 4294964296});  // 3 s before 0, in 32 bits
    Advance(110);
    EXPECT_EQ(600, m_session.Position());
    Advance(1000);
    EXPECT_THAT(Pushed(1), ElementsAre(1000, 1100, 2000));
    EXPECT_EQ(600, m_session.Position());
    // No reverse anchor means anything at 1x: the position stays where it was.
    (void)m_session.video->SetRate(OPAL_PLAYRATE_ONEX);
    EXPECT_EQ(600, m_session.Position());
}

TEST_F(HABVideoTest, FastForwardMapsFromItsFirstBlock) {
    Play(9960);
    EXPECT_EQ(OPAL_OK, m_session.video->SetRate(OPAL_PLAYRATE_EIGHTXFF));
    EXPECT_EQ(OPAL_OK, m_session.video->Flush());
    m_session.QueueAll({10000, 12000, 18001, 10007, 14800});
    Advance(620);
    EXPECT_EQ(14800, m_session.Position());
    EXPECT_EQ(OPAL_OK, m_session.video->Flush());
    EXPECT_THAT(TakePrinted(), HasSubstr("[flush] pts update after flush = 14800 \n"
                                         "[flush] KMTPlayer_GetPlayPosition= 10600 \n"));
    EXPECT_EQ(14800, m_session.Position());  // until the next block
    (void)m_session.video->SetRate(OPAL_PLAYRATE_ONEX);
    m_session.QueueAll({14800});
    // At a rate that is none, time 0 and no second push.
    (void)m_session.video->SetRate(static_cast<OPALPlayRate>(12));
    m_session.QueueAll({0});
    EXPECT_THAT(Pushed(1), ElementsAre(9960, 10000, 10000, 10250, 11000, 10000, 10600, 14800, 0));
    EXPECT_EQ(14800u, m_session.arch->lastPts);
}

TEST_F(HABVideoTest, StaysTwoSecondsAheadAndAfterAFlushWaitsForThePictureToMove) {
    Play(10000);
    EXPECT_EQ(m_session.Position() + 2080, QueueWhileTaken(10080, 15000));
    const int64_t before = m_sleptMs;
    EXPECT_EQ(OPAL_OK, m_session.video->Flush());
    EXPECT_EQ(1500, m_sleptMs - before);
    control::Freeze(true);
    EXPECT_EQ(70040, QueueWhileTaken(60000, 70040));
    control::Freeze(false);
    Settle();
    EXPECT_EQ(60000, m_session.Position());
    EXPECT_EQ(OPAL_ERROR_NOT_YET, m_session.Queue(70040));
    Advance(300);
    EXPECT_GE(m_session.Position(), 60200);
    EXPECT_EQ(OPAL_OK, m_session.video->Flush());
    control::Freeze(true);
    m_session.QueueAll({5000, 5080, 5040});
    EXPECT_EQ(40, m_session.Buffered()) << "the last less the first: none is on the screen yet";
    EXPECT_EQ(OPAL_OK, m_session.video->Flush());
    m_session.QueueAll({5080, 5000});
    EXPECT_LE(m_session.Buffered(), 80) << "the first is not the lowest";
    control::Freeze(false);
    Settle();
    EXPECT_EQ(5000, m_session.Position());
    VideoErrorCount() = 1;
    EXPECT_EQ(OPAL_ERROR_GENERAL, m_session.video->Flush());
    VideoErrorCount() = 0;
}

TEST_F(HABVideoTest, ARefusedPayloadIsPushedAgainEachSecondAndConvertedOnce) {
    control::RefuseVideoPayloads(2);
    m_session.QueueAll({0});
    EXPECT_EQ(2000, m_sleptMs);
    EXPECT_EQ(2u, Pushed(1, false).size());
    EXPECT_EQ(1u, Pushed(1).size());
    EXPECT_EQ(Bytes({0, 0, 0, 1, 0x67, 0x64, 0, 0}), Entries("MM_PushPayload").back().head);
}

TEST_F(HABVideoTest, PauseAndResumeReachThePlayerOnceEach) {
    EXPECT_EQ(OPAL_OK, m_session.video->SetPaused(true));  // held from the start
    EXPECT_EQ(OPAL_OK, m_session.video->SetPaused(false));
    EXPECT_TRUE(Entries("MM_SetTrickMode").empty());
    Play(0);
    EXPECT_EQ(OPAL_OK, m_session.audio->SetPaused(true));  // known to the video side only
    for (const bool paused : {true, true, false, false, true})
        EXPECT_EQ(OPAL_OK, m_session.video->SetPaused(paused));
    EXPECT_EQ(OPAL_OK, m_session.video->Start());
    std::vector<uint64_t> modes;
    for (const auto& call : Entries("MM_SetTrickMode"))
        modes.push_back(call.value);
    EXPECT_THAT(modes, ElementsAre(1, 0, 1, 0));
    EXPECT_EQ(1u, Entries("MM_Play").size());
}

}  // namespace
}  // namespace opal::test
