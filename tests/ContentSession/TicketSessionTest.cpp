// Whole sessions by ticket, in the player as it is called: what reaches the services, and what is
// printed.
#include <gmock/gmock.h>
#include <sys/wait.h>

#include <algorithm>
#include <cstdlib>
#include <fstream>
#include <future>
#include <sstream>

#include "ContentSession/ServiceFixture.h"
#include "opal-origin/Origin.h"

namespace opal::test {
namespace {

using service::Received;
using testing::HasSubstr;
using testing::Not;

std::string TextOf(const std::string& file) {
    std::ostringstream text;
    text << std::ifstream(file, std::ios::binary).rdbuf();
    return text.str();
}

int Shell(const std::string& command) {
    const int status = std::system(command.c_str());
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

class TicketSession : public testing::Test {
  protected:
    static void SetUpTestSuite() {
        s_film = std::make_unique<TemporaryDirectory>();
        ASSERT_EQ(Shell(std::string(OPAL_PACKAGE) + " --duration 6 --audio eng,ger" +
                        " --levels 100k:160x90,200k:240x136,300k:320x180 --preset ultrafast -o " +
                        s_film->File("film") + " >" + s_film->File("log") + " 2>&1"),
                  0)
            << TextOf(s_film->File("log"));
        origin::OriginOptions served;
        served.folder = s_film->File("film");
        s_origin = std::make_unique<origin::Origin>(served);
        ASSERT_TRUE(s_origin->Start());
        ASSERT_EQ(Shell(std::string(OPAL_PACKAGE) + " --manifest " + served.folder +
                        " --base-url " + s_origin->Url("") + " >" + s_film->File("log")),
                  0);
    }
    static void TearDownTestSuite() {
        s_origin.reset();
        s_film.reset();
    }

    void StartServices(service::SimulatorSettings settings,
                       const std::vector<std::string>& failures = {}) {
        settings.manifest = TextOf(s_film->File("film/presentation.smil"));
        settings.pulseSeconds = m_pulseSeconds;
        std::fill(settings.logLevels, settings.logLevels + 3, false);  // the local file's stand
        for (const std::string& failure : failures)
            settings.failures.push_back(service::Failure::FromText(failure));
        m_services = std::make_unique<service::Simulator>(settings);
        m_services->SetObserver(m_observer);
        std::string error;
        ASSERT_TRUE(m_services->Start(&error)) << error;
        m_folder.Write("WNCEndPoint.cfg", m_services->EndpointFile());
        m_folder.Write("kmt_logging_config.xml",
                       "<settings><transaction-interval>1000</transaction-interval>"
                       "<enable-level1>1</enable-level1><enable-level2>1</enable-level2>"
                       "<enable-level3>1</enable-level3></settings>");
        m_folder.Write("log4cxx.properties",
                       "log4j.rootLogger=TRACE, A\n"
                       "log4j.appender.A=org.apache.log4j.FileAppender\n"
                       "log4j.appender.A.File=trace\n"
                       "log4j.appender.A.layout=org.apache.log4j.PatternLayout\n"
                       "log4j.appender.A.layout.ConversionPattern=%c %p %m%n\n");
    }
    /// In the folder of the settings files; everything it prints goes to "printed".
    int Play(const std::string& options, const std::string& environment = "") {
        return Shell("cd " + m_folder.Path() + " && " + environment + " timeout 60 " + OPAL_PLAY +
                     " --headless --verbose --pass-through --ticket SECRET-TICKET"
                     " --session SECRET-SESSION " +
                     options + " >printed 2>&1");
    }
    std::string Printed() { return TextOf(m_folder.File("printed")); }
    std::vector<Received> Calls(const std::string& operation) {
        std::vector<Received> calls;
        for (const Received& call : m_services->Calls()) {
            if (call.operation == operation)
                calls.push_back(call);
        }
        return calls;
    }
    std::string Uploaded() {
        std::string documents;
        for (const Received& upload : Calls("logUpload"))
            documents += upload.Field("document");
        return documents;
    }

    static inline std::unique_ptr<TemporaryDirectory> s_film;
    static inline std::unique_ptr<origin::Origin> s_origin;
    TemporaryDirectory m_folder;
    int m_pulseSeconds = 1;
    std::function<void(const Received&)> m_observer;
    std::unique_ptr<service::Simulator> m_services;
};

}  // namespace

TEST_F(TicketSession, TellsTheServicesWhatItPlaysAndNobodyWhoItIs) {
    const std::string certificate = m_folder.File("cert.pem");
    ASSERT_EQ(
        Shell("openssl req -x509 -newkey ec -pkeyopt ec_paramgen_curve:prime256v1 -nodes "
              "-days 2 -keyout " +
              m_folder.File("key.pem") + " -out " + certificate +
              " -subj /CN=opal-test -addext subjectAltName=IP:127.0.0.1 2>" + m_folder.File("log")),
        0);
    service::SimulatorSettings settings;
    settings.certificate = certificate;
    settings.key = m_folder.File("key.pem");
    settings.audioAssetId = 2;
    settings.bandwidthMode = "BandwidthProbe";
    StartServices(settings);
    ASSERT_EQ(Play("", "SSL_CERT_FILE=" + certificate), 0) << Printed();
    for (const char* operation :
         {"openTicket", "getStreamingConfiguration", "getPulseConfiguration"})
        EXPECT_EQ(Calls(operation).size(), 1u) << operation;
    const std::vector<Received> events = Calls("saveEvent");
    ASSERT_GE(events.size(), 6u);
    EXPECT_EQ(events.back().Field("audio"), "2") << "the track that the service prefers";
    int last = -1;
    for (const Received& event : events) {
        EXPECT_EQ(event.Field("ticket"), "SECRET-TICKET");
        EXPECT_EQ(event.Field("session"), "SECRET-SESSION");
        EXPECT_GE(std::stoi(event.Field("position")), last);
        last = std::stoi(event.Field("position"));
        EXPECT_GT(std::stoi(event.Field("bandwidth")), 0);
        EXPECT_NE(event.Field("audio"), "");
        EXPECT_EQ(event.Field("subtitle"), "");
    }
    EXPECT_GT(last, 4000);
    EXPECT_GE(Calls("logUpload").size(), 3u);
    for (const Received& upload : Calls("logUpload"))
        EXPECT_EQ(upload.Field("parses"), "true") << upload.Field("document");
    for (const char* event : {"<init>", "<play>", "<algo-config>", "<algo-trace>", "<eos>"})
        EXPECT_THAT(Uploaded(), HasSubstr(event));
    const std::string trace = TextOf(m_folder.File("trace"));
    for (const char* line :
         {"LogServer INFO SendLog() = 0", "LogServer.data TRACE <device-event>",
          "StreamingController INFO KMT Version", "StreamingController TRACE READY TO PLAY!!!",
          "bandwidthprobe TRACE Content length: ", "BandwidthMonitor DEBUG GetBandwidth: ",
          "StreamSwitchingAlgorithm TRACE "})
        EXPECT_THAT(trace, HasSubstr(std::string("opal.") + line));
    for (const std::string& text : {Printed(), trace}) {
        EXPECT_GT(text.size(), 1000u);
        EXPECT_THAT(text, Not(HasSubstr("SECRET")));
    }
}

TEST_F(TicketSession, PlaysOnWhenAServiceFailsAndLogsItsWords) {
    m_pulseSeconds = 60;
    StartServices({}, {"saveEvent=echo:1", "saveEvent=refuse-77", "logUpload=echo:1"});
    m_folder.Write("kmt_ssa_config.xml", "<settings></settings>");
    EXPECT_EQ(Play("--at 2s:seek=4"), 0) << Printed();
    EXPECT_TRUE(Calls("getStreamingConfiguration").empty()) << "the local file applies";
    EXPECT_GE(Calls("saveEvent").size(), 2u);
    EXPECT_LE(Calls("saveEvent").size(), 6u) << "start, jump, end; none for time that passes";
    EXPECT_THAT(Uploaded(), HasSubstr("session=(withheld);"));
    EXPECT_THAT(Uploaded(), Not(HasSubstr("=SECRET")));
    for (const std::string& text : {Printed(), TextOf(m_folder.File("trace"))})
        EXPECT_THAT(text, Not(HasSubstr("SECRET")));
    EXPECT_THAT(TextOf(m_folder.File("trace")), HasSubstr(" Session='(withheld)' "));
    EXPECT_THAT(Uploaded(), HasSubstr("<pulse-error><error-code>-21</error-code>"
                                      "<message>Refused on purpose</message></pulse-error>"));
    EXPECT_THAT(Uploaded(), HasSubstr("<eos>"));
}

TEST_F(TicketSession, AServiceThatFallsSilentHoldsUpNothing) {
    for (const char* failure : {"saveEvent=stall", "getLogServerSettings=503"}) {
        StartServices({}, {failure});
        EXPECT_EQ(Play("--at 1s:quit"), 0) << Printed();
        EXPECT_EQ(Uploaded().find("<stop>") != std::string::npos, failure[0] == 's')
            << "what is reported last is uploaded, if anything is";
    }
}

TEST_F(TicketSession, AServiceThatDiesLeavesPlaybackRunning) {
    std::promise<void> reported;
    m_observer = [&reported, count = 0](const Received& call) mutable {
        if (call.operation == "saveEvent" && ++count == 2)
            reported.set_value();
    };
    StartServices({});
    auto end = std::async(std::launch::async, [&] {
        const auto second = reported.get_future().wait_for(std::chrono::seconds(20));
        m_services->Stop();
        return second;
    });
    EXPECT_EQ(Play("--strict"), 0) << Printed();
    EXPECT_EQ(end.get(), std::future_status::ready);
    EXPECT_THAT(TextOf(m_folder.File("trace")),
                testing::ContainsRegex("<pulse-error><error-code>-27</error-code>.*<eos>"));
}

TEST_F(TicketSession, SaysWhyATicketDidNotOpen) {
    StartServices({}, {"openTicket=refuse-5"});
    EXPECT_EQ(Play(""), 1);
    EXPECT_THAT(Printed(), HasSubstr("Refused on purpose"));
    m_services->SetFailures({service::Failure::FromText("openTicket=503")});
    EXPECT_EQ(Play(""), 1);
    EXPECT_EQ(Calls("openTicket").size() + Calls("unknown").size(), 3u);
    EXPECT_THAT(Printed(), Not(HasSubstr("SECRET")));
}

}  // namespace opal::test
