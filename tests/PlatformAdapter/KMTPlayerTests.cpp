#include "PlatformAdapter/Mstar/KMTPlayer.h"

#include <gmock/gmock.h>

#include "PlatformAdapter/Mstar/src/GoldenFileCheck.h"
#include "PlatformAdapter/Mstar/src/MSrv_Kmtplayer.h"
#include "PlayerFixture.h"
#include "support/AssertionTrap.h"

namespace opal::test {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::MatchesRegex;
namespace control = tvset::control;

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
    EXPECT_EQ(0, KMTPlayer_SwitchAudioTrack(6, 1, 1));
    EXPECT_TRUE(control::Journal().empty());
}

TEST_F(KMTPlayerTest, AnItemNeedsACodecAndIsMadeOnce) {
    EXPECT_EQ(1, KMTPlayer_Initialize());
    EXPECT_EQ(0, KMTPlayer_Initialize());
    EXPECT_THAT(TakePrinted(), HasSubstr("KMTPlayer_Initialize Already Init!!!"));
    EXPECT_EQ(0, KMTPlayer_CreateMediaItem());
    EXPECT_EQ("", TakePrinted());
    EXPECT_EQ(1, Push(3));
    EXPECT_EQ(0u, Entries("MM_PushPayload")[0].item);
    KMTPlayer_SetAudioCodec(6);
    EXPECT_EQ(1, KMTPlayer_SetAudioSampleRate(8000));
    EXPECT_EQ(0, KMTPlayer_SetAudioSampleRate(0));
    EXPECT_THAT(TakePrinted(), HasSubstr("#### Sample rate : 8000 ####\n ######"));
    EXPECT_EQ(1, KMTPlayer_CreateMediaItem());
    EXPECT_THAT(TakePrinted(), HasSubstr("]KMTPlayer_CreateMediaItem: u64FileLength = -1 ######"));
    EXPECT_EQ(0, KMTPlayer_CreateMediaItem());
    EXPECT_THAT(TakePrinted(),
                HasSubstr("Error: _pMMInterface == NULL or already create media item!!!"));
    const auto made = Entries("MM_CreateMediaItem");
    ASSERT_EQ(1u, made.size());
    EXPECT_EQ(Bytes({0x40, 0x1F, 0, 0}), Bytes(&made[0].record[124], &made[0].record[128]));
    EXPECT_EQ(Bytes(4, 0xFF), Bytes(&made[0].record[80], &made[0].record[84]));
}

TEST_F(KMTPlayerTest, ResumingIsNotPlaying) {
    Create();
    EXPECT_EQ(1, KMTPlayer_Play());
    control::Fail(control::Operation::TrickMode);
    EXPECT_EQ(0, KMTPlayer_Pause());
    EXPECT_EQ(1, KMTPlayer_Pause());
    control::Fail(control::Operation::TrickMode);
    EXPECT_EQ(0, KMTPlayer_Play());
    EXPECT_THAT(TakePrinted(), HasSubstr("Error: Resume fail!!!"));
    EXPECT_EQ(1, KMTPlayer_Play());
    EXPECT_EQ(1u, Entries("MM_Play").size());
    EXPECT_EQ(0u, Entries("MM_SetTrickMode").back().value);
    EXPECT_TRUE(Entries("MM_SetDisplayRectangle").empty());
}

TEST_F(KMTPlayerTest, FailuresOfTheServiceDoNotOutliveThePlayer) {
    control::Fail(control::Operation::Initialize);
    EXPECT_EQ(0, KMTPlayer_Initialize());
    EXPECT_EQ(0, KMTPlayer_Initialize());  // the object is kept
    EXPECT_EQ(1, KMTPlayer_Finalize());
    Create();
    control::Fail(control::Operation::Delete);
    EXPECT_EQ(0, KMTPlayer_DeleteMediaItem());
    EXPECT_THAT(TakePrinted(), HasSubstr("Error: KMTPlayer_DeleteMediaItem failed!!!"));
    control::Fail(control::Operation::Finalize);
    EXPECT_EQ(0, KMTPlayer_Finalize());
    EXPECT_EQ(1, Push(0));  // the player is still there
    EXPECT_EQ(1, KMTPlayer_Finalize());
    Create();
    EXPECT_EQ(1, KMTPlayer_DeleteMediaItem());
}

TEST_F(KMTPlayerTest, EventsArePassedOnByTheTable) {
    unsigned long item = 5;
    const auto deliver = [&item](uintptr_t event) {
        EXPECT_EQ(0, IO_Callback(nullptr, reinterpret_cast<void*>(event), &item));
    };
    KMTPlayerIoCallback callbacks[kIoCallbackCount] = {};
    KMTPlayer_RegisterIoCallback(callbacks);
    deliver(E_EVENT_INIT_OK);  // nobody there to take it
    callbacks[kEventCallbackIndex] = &RememberEvent;
    KMTPlayer_RegisterIoCallback(callbacks);
    g_events.clear();
    TakePrinted();
    for (uintptr_t event = 0; event <= 21; ++event)
        deliver(event);
    EXPECT_THAT(g_events, ElementsAre(4, 5, 6, 7, 8, 2, 3, 9, 10, 11));
    EXPECT_THAT(TakePrinted(), HasSubstr("Get E_EVENT_DECODE_BACKWARD_TO_FILE_START event."));
    item = 0;
    deliver(E_EVENT_INIT_OK);
    IO_Callback(nullptr, reinterpret_cast<void*>(uintptr_t{E_EVENT_INIT_OK}), nullptr);
    EXPECT_EQ(10u, g_events.size());
    callbacks[kEventCallbackIndex] = nullptr;
    KMTPlayer_RegisterIoCallback(callbacks);
}

TEST_F(KMTPlayerTest, AnswersTheSubtitleWindow) {
    uint16_t a[2] = {7, 7};
    uint16_t b = 7;
    EXPECT_EQ(1, SubtitleCallback(nullptr, 0, a, nullptr));  // no player: nothing is written
    EXPECT_EQ(7, a[0]);
    Create();
    KMTPlayer_Play();
    EXPECT_EQ(1, Push(70000));
    Settle();
    EXPECT_EQ(70000u, KMTPlayer_GetPlayPosition());
    EXPECT_EQ(1, SubtitleCallback(nullptr, 0, a, nullptr));
    EXPECT_EQ(70000 - 65536, a[0]);
    EXPECT_EQ(1, a[1]);
    EXPECT_EQ(1, SubtitleCallback(nullptr, 1, a, &b));
    EXPECT_EQ(0, b);  // undecoded pictures have no size
    EXPECT_EQ(1, SubtitleCallback(nullptr, 2, nullptr, nullptr));
}

TEST(PlatformServicesTest, RecordTimerPreferencesAndCrc) {
    HHABARCH arch = nullptr;
    HHABTIMER timer = nullptr;
    HABArch_New(&arch);
    EXPECT_EQ(HAB_OK, HABTimer_New(&timer, arch, kSessionTimerKind));
    uint32_t ms = 5;
    EXPECT_EQ(HAB_OK, HABTimer_GetState(timer, &ms));
    EXPECT_EQ(5u, ms);
    EXPECT_EQ(HAB_OK, HABTimer_SetTime(timer, 1234));
    EXPECT_EQ(HAB_OK, HABTimer_GetTime(timer, &ms));
    EXPECT_EQ(1234u, ms);
    EXPECT_EQ(HAB_FAIL, HABTimer_SetTime(nullptr, 1));
    EXPECT_EQ(HAB_FAIL, HABTimer_GetTime(nullptr, &ms));
    HABPreferences preferences;
    EXPECT_EQ(HAB_OK, HABArch_GetPreferences(arch, preferences));
    EXPECT_EQ("french", preferences.subtitleLanguage);
    HABArch_SetClosing(arch);
    EXPECT_EQ(1, arch->closing);
    HABArch_SetClosing(nullptr);
    EXPECT_EQ("hHABArch != __null", AssertionTextOf([] { HABArch_Delete(nullptr); }));
    HABTimer_Delete(timer);
    HABArch_Delete(arch);
    CrcTable table;
    FillCrcTable(table);
    EXPECT_EQ(0xCBF43926u, CalculateCrc(table, reinterpret_cast<const uint8_t*>("123456789"), 9));
}

}  // namespace
}  // namespace opal::test
