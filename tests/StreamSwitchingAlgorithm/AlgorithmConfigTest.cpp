#include <gmock/gmock.h>

#include <fstream>
#include <sstream>
#include <stdexcept>
#include <string>

#include "Common/ConfigurationFiles.h"
#include "StreamSwitchingAlgorithm/AlgorithmConfig.h"
#include "support/TemporaryDirectory.h"

namespace {

class AlgorithmConfigTest : public testing::Test {
  protected:
    void SetUp() override {
        Config().Reset();
        opal::SetConfigurationDirectory(m_directory.Path());
    }
    void TearDown() override {
        opal::SetConfigurationDirectory(".");
        Config().Reset();
    }
    bool Load(const std::string& text) {
        m_directory.Write("kmt_ssa_config.xml", text);
        return LoadConfigFile();
    }
    static AlgorithmConfig& Config() { return AlgorithmConfig::Instance(); }

    opal::test::TemporaryDirectory m_directory;
};

}  // namespace

TEST_F(AlgorithmConfigTest, AFileSetsWhatItNamesAndResetsTheRest) {
    ASSERT_TRUE(Load(
        "<global><bandwidthHint>900000</bandwidthHint><maxBufferFromEmpty>1</maxBufferFromEmpty>"
        "<maxBuffer>2</maxBuffer><minBufferedToEnterAgile>3</minBufferedToEnterAgile>"
        "<initialBandwidthDecision>InitialBandwidthMode_BandwidthHint</initialBandwidthDecision>"
        "<maxSecondsInAgileMode>4</maxSecondsInAgileMode>"
        "<minSecondsInAgileMode>5</minSecondsInAgileMode></global>"
        "<agile><minPeriodUpSwitch>13</minPeriodUpSwitch>"
        "<minPeriodDownSwitch>14</minPeriodDownSwitch></agile>"
        "<global><upperGuardTrigger>6</upperGuardTrigger><algorithmCycle>7</algorithmCycle>"
        "<disableQuickstart>8</disableQuickstart><maxLevelDrop>9</maxLevelDrop>"
        "<disableSteadyState>1</disableSteadyState>"
        "<bandwidthMonitorSampleCount>10</bandwidthMonitorSampleCount>"
        "<bandwidthMonitorWindowInterval>11</bandwidthMonitorWindowInterval>"
        "<bandwidthMonitorMinWindowInterval>12</bandwidthMonitorMinWindowInterval>"
        "<bandwidthMonitorGapOrder>1</bandwidthMonitorGapOrder>"
        "<abandonTransfers>2</abandonTransfers><unknown/></global><other>x</other>"));
    const AlgorithmConfig& config = Config();
    EXPECT_EQ(config.GetInitialBandwidthDecision(), InitialBandwidthMode_BandwidthHint);
    EXPECT_EQ(config.GetBandwidthHint(), 900000);
    EXPECT_EQ(config.GetMaxBufferFromEmpty(), 1000);
    EXPECT_EQ(config.GetMaxBuffer(), 2000);
    EXPECT_EQ(config.GetMinBufferedToEnterAgile(), 3000);
    EXPECT_EQ(config.GetMaxSecondsInAgileMode(), 4000);
    EXPECT_EQ(config.GetMinSecondsInAgileMode(), 5000);
    EXPECT_EQ(config.GetUpperGuardTrigger(), 6);
    EXPECT_TRUE(config.GetAlgorithmCycle());
    EXPECT_TRUE(config.GetDisableQuickstart());
    EXPECT_TRUE(config.GetDisableSteadyState());
    EXPECT_EQ(config.GetMaxLevelDrop(), 9);
    EXPECT_EQ(config.GetBandwidthMonitorSampleCount(), 10);
    EXPECT_EQ(config.GetBandwidthMonitorWindowInterval(), 11000);
    EXPECT_EQ(config.GetBandwidthMonitorMinWindowInterval(), 12000);
    EXPECT_EQ(config.GetBandwidthMonitorGapOrder(), 1);
    EXPECT_TRUE(config.GetAbandonTransfers());
    EXPECT_EQ(config.GetMinPeriodUpSwitch(0), 13000);
    EXPECT_EQ(config.GetMinPeriodDownSwitch(0), 14000);

    ASSERT_TRUE(
        Load("<?xml version='1.0'?><steady><minPeriodUpSwitch>21</minPeriodUpSwitch></steady>"));
    EXPECT_TRUE(config.IsLoaded());
    EXPECT_EQ(config.GetMinPeriodUpSwitch(AlgorithmConfig::kSteady), 21000);
    EXPECT_EQ(config.GetMinPeriodUpSwitch(AlgorithmConfig::kAgile), 0);
    EXPECT_EQ(config.GetInitialBandwidthDecision(), InitialBandwidthMode_LowestLevel);
    EXPECT_EQ(config.GetMinBufferedToEnterAgile(), 0);
    EXPECT_EQ(config.GetMaxBufferFromEmpty(), 16000);
    EXPECT_EQ(config.GetBandwidthMonitorGapOrder(), 0);
    EXPECT_FALSE(config.GetAbandonTransfers());
}

TEST_F(AlgorithmConfigTest, AFileThatIsNotRightChangesNothing) {
    EXPECT_FALSE(LoadConfigFile()) << "no file";
    for (const char* text : {"<global><maxLevelDrop>x</maxLevelDrop></global>",
                             "<global><maxLevelDrop>1 x</maxLevelDrop></global>", "<global>", "",
                             "<steady><minPeriodUpSwitch>1.5</minPeriodUpSwitch></steady>"}) {
        EXPECT_FALSE(Load(text)) << text;
        EXPECT_FALSE(Config().IsLoaded()) << text;
    }
    std::string deep;
    for (int i = 0; i < 100000; ++i)
        deep += "<a>";
    EXPECT_FALSE(Load(deep));
    EXPECT_THROW(Load("<global><maxLevelDrop/></global>"), std::logic_error);
    EXPECT_FALSE(Config().IsLoaded());
    EXPECT_EQ(Config().GetMinBufferedToEnterAgile(), 40000);
    EXPECT_TRUE(Load("<settings><global><maxLevelDrop>7</maxLevelDrop></global></settings>"));
    EXPECT_EQ(Config().GetMaxLevelDrop(), 3) << "a root element hides the settings";
}

TEST_F(AlgorithmConfigTest, TheSampleFileIsWholeAndRight) {
    std::ifstream file(OPAL_SAMPLE_SETTINGS);
    std::ostringstream text;
    text << file.rdbuf();
    for (const char* name :
         {"initialBandwidthDecision", "bandwidthHint", "maxLevelDrop", "disableQuickstart",
          "upperGuardTrigger", "minBufferedToEnterAgile", "minSecondsInAgileMode",
          "maxSecondsInAgileMode", "disableSteadyState", "maxBufferFromEmpty", "maxBuffer",
          "algorithmCycle", "bandwidthMonitorSampleCount", "bandwidthMonitorWindowInterval",
          "bandwidthMonitorMinWindowInterval", "bandwidthMonitorGapOrder", "abandonTransfers"})
        EXPECT_NE(text.str().find("<" + std::string(name) + ">"), std::string::npos) << name;
    ASSERT_TRUE(Load(text.str()));
    EXPECT_EQ(Config().GetInitialBandwidthDecision(), InitialBandwidthMode_BandwidthProbe);
    EXPECT_LT(Config().GetMaxBuffer(), 1) << "no limit";
    EXPECT_EQ(Config().GetMinBufferedToEnterAgile(), 30000);
    EXPECT_EQ(Config().GetUpperGuardTrigger(), 0);
    EXPECT_EQ(Config().GetMinPeriodDownSwitch(AlgorithmConfig::kSteady), 4000);
    EXPECT_EQ(Config().GetBandwidthMonitorGapOrder(), 1);
    EXPECT_TRUE(Config().GetAbandonTransfers());
}

TEST_F(AlgorithmConfigTest, ValuesOutOfBoundsFallBackOrWrap) {
    ASSERT_TRUE(
        Load("<global><upperGuardTrigger>100</upperGuardTrigger>"
             "<maxSecondsInAgileMode>86400</maxSecondsInAgileMode>"
             "<maxBufferFromEmpty>3000000</maxBufferFromEmpty></global>"));
    EXPECT_EQ(Config().GetUpperGuardTrigger(), 100);
    EXPECT_EQ(Config().GetMaxSecondsInAgileMode(), 86400000);
    EXPECT_EQ(Config().GetMaxBufferFromEmpty(), -1294967296);

    ASSERT_TRUE(
        Load("<global><upperGuardTrigger>101</upperGuardTrigger>"
             "<maxBufferFromEmpty>86401</maxBufferFromEmpty><maxBuffer>-5</maxBuffer>"
             "<bandwidthMonitorGapOrder>2</bandwidthMonitorGapOrder>"
             "<maxSecondsInAgileMode>4294968</maxSecondsInAgileMode>"
             "<initialBandwidthDecision>Probe</initialBandwidthDecision></global>"));
    EXPECT_EQ(Config().GetUpperGuardTrigger(), 15);
    EXPECT_EQ(Config().GetMaxBufferFromEmpty(), 16000);
    EXPECT_EQ(Config().GetMaxBuffer(), -5000);
    EXPECT_EQ(Config().GetBandwidthMonitorGapOrder(), 0);
    EXPECT_EQ(Config().GetMaxSecondsInAgileMode(), 704);
    EXPECT_EQ(Config().GetInitialBandwidthDecision(), InitialBandwidthMode_LowestLevel);

    AlgorithmConfig::Global global;  // as a service gives it
    global.initialBandwidthDecision = static_cast<InitialBandwidthMode>(3);
    ASSERT_EQ(Config().Set(global, {}, {}), OPAL_OK);
    EXPECT_EQ(Config().GetInitialBandwidthDecision(), InitialBandwidthMode_BandwidthProbe);
}
