#include <gmock/gmock.h>

#include "PlatformAdapter/Mstar/src/GoldenFileCheck.h"
#include "PlayerFixture.h"
#include "support/AssertionTrap.h"

namespace opal::test {
namespace {

using testing::ElementsAre;
using testing::EndsWith;
using testing::HasSubstr;
namespace control = tvset::control;

uint32_t Word(const Bytes& record, size_t offset) {
    return static_cast<uint32_t>(record[offset] | record[offset + 1] << 8 |
                                 record[offset + 2] << 16 | record[offset + 3] << 24);
}

class HABAudioTest : public PlayerTest {
  protected:
    Session m_session;
};

TEST(AudioSpecificConfigTest, Readers) {
    struct Case {
        Bytes config;
        uint32_t object, index, rate, channels;
    };
    const Case cases[] = {
        {{0x12, 0x10}, 2, 4, 44100, 2}, {{0x17, 0x80, 0x5D, 0xC0, 0x10}, 2, 15, 48000, 2},
        {{0x16, 0x08}, 2, 12, 7350, 1}, {{0x16, 0x90}, 2, 13, 0, 2},
        {{0x17, 0x10}, 2, 14, 0, 2},
    };
    for (const Case& test : cases) {
        const uint8_t* data = test.config.data();
        const size_t size = test.config.size();
        EXPECT_EQ(test.object, GetObjectID(data, size));
        EXPECT_EQ(test.index, GetSampleFrequency(data, size));
        EXPECT_EQ(test.rate, GetSampleRate(data, size, test.index));
        EXPECT_EQ(test.channels, GetChannelCount(data, size, test.index));
    }
    const uint8_t bytes[5] = {};
    EXPECT_EQ(48000u, GetSampleRate(bytes, 2, 16));
    EXPECT_EQ("dataSize >= 1", AssertionTextOf([&] { GetObjectID(bytes, 0); }));
    EXPECT_EQ("dataSize >= 2", AssertionTextOf([&] { GetSampleFrequency(bytes, 1); }));
    EXPECT_EQ("dataSize >= 5", AssertionTextOf([&] { GetSampleRate(bytes, 4, 15); }));
    EXPECT_EQ("dataSize >= 5", AssertionTextOf([&] { GetChannelCount(bytes, 4, 15); }));
    EXPECT_EQ("dataSize >= 2", AssertionTextOf([&] { GetChannelCount(bytes, 1, 4); }));
}

TEST_F(HABAudioTest, PrivateDataThatIsNotWholeIsNotRead) {
    for (const Bytes& config : {Bytes{}, Bytes{0x12}, Bytes{0x17, 0x80, 0x5D, 0xC0}}) {
        EXPECT_EQ(HAB_OK, m_session.ConfigureAudio(config, 32000));
        EXPECT_THAT(TakePrinted(),
                    HasSubstr("dataSize = " + std::to_string(config.size()) + " <= 0\n"));
    }
    EXPECT_EQ(HAB_OK, m_session.ConfigureAudio({0x16, 0x90}));  // a rate of 0 changes nothing
    EXPECT_THAT(TakePrinted(), HasSubstr("dataSize = 2 > 0\n0x16 \n0x90 \n"));
    m_session.Queue(0);
    ASSERT_EQ(1u, Entries("MM_CreateMediaItem").size());
    EXPECT_EQ(32000u, Word(Entries("MM_CreateMediaItem")[0].record, 124));
}

TEST_F(HABAudioTest, OfAnUnknownCodecThePlayerIsToldNothing) {
    EXPECT_EQ(HAB_OK, HABAudio_Configure(m_session.audio, AUDIOCODECID_MP3, 44100, 2,
                                         kStereoConfig.data(), kStereoConfig.size(), true));
    EXPECT_THAT(TakePrinted(), EndsWith("codecID xxx -- no implement\n"));
    EXPECT_EQ(HAB_OK, m_session.Queue(0));
    ASSERT_EQ(1u, Entries("MM_CreateMediaItem").size());
    EXPECT_EQ(0u, Word(Entries("MM_CreateMediaItem")[0].record, 124));
    EXPECT_EQ(UINT32_MAX, Word(Entries("MM_CreateMediaItem")[0].record, 160));
}

TEST_F(HABAudioTest, StaysOneSecondAheadOfVideoAndSkipsOldFrames) {
    m_session.ConfigureAudio();
    EXPECT_EQ(HAB_AUDIO_FULL, m_session.QueueAudio(1001));
    EXPECT_EQ(HAB_OK, m_session.QueueAudio(1000));
    EXPECT_EQ(HAB_OK, m_session.QueueAudio(1000));
    EXPECT_THAT(TakePrinted(), HasSubstr("[SKIP]Old Audio timestamp = 1000 [Newest = 1000]\n"));
    EXPECT_EQ(HAB_OK, HABAudio_Flush(m_session.audio));  // no item yet: nothing is forgotten
    EXPECT_EQ(HAB_OK, m_session.QueueAudio(500));
    m_session.Queue(40);
    Settle();
    EXPECT_EQ(HAB_OK, HABAudio_Flush(m_session.audio));
    EXPECT_EQ(HAB_OK, m_session.QueueAudio(500));
    EXPECT_EQ(HAB_OK, m_session.QueueAudio(1040));
    EXPECT_EQ(HAB_AUDIO_FULL, m_session.QueueAudio(1041));
    EXPECT_THAT(Taken(0), ElementsAre(1000, 500, 1040));
    EXPECT_THAT(TakePrinted(), HasSubstr("First Audio Time=  500 \n"));
    AudioErrorCount() = 1;
    EXPECT_EQ(HAB_FAIL, HABAudio_Flush(m_session.audio));
    AudioErrorCount() = 0;
}

TEST_F(HABAudioTest, OnceThereIsAnItemConfiguringChangesTheTrack) {
    m_session.ConfigureAudio();
    m_session.Queue(0);
    m_session.QueueAudio(900);
    Settle();
    EXPECT_EQ(HAB_OK, m_session.ConfigureAudio({0x11, 0x88}));
    EXPECT_EQ(HAB_OK, m_session.ConfigureAudio({}, 22050));
    EXPECT_THAT(TakePrinted(), HasSubstr("switch audio track -- no implement\n"));
    EXPECT_EQ(HAB_OK,
              HABAudio_Configure(m_session.audio, AUDIOCODECID_MP3, 1, 1, nullptr, 0, true));
    EXPECT_THAT(TakePrinted(), HasSubstr("codecID xxx -- no implement\n"));
    const auto calls = Entries("MM_SwitchAudioTrack");
    ASSERT_EQ(2u, calls.size());
    const uint32_t expected[2][3] = {{1, 48000, 6}, {2, 22050, 6}};
    for (size_t i = 0; i < 2; ++i) {
        EXPECT_EQ(expected[i][0], Word(calls[i].record, 16));
        EXPECT_EQ(expected[i][1], Word(calls[i].record, 20));
        EXPECT_EQ(expected[i][2], Word(calls[i].record, 56));
    }
    EXPECT_EQ(HAB_OK, m_session.QueueAudio(100));  // older than the other track's
    EXPECT_THAT(Taken(0), ElementsAre(900, 100));
}

}  // namespace
}  // namespace opal::test
