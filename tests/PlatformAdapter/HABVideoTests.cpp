#include <gmock/gmock.h>

#include "PlatformAdapter/Mstar/src/GoldenFileCheck.h"
#include "PlayerFixture.h"
#include "support/AssertionTrap.h"

namespace opal::test {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;
namespace control = tvset::control;

class HABVideoTest : public PlayerTest {
  protected:
    /// Plays with pictures from `ts` on, `count` of them 40 ms apart.
    void Play(uint32_t ts, uint32_t count = 2) {
        m_session.ConfigureAudio();
        EXPECT_EQ(HAB_OK, m_session.Queue(ts));
        Settle();
        for (uint32_t i = 1; i < count; ++i)
            EXPECT_EQ(HAB_OK, m_session.Queue(ts + i * 40));
        Advance(60);
        EXPECT_TRUE(m_session.arch->playing);
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
    m_session.ConfigureAudio();
    for (const Case& test : cases) {
        // Exactly as large as the block, so that a sanitizer sees each step beyond it.
        std::unique_ptr<uint8_t[]> block(new uint8_t[test.before.size()]);
        std::copy(test.before.begin(), test.before.end(), block.get());
        EXPECT_EQ(HAB_OK, HABVideo_Queue(m_session.video, block.get(),
                                         static_cast<int32_t>(test.before.size()), 0));
        EXPECT_EQ(test.after, Bytes(block.get(), block.get() + test.before.size())) << test.what;
    }
    const uint8_t prefix[] = {0xFF, 0xFF, 0xFF, 0xFE};
    EXPECT_EQ(-2, NALSize(prefix, 4));
    EXPECT_EQ(0, NALSize(prefix, 3));
    EXPECT_EQ("count > 0", AssertionTextOf([&] { NALSize(prefix, 0); }));
}

TEST_F(HABVideoTest, WaitsForAudioThenForTheItemThenForTheDecoder) {
    for (int i = 0; i < 100; ++i)
        EXPECT_EQ(HAB_VIDEO_FULL, m_session.Queue(0));
    EXPECT_TRUE(Entries("MM_CreateMediaItem").empty());
    control::HoldEvent(E_EVENT_INIT_OK, true);
    m_session.ConfigureAudio();
    EXPECT_EQ(HAB_OK, m_session.Queue(60000));
    EXPECT_EQ(HAB_OK, m_session.Queue(60040));
    Settle();
    EXPECT_TRUE(Entries("MM_Play").empty());
    control::HoldEvent(E_EVENT_INIT_OK, false);
    Settle();
    EXPECT_EQ(HAB_OK, m_session.Queue(60080));
    EXPECT_EQ(1u, Entries("MM_Play").size());
    EXPECT_EQ(0, m_session.Position());
    EXPECT_EQ(60080u, m_session.Buffered());
    Advance(100);
    EXPECT_EQ(60080, m_session.Position());
    EXPECT_EQ(0u, m_session.Buffered());
    EXPECT_THAT(TakePrinted(), HasSubstr("KMT Video firstpts=60000 \n"));
}

TEST_F(HABVideoTest, AnItemThatCannotBeMadeShowsAsAFullQueue) {
    control::Fail(control::Operation::CreateMediaItem, SIZE_MAX);
    m_session.ConfigureAudio();
    for (uint32_t ts = 0; ts <= 2040; ts += 40)
        EXPECT_EQ(HAB_OK, m_session.Queue(ts)) << ts;
    EXPECT_EQ(HAB_VIDEO_FULL, m_session.Queue(2080));
    EXPECT_EQ(1u, Entries("MM_CreateMediaItem").size());
    EXPECT_EQ(0u, Entries("MM_PushPayload").front().item);
}

TEST_F(HABVideoTest, StaysTwoSecondsAheadOfThePicture) {
    Play(0);
    uint32_t ts = 80;
    while (ts < 5000 && m_session.Queue(ts) == HAB_OK)
        ts += 40;
    const int64_t position = m_session.Position();
    EXPECT_EQ(position + 2000 + 40, ts - 40);
    Advance(40);
    EXPECT_EQ(position + 40, m_session.Position());
    EXPECT_EQ(HAB_OK, m_session.Queue(ts));
    EXPECT_EQ(HAB_VIDEO_FULL, m_session.Queue(ts + 40));
    EXPECT_EQ(2040u, m_session.Buffered());
}

TEST_F(HABVideoTest, ReversePlayMapsTimesThereAndBack) {
    EXPECT_EQ(HAB_OK, HABVideo_SetRate(m_session.video, OPAL_PLAYRATE_SIXTEENXRW));
    m_session.ConfigureAudio();
    EXPECT_EQ(HAB_OK, m_session.Queue(60000));
    Settle();
    for (const uint32_t ts : {58000u, 30000u, 0u})
        EXPECT_EQ(HAB_OK, m_session.Queue(ts));
    EXPECT_THAT(Taken(1), ElementsAre(60000, 60125, 61875, 63750, 63750));
    EXPECT_THAT(TakePrinted(), HasSubstr("RW to Final Frame \nPush Final data to ES "));
    Settle();  // the set's clock stands still until it has looked at all of them
    Advance(60);
    EXPECT_EQ(0, m_session.Position());  // at the anchor itself the position stays
    Advance(70);
    EXPECT_EQ(58000, m_session.Position());
    Advance(1800);
    EXPECT_EQ(30000, m_session.Position());
    Advance(2000);
    EXPECT_EQ(0, m_session.Position());
}

TEST_F(HABVideoTest, ReversePlayNeverFallsBelowZero) {
    HABVideo_SetRate(m_session.video, OPAL_PLAYRATE_FOURXRW);
    m_session.ConfigureAudio();
    EXPECT_EQ(HAB_OK, m_session.Queue(1000));
    Settle();
    EXPECT_EQ(HAB_OK, m_session.Queue(600));
    EXPECT_EQ(HAB_OK, m_session.Queue(0u - 3000u));
    Advance(110);
    EXPECT_EQ(600, m_session.Position());
    Advance(1000);
    EXPECT_THAT(Taken(1), ElementsAre(1000, 1100, 2000));
    EXPECT_EQ(600, m_session.Position());
    // No reverse anchor means anything at 1x: the position stays where it was.
    HABVideo_SetRate(m_session.video, OPAL_PLAYRATE_ONEX);
    EXPECT_EQ(600, m_session.Position());
}

TEST_F(HABVideoTest, FastForwardMapsFromItsFirstBlock) {
    Play(9960);
    EXPECT_EQ(HAB_OK, HABVideo_SetRate(m_session.video, OPAL_PLAYRATE_EIGHTXFF));
    EXPECT_EQ(HAB_OK, HABVideo_Flush(m_session.video));
    for (const uint32_t ts : {10000u, 12000u, 18001u, 10007u, 14800u})
        EXPECT_EQ(HAB_OK, m_session.Queue(ts));
    Advance(620);
    EXPECT_EQ(14800, m_session.Position());
    EXPECT_EQ(HAB_OK, HABVideo_Flush(m_session.video));
    EXPECT_THAT(TakePrinted(), HasSubstr("[flush] pts update after flush = 14800 \n"
                                         "[flush] KMTPlayer_GetPlayPosition= 10600 \n"));
    EXPECT_EQ(14800, m_session.Position());  // until the next block
    HABVideo_SetRate(m_session.video, OPAL_PLAYRATE_ONEX);
    EXPECT_EQ(HAB_OK, m_session.Queue(14800));
    // At a rate that is none, time 0 and no second push.
    HABVideo_SetRate(m_session.video, static_cast<OPALPlayRate>(12));
    EXPECT_EQ(HAB_OK, m_session.Queue(0));
    EXPECT_THAT(Taken(1), ElementsAre(9960, 10000, 10000, 10250, 11000, 10000, 10600, 14800, 0));
    EXPECT_EQ(14800u, m_session.arch->lastPts);
    EXPECT_THAT(TakePrinted(), HasSubstr("HABVideo_SetRate playspeed -1\n"));
}

TEST_F(HABVideoTest, AfterAFlushBlocksGoInUntilThePictureMoves) {
    Play(10000, 10);
    const int64_t before = m_sleptMs;
    EXPECT_EQ(HAB_OK, HABVideo_Flush(m_session.video));
    EXPECT_EQ(1500, m_sleptMs - before);
    control::Freeze(true);
    for (uint32_t ts = 60000; ts <= 70000; ts += 40)
        EXPECT_EQ(HAB_OK, m_session.Queue(ts));
    control::Freeze(false);
    Settle();
    EXPECT_EQ(60000, m_session.Position());
    EXPECT_EQ(HAB_VIDEO_FULL, m_session.Queue(70040));
    Advance(300);
    EXPECT_GE(m_session.Position(), 60200);
    EXPECT_EQ(HAB_OK, HABVideo_Flush(m_session.video));
    EXPECT_EQ(HAB_OK, m_session.Queue(5000));
    EXPECT_LE(m_session.Buffered(), 60000u);
    Settle();
    EXPECT_EQ(5000, m_session.Position());
    VideoErrorCount() = 1;
    EXPECT_EQ(HAB_FAIL, HABVideo_Flush(m_session.video));
    VideoErrorCount() = 0;
}

TEST_F(HABVideoTest, ARefusedPayloadIsPushedAgainEachSecondAndConvertedOnce) {
    uint8_t byte = 0;
    m_session.ConfigureAudio();
    EXPECT_EQ("pVideoData != __null",
              AssertionTextOf([&] { HABVideo_Queue(m_session.video, nullptr, 1, 0); }));
    EXPECT_EQ("dataSize != 0",
              AssertionTextOf([&] { HABVideo_Queue(m_session.video, &byte, 0, 0); }));
    control::RefuseVideoPayloads(2);
    Bytes unit = {0, 0, 0, 2, 9, 0x41};
    EXPECT_EQ(HAB_OK, HABVideo_Queue(m_session.video, unit.data(), 6, 0));
    EXPECT_EQ(2000, m_sleptMs);
    EXPECT_EQ(1u, Taken(1).size());
    EXPECT_EQ(3u, Entries("MM_PushPayload").size());
    EXPECT_EQ(Bytes({0, 0, 0, 1, 9, 0x41}), Entries("MM_PushPayload").back().head);
}

TEST_F(HABVideoTest, PauseAndResumeReachThePlayerOnceEach) {
    EXPECT_EQ(HAB_OK, HABVideo_Pause(m_session.video, true));  // held from the start
    EXPECT_EQ(HAB_OK, HABVideo_Pause(m_session.video, false));
    EXPECT_TRUE(Entries("MM_SetTrickMode").empty());
    Play(0, 20);
    for (const bool paused : {true, true, false, false})
        EXPECT_EQ(HAB_OK, HABVideo_Pause(m_session.video, paused));
    const auto calls = Entries("MM_SetTrickMode");
    ASSERT_EQ(2u, calls.size());
    EXPECT_EQ(1u, calls[0].value);
    EXPECT_EQ(0u, calls[1].value);
    EXPECT_EQ(1u, Entries("MM_Play").size());
}

}  // namespace
}  // namespace opal::test
