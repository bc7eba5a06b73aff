#include "PlatformAdapter/Mstar/HABAudio.h"

#include "PlatformAdapter/Mstar/src/GoldenFileCheck.h"
#include "PlayerFixture.h"

namespace opal::test {
namespace {

class HABAudioTest : public PlayerTest {};

TEST_F(HABAudioTest, TheFirstConfigurationGoesIntoTheItem) {
    const std::tuple<Bytes, std::string, uint32_t> rows[] = {
        {{0x16, 0x08}, "ncy 12 & sampleRate 7350 & channelCount 1\n", 7350},
        {{0x17, 0x80, 0x5D, 0xC0, 0x10}, "ncy 15 & sampleRate 48000 & channelCount 2\n", 48000},
        {{0x17, 0x10}, "dataSize = 2 > 0\n0x17 \n0x10 \n", 44100},  // reserved: no rate is set
        {{}, "dataSize = 0 <= 0\nSet sampleRate 32000!\n", 32000},
        {{0x12}, "dataSize = 1 <= 0\n", 32000},  // not whole: not read
        {{0x17, 0x80, 0x5D, 0xC0}, "dataSize = 4 <= 0\n", 32000},
    };
    for (const auto& [config, printed, rate] : rows) {
        SCOPED_TRACE(printed);
        Session session;
        session.ConfigureAudio(config, 32000);
        session.ConfigureAudio({0x12, 0x10}, 1, AUDIOCODECID_MP3);  // changes nothing
        EXPECT_THAT(TakePrinted(),
                    AllOf(HasSubstr(printed), HasSubstr("codecID xxx -- no implement\n")));
        EXPECT_EQ(OPAL_OK, session.Queue(0));
        EXPECT_EQ(rate, Word(Entries("MM_CreateMediaItem").back().record, 124));
    }
    const uint8_t config[4] = {};
    EXPECT_EQ("dataSize >= 2", AssertionTextOf([&] { GetSampleFrequency(config, 1); }));
    EXPECT_EQ("dataSize >= 5", AssertionTextOf([&] { GetSampleRate(config, 4, 15); }));
    EXPECT_EQ("dataSize >= 5", AssertionTextOf([&] { GetChannelCount(config, 4, 15); }));
}

TEST_F(HABAudioTest, StaysOneSecondAheadOfVideoAndSkipsOldFrames) {
    Session session;
    EXPECT_EQ(OPAL_ERROR_NOT_YET, session.QueueAudio(1001));
    EXPECT_EQ(OPAL_OK, session.QueueAudio(1000));
    EXPECT_EQ(OPAL_OK, session.QueueAudio(1000));
    EXPECT_THAT(TakePrinted(), HasSubstr("[SKIP]Old Audio timestamp = 1000 [Newest = 1000]\n"));
    EXPECT_EQ(OPAL_OK, session.audio->Flush());  // no item yet: nothing is forgotten
    EXPECT_EQ(OPAL_OK, session.QueueAudio(500));
    EXPECT_EQ(OPAL_OK, session.Queue(40));
    Settle();
    EXPECT_EQ(OPAL_OK, session.audio->Flush());
    EXPECT_EQ(OPAL_OK, session.QueueAudio(500));
    EXPECT_EQ(OPAL_OK, session.QueueAudio(1040));
    EXPECT_EQ(OPAL_ERROR_NOT_YET, session.QueueAudio(1041));
    EXPECT_THAT(Pushed(0), ElementsAre(1000, 500, 1040));
    AudioErrorCount() = 1;
    EXPECT_EQ(OPAL_ERROR_GENERAL, session.audio->Flush());
    AudioErrorCount() = 0;
}

TEST_F(HABAudioTest, OnceThereIsAnItemConfiguringChangesTheTrack) {
    Session session;
    EXPECT_EQ(OPAL_OK, session.Queue(0));
    EXPECT_EQ(OPAL_OK, session.QueueAudio(900));
    Settle();
    session.ConfigureAudio({}, 1, AUDIOCODECID_MP3);  // changes nothing
    session.ConfigureAudio({}, 22050);
    session.ConfigureAudio({0x11, 0x88});
    EXPECT_THAT(TakePrinted(), HasSubstr("switch audio track -- no implement\n"));
    const auto calls = Entries("MM_SwitchAudioTrack");
    ASSERT_EQ(2u, calls.size());
    EXPECT_EQ(22050u, Word(calls[0].record, 20));
    const Bytes& record = calls[1].record;
    EXPECT_THAT((std::vector<uint32_t>{Word(record, 16), Word(record, 20), Word(record, 56)}),
                ElementsAre(1, 48000, 6));
    EXPECT_EQ(OPAL_OK, session.QueueAudio(100));  // older than the other track's
    EXPECT_THAT(Pushed(0), ElementsAre(900, 100));
}

}  // namespace
}  // namespace opal::test
