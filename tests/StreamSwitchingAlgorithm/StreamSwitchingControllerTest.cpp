#include <gmock/gmock.h>

#include <string>
#include <thread>
#include <vector>

#include "Common/logging/LogEventSender.h"
#include "Common/logging/LogServer.h"
#include "SwitchingFixture.h"

using namespace opal::test;

namespace {

using Audio = opal::simulate::SimulatedAudio;

class SwitchingControllerTest : public SwitchingTest {};

/// Keeps what level 2 events tell; of these tests that is the changes of mode.
class ModeSender : public NullLogEventSender {
  public:
    ModeSender() { m_level2 = true; }
    OPALError Send(const std::string& document) override {
        sent += document;
        return OPAL_OK;
    }
    std::string sent;
};

}  // namespace

// A whole session in virtual time: clusters at 5 Mbit/s with 30 ms between them, buffered 2 s more
// at each report. It explores while there is less than a second of transfer to go by, then follows
// the estimate; steady mode comes once a level has lasted for 15 s. Then an interruption.
TEST_F(SwitchingControllerTest, StartsLowClimbsSettlesAndFallsBackOnARestart) {
    ModeSender modes;
    SwitchingSession session(kLadder);
    LogServer::Instance().Start(&modes);
    ASSERT_EQ(session.Begin(), 0);
    std::vector<int> levels;
    std::vector<int> estimates;
    std::vector<int64_t> times;
    int level = 0;
    for (int i = 0; i < 15; ++i) {
        const int64_t bytes = kLadder[static_cast<size_t>(level)] / 4;
        level = session.Video(bytes, bytes * 8 / 5000, 2000 * (i + 1), 30);
        levels.push_back(level);
        estimates.push_back(session.controller->GetBandwidth());
        times.push_back(session.clock.ElapsedMs());
    }
    EXPECT_THAT(std::vector<int>(levels.begin(), levels.begin() + 6),
                testing::ElementsAre(0, 1, 2, 2, 3, 3));
    EXPECT_THAT(std::vector<int>(estimates.begin(), estimates.begin() + 4),
                testing::ElementsAre(0, 0, 0, 5000000));
    EXPECT_EQ(levels.back(), 3);
    EXPECT_EQ(times.back(), 18850);
    EXPECT_EQ(session.controller->GetMaxBuffer(), -1);

    session.clock.Advance(20500 - session.clock.ElapsedMs());
    session.Restart();
    EXPECT_EQ(session.controller->GetMaxBuffer(), 16000);
    EXPECT_EQ(session.Video(125000, 200, 2000), 0) << "the buffer is not above the delay";
    EXPECT_EQ(session.Video(125000, 200, 4000), 3) << "the hold counter outlives a restart";

    LogServer::Instance().Stop();
    EXPECT_THAT(modes.sent,
                testing::HasSubstr("<device-event>"
                                   "<action><ts>18</ts><algo-mode-change><mode>steady</mode>"
                                   "</algo-mode-change></action>"
                                   "<action><ts>20</ts><algo-mode-change><mode>agile</mode>"
                                   "</algo-mode-change></action></device-event>"));
}

TEST_F(SwitchingControllerTest, ReservesTheEnglishTrackElseTheFirst) {
    const auto required = [](std::vector<boost::shared_ptr<IAudioTrack>> tracks) {
        SwitchingSession session(kLadder, tracks);
        session.controller->SetBandwidth(1000000);
        int ms = -1;
        session.controller->GetBufferRequirement(ms, OPAL_STREAM_AUDIO);
        return ms;
    };
    EXPECT_EQ(required({}), 0);
    const auto german = boost::make_shared<Audio>("ger", 0);
    const auto english = boost::make_shared<Audio>("eng", 64000);
    const auto french = boost::make_shared<Audio>("fre", 64000);
    EXPECT_EQ(required({german, english}), 2000) << "two seconds, whatever the rate";
    EXPECT_EQ(required({german, french}), 0) << "the first, which reserves nothing";
}

TEST_F(SwitchingControllerTest, AudioReportsCountForTheLinkAndForAudioOnly) {
    SwitchingSession session(kLadder, {boost::make_shared<Audio>("eng", 64000)});
    session.Begin();
    EXPECT_FALSE(session.controller->IsAudioBuffered());
    session.Report(OPAL_STREAM_AUDIO, 1000000, 2000, 5000);
    EXPECT_TRUE(session.controller->IsAudioBuffered());
    EXPECT_EQ(session.controller->GetAudioExcessBuffer(), 3000);
    EXPECT_EQ(session.controller->GetBandwidth(), 0) << "decided on video reports only";
    EXPECT_EQ(session.controller->GetMaxBuffer(), 16000);
    session.Video(1, 1, 2000);
    EXPECT_NEAR(session.controller->GetBandwidth(), 4000000, 4000);
}

TEST_F(SwitchingControllerTest, SteadyModeEndsWithAnyDropAndIsOffWhenDisabled) {
    for (bool disabled : {false, true}) {
        AlgorithmConfig::Global global = BuiltIn();
        global.disableSteadyState = disabled;
        Configure(global, 0, 3600000);
        SwitchingSession session(kLadder);
        session.Begin();
        // 20 s at level 2 under 2.5 Mbit/s.
        for (int i = 0; i < 12; ++i)
            session.Video(625000, 2000, 10000);
        ASSERT_EQ(session.controller->GetCurrentLevel(), 2);
        // Six times that: steady mode stays, agile mode goes up.
        for (int i = 0; i < 3; ++i)
            session.Video(3750000, 2000, 10000);
        EXPECT_EQ(session.controller->GetCurrentLevel(), disabled ? 3 : 2);
        // A drop, and up again at once: agile again.
        for (int i = 0; i < 3; ++i)
            session.Video(100000, 2000, 10000);
        ASSERT_EQ(session.controller->GetCurrentLevel(), 0);
        for (int i = 0; i < 3; ++i)
            session.Video(3750000, 2000, 10000);
        EXPECT_EQ(session.controller->GetCurrentLevel(), 3);
    }
}

TEST_F(SwitchingControllerTest, LevelsWithoutARateDoNotHoldPlaybackUp) {
    SwitchingSession none({0, -5, 0});
    EXPECT_EQ(none.Begin(), 0);
    EXPECT_EQ(none.Video(250000, 400, 2000), 0);
    EXPECT_TRUE(none.controller->IsVideoBuffered());
    SwitchingSession some({0, 500000, 1000000});
    EXPECT_EQ(some.Begin(), 1) << "the lowest that has one";
    for (int i = 0; i < 4; ++i)
        EXPECT_GE(some.Video(250000, 400, 4000), 1);
    EXPECT_TRUE(some.controller->IsVideoBuffered());
}

TEST_F(SwitchingControllerTest, APeriodThatBeganInTheFutureIsOver) {
    for (bool setBack : {false, true}) {
        AlgorithmConfig::Global global = BuiltIn();
        global.maxSecondsInAgileMode = global.minSecondsInAgileMode = 7200000;
        Configure(global, 0, 3600000);
        SwitchingSession session(kLadder);
        session.Begin();
        for (int i = 0; i < 12; ++i)
            session.Video(625000, 2000, 10000);
        if (setBack)
            session.clock.Advance(-3600000);
        session.Video(625000, 2000, 10000);
        ASSERT_EQ(session.controller->GetCurrentLevel(), 2);
        for (int i = 0; i < 3; ++i)
            session.Video(3750000, 2000, 10000);
        EXPECT_EQ(session.controller->GetCurrentLevel(), setBack ? 2 : 3) << "steady mode stays";
    }
}

TEST_F(SwitchingControllerTest, StartUpModeHintAndZeroBandwidth) {
    SwitchingSession two({500000, 1000000});
    EXPECT_EQ(two.controller->GetInitialBandwidthMode(), InitialBandwidthMode_LowestLevel);
    SwitchingSession four(kLadder);
    EXPECT_EQ(four.controller->GetInitialBandwidthMode(), InitialBandwidthMode_BandwidthProbe);
    four.controller->SetBandwidth(0);
    four.controller->SetStartupTime(1500);
    EXPECT_EQ(four.controller->GetCurrentLevel(), 0);
    EXPECT_EQ(four.Video(125000, -5, 2000), 0) << "a clock set back makes no duration";

    AlgorithmConfig::Global global;
    global.maxLevelDrop = 0;
    Configure(global);
    // 1500 ms leave 326400 of 435200, but twice the block time makes it 1502, and 326254.
    SwitchingSession close({25000, 50000, 100000, 326300, 400000});
    close.controller->SetBandwidth(512000);
    close.controller->SetStartupTime(1500);
    EXPECT_EQ(close.controller->GetCurrentLevel(), 1);
}

TEST_F(SwitchingControllerTest, QueriesAndReportsMayComeFromAnyThread) {
    SwitchingSession session(kLadder);
    session.Begin();
    IStreamSwitchingController& controller = *session.controller;
    std::thread queries([&controller] {
        for (int i = 0; i < 2000; ++i) {
            const int level = controller.GetCurrentLevel();
            EXPECT_GE(level, 0);
            EXPECT_LT(level, 4);
            controller.IsVideoBuffered();
            controller.GetMaxBuffer();
        }
    });
    for (int i = 0; i < 2000; ++i) {
        session.Video(250000, 400, 4000, 100);
        if (i % 100 == 0)
            session.Restart();
    }
    queries.join();
}
