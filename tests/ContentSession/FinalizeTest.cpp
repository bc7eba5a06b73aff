// The promise of Finalize: three seconds, whatever is under way. In real time, since that is what
// transfers, services and the player take.
#include <future>

#include "Common/ConfigurationFiles.h"
#include "opal-service/Simulator.h"
#include "support/TemporaryDirectory.h"
#include "system/SessionFixture.h"

namespace opal::test {
namespace {

using origin::Fault;

class FinalizeTest : public SessionFixture {
  protected:
    FinalizeTest() : SessionFixture(1) {
        SetConfigurationDirectory(m_folder.Path());
        Serve({});
        service::SimulatorSettings settings;
        settings.manifest = ManifestText(m_origin.Url(""));
        settings.pulseSeconds = 1;
        m_services = std::make_unique<service::Simulator>(settings);
        std::string error;
        EXPECT_TRUE(m_services->Start(&error)) << error;
        m_folder.Write("WNCEndPoint.cfg", m_services->EndpointFile());
        m_folder.Write("kmt_logging_config.xml",
                       "<settings><transaction-interval>100</transaction-interval>"
                       "<enable-level1>1</enable-level1></settings>");
    }
    ~FinalizeTest() override {
        m_player.reset();
        SetConfigurationDirectory(".");
    }

    OPALError StartFromTicket() {
        (void)m_player->SetNotify(&m_listener);
        return m_player->InitializeFromTIXString("ticket", "session", "US", "en",
                                                 OPAL_WRITER_MODEL_PUSH);
    }

    TemporaryDirectory m_folder;
    std::unique_ptr<service::Simulator> m_services;
};

}  // namespace

TEST_F(FinalizeTest, ReturnsWithinThreeSecondsWhateverIsUnderWay) {
    const auto& layout = m_files.at("level0").layout;
    const auto third = static_cast<int64_t>(layout.clusters.at(2).offset);
    const struct {
        const char* what;
        Fault silence;     ///< of the origin, unless a service falls silent
        std::string call;  ///< of a service
        bool plays;        ///< while that lasts
        std::string besides = "none";
    } rows[] = {
        {"a manifest", Fault::HoldRequest().On("film.smil"), "", false},
        {"a header", Fault::StallAt(10).On("level0").RangeStart(0), "", false},
        {"a cluster", Fault::StallAt(1000).On("level0").RangeStart(third), "", true},
        {"a ticket being opened", {}, "openTicket", false},
        {"the settings of a stream", {}, "getStreamingConfiguration", false},
        {"the settings of play reports", {}, "getPulseConfiguration", false},
        {"a play report", {}, "saveEvent", true},
        {"a log upload", {}, "logUpload", true},
        {"the settings of the log", {}, "getLogServerSettings", true},
        {"a play report, and behind it a log upload", {}, "saveEvent", true, "logUpload"},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.what);
        m_listener.Clear();
        uint64_t held = 0;
        size_t before = 0;
        const auto calls = [&] {
            size_t count = 0;
            for (const service::Received& call : m_services->Calls())
                count += call.operation == row.call ? 1 : 0;
            return count;
        };
        if (row.call.empty()) {
            held = m_origin.AddFault(row.silence);
        } else {
            m_services->SetFailures({service::Failure::FromText(row.call + "=stall"),
                                     service::Failure::FromText(row.besides + "=stall")});
            before = calls();
        }
        auto started = std::async(std::launch::async, [&] {
            const OPALError code = row.call.empty() ? Initialize() : StartFromTicket();
            return code == OPAL_OK ? m_player->Play() : code;
        });
        EXPECT_TRUE(held != 0 ? m_origin.WaitForHeld(held, 1, 10000)
                              : Eventually([&] { return calls() > before; }));
        if (row.plays) {
            EXPECT_TRUE(WaitForPosition(1)) << "the loop goes on";
        }
        EXPECT_LT(FinalizeMs(), 3000);
        EXPECT_EQ(started.get() == OPAL_OK, row.plays);
        EXPECT_EQ(m_listener.CountPrefix("OnError"), 0u);
        m_origin.ClearFaults();
        m_services->SetFailures({});
    }
}

// A jump waits a second and a half for a flush, whose end the player does not tell, and so does the
// end of a session.
TEST_F(FinalizeTest, CutsTheWaitsOfASeekOnAnotherThreadShort) {
    ASSERT_EQ(Initialize(), OPAL_OK);
    ASSERT_EQ(m_player->Play(), OPAL_OK);
    ASSERT_TRUE(WaitForPosition(1));
    int64_t position = 4000;
    auto sought = std::async(std::launch::async, [&] { return m_player->Seek(position); });
    ASSERT_TRUE(Eventually([] {
        const auto journal = tvset::control::Journal();
        return std::any_of(journal.begin(), journal.end(),
                           [](const auto& entry) { return entry.call == "MM_SetFlushData"; });
    }));
    EXPECT_LT(FinalizeMs(), 1000);
    (void)sought.get();
    EXPECT_EQ(m_listener.CountPrefix("OnError"), 0u);
}

}  // namespace opal::test
