#include <gmock/gmock.h>

#include <functional>
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
    bool LoadGlobal(const std::string& setting, const std::string& value) {
        return Load("<global><" + setting + ">" + value + "</" + setting + "></global>");
    }
    static AlgorithmConfig& Config() { return AlgorithmConfig::Instance(); }

    opal::test::TemporaryDirectory m_directory;
};

}  // namespace

TEST_F(AlgorithmConfigTest, WithoutAFileTheBuiltInValuesStand) {
    EXPECT_FALSE(LoadConfigFile());
    EXPECT_FALSE(Config().IsLoaded());
    EXPECT_EQ(Config().GetInitialBandwidthDecision(), InitialBandwidthMode_BandwidthProbe);
    EXPECT_EQ(Config().GetMinBufferedToEnterAgile(), 40000);
    EXPECT_EQ(Config().GetMinPeriodUpSwitch(AlgorithmConfig::kAgile), 4000);
    EXPECT_EQ(Config().GetMinPeriodUpSwitch(AlgorithmConfig::kSteady), 20000);
    EXPECT_EQ(Config().GetMinPeriodUpSwitch(2), 0);
}

TEST_F(AlgorithmConfigTest, AFileResetsWhatItDoesNotName) {
    ASSERT_TRUE(
        Load("<?xml version='1.0'?><steady><minPeriodUpSwitch>21</minPeriodUpSwitch></steady>"));
    EXPECT_TRUE(Config().IsLoaded());
    EXPECT_EQ(Config().GetMinPeriodUpSwitch(AlgorithmConfig::kSteady), 21000);
    EXPECT_EQ(Config().GetMinPeriodUpSwitch(AlgorithmConfig::kAgile), 0);
    EXPECT_EQ(Config().GetInitialBandwidthDecision(), InitialBandwidthMode_LowestLevel);
    EXPECT_EQ(Config().GetMinBufferedToEnterAgile(), 0);
    EXPECT_EQ(Config().GetMaxBufferFromEmpty(), 16000);
}

TEST_F(AlgorithmConfigTest, EverySettingReachesItsField) {
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
        "<unknown/></global><other>x</other>"));
    const AlgorithmConfig& config = Config();
    EXPECT_EQ(config.GetInitialBandwidthDecision(), InitialBandwidthMode_BandwidthHint);
    EXPECT_EQ(config.GetBandwidthHint(), 900000);
    EXPECT_EQ(config.GetMaxBufferFromEmpty(), 1000);
    EXPECT_EQ(config.GetMaxBuffer(), 2000);
    EXPECT_EQ(config.GetMinBufferedToEnterAgile(), 3000);
    EXPECT_EQ(config.GetMaxSecondsInAgileMode(), 4000);
    EXPECT_EQ(config.GetMinSecondsInAgileMode(), 5000);
    EXPECT_EQ(config.GetUpperGuardTrigger(), 6);
    EXPECT_TRUE(config.GetAlgorithmCycle() && config.GetDisableQuickstart() &&
                config.GetDisableSteadyState());
    EXPECT_EQ(config.GetMaxLevelDrop(), 9);
    EXPECT_EQ(config.GetBandwidthMonitorSampleCount(), 10);
    EXPECT_EQ(config.GetBandwidthMonitorWindowInterval(), 11000);
    EXPECT_EQ(config.GetBandwidthMonitorMinWindowInterval(), 12000);
    EXPECT_EQ(config.GetMinPeriodUpSwitch(0), 13000);
    EXPECT_EQ(config.GetMinPeriodDownSwitch(0), 14000);
}

TEST_F(AlgorithmConfigTest, AFileThatIsNotRightChangesNothing) {
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
    EXPECT_TRUE(Load("<settings><global><maxLevelDrop>7</maxLevelDrop></global></settings>"));
    EXPECT_EQ(Config().GetMaxLevelDrop(), 3) << "a root element hides the settings";
}

TEST_F(AlgorithmConfigTest, ValuesOutOfBoundsFallBackOrWrap) {
    const struct {
        const char* setting;
        const char* value;
        std::function<int64_t()> read;
        int64_t expected;
    } rows[] = {
        {"upperGuardTrigger", "101", [] { return Config().GetUpperGuardTrigger(); }, 15},
        {"upperGuardTrigger", "100", [] { return Config().GetUpperGuardTrigger(); }, 100},
        {"maxBufferFromEmpty", "86401", [] { return Config().GetMaxBufferFromEmpty(); }, 16000},
        {"maxBufferFromEmpty", "3000000", [] { return Config().GetMaxBufferFromEmpty(); },
         -1294967296},
        {"maxSecondsInAgileMode", "86400", [] { return Config().GetMaxSecondsInAgileMode(); },
         86400000},
        {"maxSecondsInAgileMode", "86401", [] { return Config().GetMaxSecondsInAgileMode(); },
         120000},
        {"maxSecondsInAgileMode", "4294968", [] { return Config().GetMaxSecondsInAgileMode(); },
         704},
        {"maxBuffer", "-5", [] { return Config().GetMaxBuffer(); }, -5000},
        {"initialBandwidthDecision", "Probe",
         [] { return int64_t{Config().GetInitialBandwidthDecision()}; }, 0},
    };
    for (const auto& row : rows) {
        ASSERT_TRUE(LoadGlobal(row.setting, row.value)) << row.setting;
        EXPECT_EQ(row.read(), row.expected) << row.setting << " " << row.value;
    }

    AlgorithmConfig::Global global;
    global.initialBandwidthDecision = InitialBandwidthMode_BandwidthHint;
    for (int hint : {1000000, 1000001}) {
        global.bandwidthHint = hint;
        ASSERT_EQ(Config().Set(global, {}, {}), OPAL_OK);
        EXPECT_EQ(Config().GetInitialBandwidthDecision() == InitialBandwidthMode_BandwidthHint,
                  hint == 1000000);
    }
    global.initialBandwidthDecision = static_cast<InitialBandwidthMode>(3);
    ASSERT_EQ(Config().Set(global, {}, {}), OPAL_OK);
    EXPECT_EQ(Config().GetInitialBandwidthDecision(), InitialBandwidthMode_BandwidthProbe);
}
