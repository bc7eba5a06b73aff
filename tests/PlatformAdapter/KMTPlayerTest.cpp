#include "PlatformAdapter/Mstar/KMTPlayer.h"

#include "PlatformAdapter/Mstar/src/GoldenFileCheck.h"
#include "PlatformAdapter/Mstar/src/MSrv_Kmtplayer.h"
#include "PlayerFixture.h"

namespace opal::test {
namespace {

using testing::MatchesRegex;

std::vector<int> g_events;
int RememberEvent(int event, uint32_t) {
    g_events.push_back(event);
    return 1;
}

class KMTPlayerTest : public PlayerTest {
  protected:
    ~KMTPlayerTest() override { KMTPlayer_Finalize(); }

    void Create() {
        EXPECT_EQ(1, KMTPlayer_Initialize());
        EXPECT_EQ(1, KMTPlayer_SetVideoCodec(7));
        EXPECT_EQ(1, KMTPlayer_CreateMediaItem());
        Settle();
    }
    static int Push(uint32_t pts) {
        uint8_t byte = 1;
        KMTPLAYER_DATA_INFO info = {&byte, 1, pts, kVideoPayload};
        return KMTPlayer_PushPayload(&info);
    }
};

TEST_F(KMTPlayerTest, WithoutAPlayerEverythingFailsQuietly) {
    EXPECT_EQ(0, KMTPlayer_Finalize());
    EXPECT_THAT(TakePrinted(),
                MatchesRegex("(.*\n)*\033\\[0;33m###### \\[.*MSrv_Kmtplayer.cpp - "
                             "KMTPlayer_Finalize\\]\\[[0-9]{6}\\]KMTPlayer_Finalize Error!!! "
                             "######\033\\[0m\n \n"));
    for (const auto operation : {KMTPlayer_Play, KMTPlayer_Pause, KMTPlayer_Stop,
                                 KMTPlayer_DeleteMediaItem, KMTPlayer_DemuxReset})
        EXPECT_EQ(0, operation());
    EXPECT_EQ(0, Push(0));
    EXPECT_EQ(0u, KMTPlayer_GetPlayPosition() + KMTPlayer_GetVideoBufferLevel());
    EXPECT_EQ(0, KMTPlayer_SetFlushData(EN_DATA_TYPE_VIDEO));
}

TEST_F(KMTPlayerTest, AnItemNeedsACodecAndIsMadeOnce) {
    EXPECT_EQ(1, KMTPlayer_Initialize());
    EXPECT_EQ(0, KMTPlayer_Initialize());
    EXPECT_EQ(0, KMTPlayer_CreateMediaItem());
    EXPECT_EQ(1, Push(3));
    EXPECT_EQ(0u, Entries("MM_PushPayload")[0].item);
    KMTPlayer_SetAudioCodec(6);
    EXPECT_EQ(1, KMTPlayer_SetAudioSampleRate(8000));
    EXPECT_EQ(1, KMTPlayer_CreateMediaItem());
    EXPECT_EQ(0, KMTPlayer_CreateMediaItem());
    const auto made = Entries("MM_CreateMediaItem");
    ASSERT_EQ(1u, made.size());
    EXPECT_EQ(8000u, Word(made[0].record, 124));
    EXPECT_EQ(UINT32_MAX, Word(made[0].record, 80));
}

TEST_F(KMTPlayerTest, FailuresOfTheServiceDoNotOutliveThePlayer) {
    control::Fail(control::Operation::Initialize);
    EXPECT_EQ(0, KMTPlayer_Initialize());
    EXPECT_EQ(0, KMTPlayer_Initialize());  // the object is kept
    EXPECT_EQ(1, KMTPlayer_Finalize());
    Create();
    EXPECT_EQ(1, KMTPlayer_Play());
    for (const auto operation : {KMTPlayer_Pause, KMTPlayer_Play}) {  // resumes, and is no new play
        control::Fail(control::Operation::TrickMode);
        EXPECT_EQ(0, operation());
        EXPECT_EQ(1, operation());
    }
    EXPECT_EQ(1u, Entries("MM_Play").size());
    control::Fail(control::Operation::Delete);
    EXPECT_EQ(0, KMTPlayer_DeleteMediaItem());
    control::Fail(control::Operation::Finalize);
    EXPECT_EQ(0, KMTPlayer_Finalize());
    EXPECT_EQ(1, Push(0));  // the player is still there
    EXPECT_EQ(1, KMTPlayer_Finalize());
    Create();
    EXPECT_EQ(1, KMTPlayer_DeleteMediaItem());
}

TEST_F(KMTPlayerTest, EventsArePassedOnByTheTable) {
    unsigned long item = 5;
    const auto deliver = [](uintptr_t event, unsigned long* to) {
        EXPECT_EQ(0, IO_Callback(nullptr, reinterpret_cast<void*>(event), to));
    };
    KMTPlayerIoCallback callbacks[kIoCallbackCount] = {};
    KMTPlayer_RegisterIoCallback(callbacks);
    deliver(E_EVENT_INIT_OK, &item);  // nobody there to take it
    callbacks[kEventCallbackIndex] = &RememberEvent;
    KMTPlayer_RegisterIoCallback(callbacks);
    g_events.clear();
    for (uintptr_t event = 0; event <= 21; ++event)
        deliver(event, &item);
    EXPECT_THAT(TakePrinted(), HasSubstr("Get E_EVENT_DECODE_BACKWARD_TO_FILE_START event."));
    item = 0;
    deliver(E_EVENT_INIT_OK, &item);
    deliver(E_EVENT_INIT_OK, nullptr);
    EXPECT_THAT(g_events, ElementsAre(4, 5, 6, 7, 8, 2, 3, 9, 10, 11));
    callbacks[kEventCallbackIndex] = nullptr;
    KMTPlayer_RegisterIoCallback(callbacks);
}

TEST_F(KMTPlayerTest, AnswersTheSubtitleWindow) {
    uint16_t position[2] = {};
    EXPECT_EQ(1, SubtitleCallback(nullptr, 0, position, nullptr));  // no player
    Create();
    KMTPlayer_Play();
    EXPECT_EQ(1, Push(70000));
    Settle();
    EXPECT_EQ(1, SubtitleCallback(nullptr, 0, position, nullptr));
    EXPECT_THAT(position, ElementsAre(70000 - 65536, 1));
    uint16_t size[2] = {7, 7};
    EXPECT_EQ(1, SubtitleCallback(nullptr, 1, &size[0], &size[1]));
    EXPECT_THAT(size, ElementsAre(0, 0));  // undecoded pictures have none
}

TEST(PlatformServicesTest, NullHandlesAndCrc) {
    EXPECT_EQ(HAB_FAIL, HABTimer_SetTime(nullptr, 1));
    HABArch_SetStopSignal(nullptr, nullptr);
    CrcTable table;
    FillCrcTable(table);
    EXPECT_EQ(0xCBF43926u, CalculateCrc(table, reinterpret_cast<const uint8_t*>("123456789"), 9));
}

}  // namespace
}  // namespace opal::test
