#include <gmock/gmock.h>
#include <sys/stat.h>

#include <cstdlib>

#include "ContentSession/ServiceFixture.h"
#include "ContentSession/src/ProtectedContent_WNC.h"

namespace opal::test {
namespace {

using testing::HasSubstr;

constexpr OPALError kNotSent = OPAL_ERROR_SERVICE_27;
constexpr OPALError kRefused = OPAL_ERROR_SERVICE_21;

std::string ErrorText(IProtectedContent& content) {
    qutl::MemoryBuffer<unsigned char> text;
    EXPECT_EQ(content.GetLastErrorText(text), OPAL_OK);
    return text.IsEmpty() ? "none" : std::string(text.GetData(), text.GetData() + text.GetSize());
}

class ContentSession : public ServiceFixture {
  protected:
    void Prepare(const service::SimulatorSettings& settings = {}) {
        StartServices(settings);
        ASSERT_EQ(m_content.Initialize(Bytes(std::string("my-session\0tail", 15)), "DE", "de"),
                  OPAL_OK);
    }
    OPALError Open() { return m_content.Open("my-ticket", m_asset); }

    ServiceTimeouts m_timeouts{1000, 1000, 300};
    ProtectedContent_WNC m_content{m_timeouts};
    std::string m_asset;
};

}  // namespace

TEST(ServerConfig, EndpointFiles) {
    const std::string invalid = "ERROR: invalid server config";
    const struct {
        std::string text;
        std::string url;
    } rows[] = {
        {"", "https://h:7/s"},
        {"ServerProtocol=http\nServerHost = a.b\r\nServerPort\t8080\n", "http://a.b:8080/wnc/s"},
        {"# c\n\n \t\r\n#ServerX y\nServerHost a b c\n", "https://a:7/s"},
        {"ServerProtocol https", "https://h:443/s"},
        {"ServerPort 8443\nServerProtocol https\n", "https://h:443/s"},
        {"ServerProtocol https\nServerPort 8443\n", "https://h:8443/s"},
        {"ServerProtocol http\n", "http://h:7/wnc/s"},
        {"ServerProtocol ftp\n", invalid},
        {"serverhost a\n", invalid},
        {"ServerHost\n", invalid},
        {"ServerPort 0\n", invalid},
        {"ServerPort 80x\n", invalid},
        {"ServerPort 65536\n", invalid},
        {"ServerPort -1\n", invalid},
        {"ServerHost " + std::string(63, 'h') + "\n", "https://" + std::string(63, 'h') + ":7/s"},
        {"ServerHost " + std::string(64, 'h') + "\n", invalid},
        {"# " + std::string(300, 'c') + "\n", invalid},  // the tail is a line of its own
        {std::string("ServerHost a\0b\n", 15), "https://a:7/s"},
    };
    TemporaryDirectory folder;
    ASSERT_EQ(mkfifo(folder.File("pipe").c_str(), 0600), 0);
    ServerConfig piped;
    piped.ReadFile(folder.File("pipe"));  // it would wait for a writer
    EXPECT_TRUE(piped.IsValid());
    for (const auto& row : rows) {
        ServerConfig config;
        config.SetHost("h");
        config.SetPort(7);
        config.SetServiceName("s");
        config.ReadFile(folder.Write("WNCEndPoint.cfg", row.text));
        EXPECT_EQ(config.GetUrl(), row.url) << row.text;
    }
    ServerConfig config;
    config.ReadFile(folder.File("missing"));
    config.SetHost("h");
    config.SetServiceName(std::string(127, 's').c_str());
    config.SetPathPrefix(std::string(127, 'p').c_str());
    EXPECT_EQ(config.GetUrl().size(), 255u);
    config.SetOverrideUrl(("http://" + std::string(300, 'x')).c_str());
    EXPECT_EQ(config.GetUrl(), "http://" + std::string(248, 'x'));
}

TEST(ServiceSession, TellsNobodyWhatItIsKnownBy) {
    ServiceSession session("abc", {}, {});
    session.SetTicket("abcdef");
    for (int i = 0; i < 40; ++i)
        session.SetId("xyz" + std::to_string(i));
    EXPECT_EQ(session.WithoutCredentials("a abcdef abc xyz39 xyz", 99),
              "a (withheld) (withheld) (withheld) xyz");
    EXPECT_EQ(session.WithoutCredentials("12abc", 3), "12(withheld)") << "none is cut in two";
}

// What reaches the services, and what comes of it, for each way to fail.
TEST_F(ContentSession, RetriesAsTheRuleAllows) {
    Prepare();
    const struct {
        const char* failure;
        OPALError result;
        size_t accepts;
    } rows[] = {
        {"openTicket=503:1", OPAL_OK, 2},       {"openTicket=503", kNotSent, 2},
        {"openTicket=400", kNotSent, 2},        {"openTicket=401", kNotSent, 2},
        {"openTicket=402", kNotSent, 2},        {"openTicket=403", kNotSent, 2},
        {"openTicket=404", kNotSent, 2},        {"openTicket=namespace", kNotSent, 2},
        {"openTicket=empty-body", kRefused, 1}, {"openTicket=no-record", kRefused, 1},
        {"openTicket=500", kNotSent, 2},        {"openTicket=502", kNotSent, 2},
        {"openTicket=302", kNotSent, 2},        {"openTicket=204", kNotSent, 2},
        {"openTicket=empty", kNotSent, 2},      {"openTicket=garbage", kNotSent, 2},
        {"openTicket=html", kNotSent, 1},       {"openTicket=fault", kNotSent, 1},
        {"openTicket=close", kNotSent, 2},      {"openTicket=stall", kNotSent, 2},
        {"openTicket=run-out:1", OPAL_OK, 3},  // the account service's renewal among them
        {"openTicket=run-out", kRefused, 3},    {"openTicket=refuse-7", kRefused, 1},
    };
    Accepts();
    for (const auto& row : rows) {
        Fail(row.failure);
        EXPECT_EQ(Open(), row.result) << row.failure;
        EXPECT_EQ(Accepts(), row.accepts) << row.failure;
    }
    EXPECT_EQ(ErrorText(m_content), std::string("Refused on purpose\0", 19));
    Fail("openTicket=503");
    EXPECT_EQ(Open(), kNotSent);
    EXPECT_EQ(ErrorText(m_content), std::string("\0", 1));

    m_services->SetFailures({service::Failure::FromText("openTicket=run-out"),
                             service::Failure::FromText("renewSession=run-out")});
    Accepts();
    EXPECT_EQ(Open(), kRefused) << "a renewal is not renewed";
    EXPECT_EQ(Accepts(), 2u);
    m_services->SetFailures({service::Failure::FromText("openTicket=503:1"),
                             service::Failure::FromText("openTicket=run-out:1")});
    EXPECT_EQ(Open(), OPAL_OK);
    EXPECT_EQ(Accepts(), 4u);
    EXPECT_EQ(m_services->Calls().back().Field("session"), "renewed-session-3");
}

TEST_F(ContentSession, WhatCannotBeReachedIsTriedTwiceAndABadAddressNever) {
    Prepare();
    const std::string port = std::to_string(m_services->Port());
    const auto open = [&](const std::string& file) {
        m_folder.Write("WNCEndPoint.cfg", file);
        const OPALError code = m_content.Initialize(Bytes("s"), "DE", "de");
        return code == OPAL_OK ? Open() : code;
    };
    Accepts();
    EXPECT_EQ(open("ServerProtocol https\nServerHost 127.0.0.1\nServerPort " + port), kNotSent);
    EXPECT_EQ(Accepts(), 2u) << "TLS to a plain port: a refresh, then once more";
    EXPECT_EQ(open("ServerProtocol http\nServerHost 127.0.0.1\nServerPort 1\n"), kNotSent);
    EXPECT_EQ(open("ServerProtocol http\nServerHost no.such.invalid\n"), kNotSent);
    EXPECT_EQ(open(m_services->EndpointFile() + "ServerColour red\n"), OPAL_ERROR_CONTENT_SESSION);
    std::string none;
    EXPECT_EQ(m_content.ReportPlayEvent(0, 0, 0, -1, -1), OPAL_ERROR_NOT_READY);
    EXPECT_EQ(Accepts(), 0u);
}

TEST_F(ContentSession, BringsWhatTheServicesTell) {
    service::SimulatorSettings settings;
    settings.audioAssetId = 5;
    settings.bandwidthMode = "BandwidthHint";
    settings.bandwidthHint = 2500000;
    settings.pulseSeconds = 7;
    std::string text;
    int64_t interval = -1;
    EXPECT_EQ(m_content.GetManifest(text), OPAL_ERROR_OUT_OF_RANGE);
    EXPECT_EQ(m_content.GetAudioAssetId(), -1);
    EXPECT_EQ(m_content.ReportPlayEvent(0, 0, 0, 0, 0), OPAL_ERROR_NOT_READY);
    Prepare(settings);
    ASSERT_EQ(Open(), OPAL_OK);
    EXPECT_EQ(m_asset, "asset");
    EXPECT_EQ(m_content.GetAudioAssetId(), 5);
    testing::internal::CaptureStdout();
    EXPECT_EQ(m_content.GetManifest(text), OPAL_OK);
    EXPECT_EQ(testing::internal::GetCapturedStdout(), text + "\n");
    EXPECT_EQ(text, "<smil>a &amp; b</smil>");

    AlgorithmConfig::Global global;
    AlgorithmConfig::Mode agile, steady;
    ASSERT_EQ(m_content.GetStreamingAlgorithmConfig(global, agile, steady), OPAL_OK);
    EXPECT_EQ(global.initialBandwidthDecision, InitialBandwidthMode_BandwidthHint);
    EXPECT_EQ(global.bandwidthHint, 2500000);
    EXPECT_EQ(global.minSecondsInAgileMode, 15000);
    EXPECT_EQ(steady.minPeriodUpSwitch, 20000);
    EXPECT_FALSE(global.disableQuickstart);

    ASSERT_EQ(m_content.SetupStream(), OPAL_OK);
    EXPECT_EQ(m_content.GetPulseConfiguration(interval), OPAL_OK);
    EXPECT_EQ(interval, 7000);
    Accepts();
    EXPECT_EQ(m_content.ReportPlayEvent(0, -1, 0, -1, -1), OPAL_ERROR_INVALID_ARGUMENT);
    EXPECT_EQ(Accepts(), 0u);
    const int states[][2] = {{0, 1}, {1, 1}, {2, 2}, {3, 2}, {4, 3}, {5, 4}, {-1, 4}};
    for (const auto& state : states) {
        EXPECT_EQ(m_content.ReportPlayEvent(state[0], 61000, 3000000, 4, -1), OPAL_OK);
        EXPECT_EQ(ToText(m_services->Calls().back()),
                  "saveEvent country=DE language=de session=my-session state=" +
                      std::to_string(state[1]) +
                      " position=61000 bandwidth=3000000 audio=4 ticket=my-ticket -> ok");
    }
    EXPECT_EQ(m_content.ReportPlayEvent(1, 61000, 0, 0xFFFFFFFF, 5), OPAL_OK);
    EXPECT_THAT(ToText(m_services->Calls().back()), HasSubstr(" bandwidth=0 subtitle=5 "));
    // The resume point is what was reported last.
    ServiceSession session("other", m_timeouts, [](const ServiceTimeouts& timeouts) {
        return std::unique_ptr<IServiceConnection>(new HTTPConnection(timeouts));
    });
    session.SetTicket("my-ticket");
    CPlaybackStateService service(session);
    int32_t resume = 0;
    EXPECT_EQ(service.resumePlayBack(resume), ServiceCode::kNotReady);
    ASSERT_EQ(ConfigureService(service, kPlayEventService), ServiceCode::kOk);
    EXPECT_EQ(service.resumePlayBack(resume), ServiceCode::kOk);
    EXPECT_EQ(resume, 61000);
}

TEST_F(ContentSession, AnUnknownModeAndAMissingAssetLeaveTheDefaults) {
    service::SimulatorSettings settings;
    settings.bandwidthMode = "Guess";
    settings.assetId = "";
    settings.bandwidthHint = 9;
    Prepare(settings);
    EXPECT_EQ(Open(), OPAL_OK);
    EXPECT_EQ(m_asset, "no_return_from_wnc");
    AlgorithmConfig::Global global;
    global.initialBandwidthDecision = InitialBandwidthMode_BandwidthProbe;
    AlgorithmConfig::Mode agile, steady;
    ASSERT_EQ(m_content.GetStreamingAlgorithmConfig(global, agile, steady), OPAL_OK);
    EXPECT_EQ(global.initialBandwidthDecision, InitialBandwidthMode_BandwidthProbe);
    EXPECT_EQ(global.bandwidthHint, 0);
    settings.pulseSeconds = -1;
    StartServices(settings);
    ASSERT_EQ(m_content.Initialize(Bytes("another"), "DE", "de"), OPAL_OK);
    EXPECT_EQ(m_content.SetupStream(), OPAL_ERROR_CONTENT_SESSION);
    EXPECT_EQ(m_services->Calls().back().Field("session"), "my-session") << "it is kept";
}

TEST_F(ContentSession, VerifiesCertificates) {
    const std::string certificate = m_folder.File("cert.pem");
    const std::string command =
        "openssl req -x509 -newkey ec -pkeyopt ec_paramgen_curve:prime256v1 -nodes -days 2 "
        "-keyout " +
        m_folder.File("key.pem") + " -out " + certificate +
        " -subj /CN=opal-test -addext subjectAltName=IP:127.0.0.1 2>" + m_folder.File("log");
    ASSERT_EQ(std::system(command.c_str()), 0);
    service::SimulatorSettings settings;
    settings.certificate = certificate;
    settings.key = m_folder.File("key.pem");
    m_timeouts.receiveMs = 1000;
    Prepare(settings);
    EXPECT_EQ(Open(), kNotSent);
    EXPECT_EQ(Accepts(), 2u);
    EXPECT_TRUE(m_services->Calls().empty());
    ASSERT_EQ(setenv("SSL_CERT_FILE", certificate.c_str(), 1), 0);
    EXPECT_EQ(Open(), OPAL_OK);
    EXPECT_EQ(Accepts(), 1u);
    unsetenv("SSL_CERT_FILE");
}

}  // namespace opal::test
