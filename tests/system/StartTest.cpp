#include <gmock/gmock.h>

#include "Common/ConfigurationFiles.h"
#include "support/TemporaryDirectory.h"
#include "system/SessionFixture.h"

using namespace opal::test;
using opal::origin::Fault;
using testing::ElementsAre;
using testing::ElementsAreArray;
using testing::IsSupersetOf;

namespace {

class StartTest : public SessionFixture {
  protected:
    StartTest() : SessionFixture(1) { opal::SetConfigurationDirectory(m_directory.Path()); }
    ~StartTest() override { opal::SetConfigurationDirectory("."); }

    void Settings(const std::string& global) {
        m_directory.Write("kmt_ssa_config.xml", "<global>" + global + "</global>");
    }
    static std::string Mode(const std::string& mode) {
        return "<initialBandwidthDecision>InitialBandwidthMode_" + mode +
               "</initialBandwidthDecision><maxLevelDrop>0</maxLevelDrop>";
    }
    /// Starts a session of these levels and answers the one it announces.
    int StartLevel(const std::vector<int>& levelKbps, int clusters = 5) {
        Presentation film;
        film.levelKbps = levelKbps;
        film.clusters = clusters;
        Serve(film);
        m_origin.ClearLog();
        EXPECT_EQ(Initialize(), OPAL_OK);
        int announced = -1;
        for (size_t level = 0; level < levelKbps.size(); ++level) {
            const std::string line = "OnVideoLevelChanged " + std::to_string(levelKbps.size()) +
                                     " 0 " + std::to_string(level);
            if (m_listener.Count(line) == 1)
                announced = static_cast<int>(level);
        }
        EXPECT_EQ(m_listener.Lines().size(), 1u);
        EXPECT_EQ(m_player->GetCurrentVideoLevel(), static_cast<size_t>(announced));
        EXPECT_EQ(m_player->GetCurrentAudioTrack(), static_cast<size_t>(-1));
        return announced;
    }
    /// "level0 0-76799" in order; a HEAD has no range.
    std::vector<std::string> Requests() const {
        std::vector<std::string> lines;
        for (const auto& record : m_origin.Log()) {
            if (record.path != "/film.smil")
                lines.push_back(record.path.substr(1) + " " +
                                (record.method == "HEAD" ? record.method : record.rangeText));
        }
        return lines;
    }
    std::string Range(const std::string& file, uint64_t offset, uint64_t size) const {
        return file + " " + std::to_string(offset) + "-" + std::to_string(offset + size - 1);
    }
    /// What opening a file asks for: its size, its header, the size of its index, its index.
    std::vector<std::string> Opening(const std::string& file) const {
        const auto& layout = m_files.at(file).layout;
        return {file + " HEAD", Range(file, 0, layout.headerSize),
                Range(file, layout.cuesOffset, 18),
                Range(file, layout.cuesOffset, layout.cuesSize)};
    }

    TemporaryDirectory m_directory;
};

}  // namespace

TEST_F(StartTest, TwoLevelsStartAtTheLowestWithoutAProbe) {
    EXPECT_EQ(StartLevel({500, 1000}), 0);
    EXPECT_THAT(Requests(), ElementsAreArray(Opening("level0")));
    EXPECT_EQ(m_player->Finalize(), OPAL_OK);
    Settings(Mode("LowestLevel"));
    m_listener.Clear();
    EXPECT_EQ(StartLevel({200, 400, 600, 800}), 0);
    EXPECT_THAT(Requests(), ElementsAreArray(Opening("level0")));
}

// Each attempt is too quick to be measured, so the next one asks for fifteen times as much, as far
// as the file goes.
TEST_F(StartTest, AProbeOfAFastLinkGrows) {
    (void)StartLevel({400, 800, 1600}, 30);
    const auto size = m_files["level0"].bytes.size();
    ASSERT_GT(size, 2304000u);
    auto requests = Requests();
    ASSERT_GE(requests.size(), 4u);
    requests.resize(4);
    EXPECT_THAT(requests, ElementsAre("level0 HEAD", "level0 0-76799", "level0 1152000-2303999",
                                      Range("level0", 0, size)));
}

// 76,800 bytes take 1.2 s: one attempt is enough, and the session starts one level below what it
// justifies.
TEST_F(StartTest, AProbeOfASlowLinkDecidesAtOnce) {
    Settings(Mode("BandwidthProbe"));
    m_origin.SetRate(512000);
    SwitchingObserver switching;
    EXPECT_EQ(StartLevel({25, 50, 100, 200, 400}, 40), 1);
    auto expected = Opening("level0");
    expected.insert(expected.begin(), {"level0 HEAD", "level0 0-76799"});
    const auto second = Opening("level1");
    expected.insert(expected.end(), second.begin(), second.end());
    EXPECT_THAT(Requests(), ElementsAreArray(expected));
    std::vector<int64_t> decisions;
    for (const auto& record : switching.Records()) {
        const auto* call = std::get_if<opal::SwitchingCallEvent>(&record);
        if (call && call->kind == opal::SwitchingCallEvent::Kind::GetCurrentLevel)
            decisions.push_back(call->answer);
    }
    EXPECT_THAT(decisions, ElementsAre(2)) << "asked once";
}

TEST_F(StartTest, AHintStartsWhereItPoints) {
    Settings(Mode("BandwidthHint") + "<bandwidthHint>1000000</bandwidthHint>");
    EXPECT_EQ(StartLevel({200, 400, 600, 1600}), 1) << "the one below the best that fits";
    EXPECT_EQ(m_origin.Log("*level0").size(), 4u) << "no probe";
    EXPECT_EQ(m_player->Finalize(), OPAL_OK);
    Settings(Mode("BandwidthHint") + "<bandwidthHint>1000001</bandwidthHint>");
    m_listener.Clear();
    (void)StartLevel({200, 400, 600, 800});
    EXPECT_THAT(Requests(), testing::Contains("level0 0-76799")) << "a hint that is too good";
}

TEST_F(StartTest, AProbeThatFailsOrSettingsThatAreBrokenStopNothing) {
    Settings("<maxLevelDrop>x</maxLevelDrop>");
    m_origin.AddFault(Fault::Status(503).On("level0").Get().Times(3));
    EXPECT_EQ(StartLevel({400, 800, 1600}), 0);
    EXPECT_THAT(Requests(), testing::Contains("level0 0-76799").Times(3));
    ASSERT_EQ(m_player->Play(), OPAL_OK);
    EXPECT_TRUE(m_listener.WaitFor("OnPlay 1 0 -1"));
}
