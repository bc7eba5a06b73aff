#include <gmock/gmock.h>

#include <atomic>
#include <boost/property_tree/ptree.hpp>
#include <boost/property_tree/xml_parser.hpp>
#include <memory>
#include <mutex>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "Common/ConfigurationFiles.h"
#include "Common/ObjectFactory.h"
#include "Common/logging/LogEvent.h"
#include "Common/logging/LogEventSender.h"
#include "Common/logging/LogEventSerializer.h"
#include "Common/logging/LogServer.h"
#include "Common/logging/Logger.h"
#include "Common/logging/LoggingConfig.h"
#include "StreamSwitchingAlgorithm/AlgorithmConfig.h"
#include "support/TemporaryDirectory.h"

using opal::test::TemporaryDirectory;
using testing::HasSubstr;
using testing::StartsWith;

namespace {

LogEventFactory& Events() {
    return LogEventFactory::Instance();
}

std::string Document(const std::vector<LogEvent*>& events, size_t maxSize = 1 << 20) {
    LogEventSerializer serializer;
    for (LogEvent* event : events)
        serializer.AddEvent(event);
    std::string document = "untouched";
    serializer.Serialize(document, maxSize);
    return document;
}

std::string Action(const std::string& content) {
    return "<device-event><action><ts>0</ts>" + content + "</action></device-event>";
}

/// Keeps the documents it is given.
class RecordingSender : public LogEventSender {
  public:
    explicit RecordingSender(OPALError initializeResult = OPAL_OK)
        : m_initializeResult(initializeResult) {
        m_level3 = true;
    }
    OPALError Initialize() override { return m_initializeResult; }
    OPALError Send(const std::string& document) override {
        std::lock_guard<std::mutex> lock(m_documentMutex);
        m_documents += document;
        return OPAL_OK;
    }
    OPALError Shutdown() override { return OPAL_OK; }
    void SetContext(void*) override {}

    std::string Documents() {
        std::lock_guard<std::mutex> lock(m_documentMutex);
        return m_documents;
    }
    void Configure(int64_t interval, size_t size) {
        m_interval = interval;
        m_size = size;
    }

  private:
    const OPALError m_initializeResult;
    std::mutex m_documentMutex;
    std::string m_documents;
};

}  // namespace

TEST(LogEvents, WriteTheirElementsInOrder) {
    qutl::MemoryBuffer<unsigned char> message;
    message.Assign(reinterpret_cast<const unsigned char*>("no\0t"), 4, 0, false);
    qutl::MemoryBuffer<unsigned char> noMessage;
    noMessage.Assign(reinterpret_cast<const unsigned char*>(""), 1, 0, false);
    const struct {
        LogEvent* event;
        int level;
        const char* content;
    } rows[] = {
        {Events().NewInitLogEvent(1, 3, 2, 35, "t", InitialBandwidthMode_BandwidthHint, 4), 1,
         "<init><ticket-string>t</ticket-string><startup-decision>bwhint</startup-decision>"
         "<startup-time>4</startup-time><version>1.3.2.35</version></init>"},
        {Events().NewPlayLogEvent(2, -1, 7), 1,
         "<play><video-level>2</video-level><audio-track>-1</audio-track>"
         "<subtitle-track>7</subtitle-track></play>"},
        {Events().NewSetPlayRateLogEvent(OPAL_PLAYRATE_FOURXRW, 9), 1,
         "<set-play-rate><rate>-4x</rate><playback-time>9</playback-time></set-play-rate>"},
        {Events().NewSetPlayRateLogEvent(static_cast<OPALPlayRate>(0), 9), 1,
         "<set-play-rate><rate>unknown</rate><playback-time>9</playback-time></set-play-rate>"},
        {Events().NewQualityLevelChangeLogEvent(3, 2, 2500000), 2,
         "<quality-level-change><new-level>3</new-level><old-level>2</old-level>"
         "<bw>2500000</bw></quality-level-change>"},
        {Events().NewUnderflowLogEvent(1, 57), 2,
         "<underflow><current-level>1</current-level><playback-time>57</playback-time>"
         "</underflow>"},
        {Events().NewEndOfStreamLogEvent(57), 2, "<eos><playback-time>57</playback-time></eos>"},
        {Events().NewResumeLogEvent(1), 1, "<resume><playback-time>1</playback-time></resume>"},
        {Events().NewAlgorithmModeChangeLogEvent(2), 2,
         "<algo-mode-change><mode>unknown</mode></algo-mode-change>"},
        {Events().NewTraceLogEvent("a<b"), 3, "<algo-trace><trace>a&lt;b</trace></algo-trace>"},
        {Events().NewPulseErrorLogEvent(-21, message), 2,
         "<pulse-error><error-code>-21</error-code><message>no</message></pulse-error>"},
        {Events().NewPulseErrorLogEvent(-21, noMessage), 2,
         "<pulse-error><error-code>-21</error-code></pulse-error>"},
    };
    for (const auto& row : rows) {
        EXPECT_EQ(row.event->GetLevel(), row.level) << row.content;
        EXPECT_EQ(row.event->GetSize(), 4u);
        EXPECT_EQ(Document({row.event}), Action(row.content));
    }
}

TEST(LogEvents, ConfigurationIsReadWhenItIsWritten) {
    AlgorithmConfig& config = AlgorithmConfig::Instance();
    config.Reset();
    LogEvent* event = Events().NewAlgorithmConfigLogEvent(&config);
    AlgorithmConfig::Global global;
    global.maxBufferFromEmpty = 12999;
    AlgorithmConfig::Mode steady;
    steady.minPeriodUpSwitch = 21000;
    ASSERT_EQ(config.Set(global, AlgorithmConfig::Mode(), steady), OPAL_OK);
    const std::string document = Document({event});
    EXPECT_THAT(document, HasSubstr("<startup-decision>lowestlevel</startup-decision>"));
    EXPECT_THAT(document, HasSubstr("<max-buffer-from-empty>12</max-buffer-from-empty>"));
    EXPECT_THAT(document, HasSubstr("<steady><min-period-up-switch>21</min-period-up-switch>"));
    config.Reset();
}

// Three pause events make 251 bytes. The figures for a cut are worked out by hand from its rule.
TEST(LogEventSerializer, CutsAtAnEventBoundaryAndMarksThePart) {
    const auto pauses = [](size_t maxSize) {
        std::vector<LogEvent*> events;
        for (int i = 0; i < 3; ++i) {
            events.push_back(Events().NewPauseDisplayLogEvent(i));
            events.back()->ts = i;
        }
        return Document(events, maxSize);
    };
    const std::string whole = pauses(251);
    EXPECT_EQ(whole.size(), 251u);
    EXPECT_THAT(whole, StartsWith("<device-event><action><ts>0</ts><pause>"));

    const std::string cut = pauses(153);
    EXPECT_EQ(cut.size(), 140u);
    EXPECT_THAT(cut, StartsWith("<partial-buffer>true</partial-buffer><device-event>"));
    EXPECT_THAT(cut, testing::EndsWith("</action></device-event>"));

    // Too small for one event: marked, but not cut.
    for (size_t maxSize : {152, 36, 0})
        EXPECT_EQ(pauses(maxSize), "<partial-buffer>true</partial-buffer>" + whole);
}

TEST(LogEventSerializer, DropsEventsAtItsLimitAndSaysSo) {
    LogEventSerializer serializer;
    for (int i = 0; i < 16448; ++i)
        serializer.AddEvent(Events().NewErrorLogEvent(-1));
    serializer.AddEvent(Events().NewErrorLogEvent(-2));
    std::string document;
    serializer.Serialize(document, SIZE_MAX);
    EXPECT_THAT(document,
                StartsWith("<device-event><partial-buffer>true</partial-buffer><action>"));
    EXPECT_EQ(document.find("<error-code>-2"), std::string::npos);
    serializer.AddEvent(Events().NewErrorLogEvent(-2));
    serializer.Serialize(document, SIZE_MAX);
    EXPECT_EQ(document, Action("<error><error-code>-2</error-code></error>"));
}

TEST(LogServer, SendsWhatIsPostedBetweenStartAndStop) {
    LogServer& server = LogServer::Instance();
    EXPECT_FALSE(server.Post(nullptr));
    RecordingSender sender;
    server.Start(&sender);
    server.PostOrDestroy(Events().NewResumeLogEvent(5));   // level 1
    server.PostOrDestroy(Events().NewErrorLogEvent(-13));  // level 2, off in this sender
    server.PostOrDestroy(Events().NewTraceLogEvent("t"));  // level 3
    server.Stop();
    server.PostOrDestroy(Events().NewStopDownloadLogEvent(6));
    EXPECT_THAT(sender.Documents(), HasSubstr("<resume>"));
    EXPECT_THAT(sender.Documents(), HasSubstr("<algo-trace>"));
    EXPECT_THAT(sender.Documents(), testing::Not(HasSubstr("<error>")));

    RecordingSender next;
    server.Start(&next);
    server.Stop();
    EXPECT_EQ(next.Documents(), "") << "what came in between is dropped";
}

TEST(LogServer, WithoutALogThreadEventsPileUpToALimit) {
    LogServer& server = LogServer::Instance();
    RecordingSender sender;
    server.Start(&sender);
    server.Stop();
    int taken = 0;
    for (std::unique_ptr<LogEvent> event; taken < 20000; ++taken) {
        event.reset(Events().NewErrorLogEvent(-1));
        if (!server.Post(event.get()))
            break;
        (void)event.release();
    }
    EXPECT_EQ(taken, 16448);
    server.Start(&sender);
    EXPECT_TRUE(server.Post(Events().NewResumeLogEvent(1))) << "a new start has dropped them";
    server.Stop();
}

TEST(LogServer, StopNeverMissesItsWakeUp) {
    RecordingSender sender;
    for (int i = 0; i < 2000; ++i) {
        LogServer::Instance().Start(&sender);
        if (i % 2 != 0)
            LogServer::Instance().Flush();
        LogServer::Instance().Stop();
    }
    SUCCEED() << "no hang";
}

TEST(LogServer, AFailedConnectionLeavesNothingForTheNextSession) {
    LogServer& server = LogServer::Instance();
    RecordingSender broken(OPAL_ERROR_SERVICE_21);
    server.Start(&broken);
    server.PostOrDestroy(Events().NewErrorLogEvent(-1));
    server.PostOrDestroy(Events().NewStopDownloadLogEvent(1));
    server.Stop();

    RecordingSender good;
    server.Start(&good);
    server.PostOrDestroy(Events().NewResumeLogEvent(2));
    server.Stop();
    EXPECT_EQ(broken.Documents(), "");
    EXPECT_EQ(good.Documents(), Action("<resume><playback-time>2</playback-time></resume>"));
}

TEST(LogServer, PostsFromManyThreadsArriveOrAreRefused) {
    RecordingSender sender;
    LogServer::Instance().Start(&sender);
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t) {
        threads.emplace_back([] {
            for (int i = 0; i < 200; ++i) {
                LogServer::Instance().PostOrDestroy(Events().NewResumeLogEvent(i));
                if (i % 50 == 0)
                    LogServer::Instance().Flush();
            }
        });
    }
    for (std::thread& thread : threads)
        thread.join();
    LogServer::Instance().Stop();
    const std::string documents = sender.Documents();
    size_t count = 0;
    for (size_t at = documents.find("<resume>"); at != std::string::npos;
         at = documents.find("<resume>", at + 1))
        ++count;
    EXPECT_EQ(count, 800u);
}

TEST(LogEventSender, OutOfBoundsSettingsFallBack) {
    RecordingSender sender;
    EXPECT_EQ(sender.GetTransactionInterval(), 300000);
    sender.Configure(86400000, 0x2000000);
    EXPECT_EQ(sender.GetTransactionInterval(), 86400000);
    EXPECT_EQ(sender.GetTransactionSize(), 0x2000000u);
    sender.Configure(86400001, 0x2000001);
    EXPECT_EQ(sender.GetTransactionInterval(), 300000);
    EXPECT_EQ(sender.GetTransactionSize(), 0x20000u);
}

TEST(LoggingConfig, OverlaysWhatTheFileNamesOrNothing) {
    TemporaryDirectory directory;
    opal::SetConfigurationDirectory(directory.Path());
    LoggingConfig missing;
    EXPECT_EQ(missing.Load(), OPAL_ERROR_GENERAL);

    const auto read = [&](const std::string& text, LogEventSenderConfig& config) {
        directory.Write("kmt_logging_config.xml", text);
        LoggingConfig file;
        const OPALError loaded = file.Load();
        return loaded == OPAL_OK ? file.Read(config) : loaded;
    };
    LogEventSenderConfig config;
    EXPECT_EQ(
        read("<settings><transaction-interval>7</transaction-interval><other>x</other><empty/>"
             "<enable-level2>1</enable-level2></settings>",
             config),
        OPAL_OK);
    EXPECT_EQ(config.transactionInterval, 7);
    EXPECT_EQ(config.transactionSize, 0x20000u);
    EXPECT_TRUE(config.enableLevel2);
    for (const char* text :
         {"<settings><transaction-interval>9</transaction-interval>"
          "<transaction-size>abc</transaction-size></settings>",
          "<settings><transaction-size/></settings>", "<settings>", "no xml", ""}) {
        EXPECT_EQ(read(text, config), OPAL_ERROR_GENERAL) << text;
        EXPECT_EQ(config.transactionInterval, 7) << text;
    }
    opal::SetConfigurationDirectory(".");
}

TEST(Logger, NamesAreSharedAndAMissingFileIsQuiet) {
    EXPECT_EQ(getLogger("opal.Test"), getLogger("opal.Test"));
    testing::internal::CaptureStderr();
    LoggerPropertyConfigure("/nonexistent/log4cxx.properties");
    getLogger("opal.Test")->error("nobody listens");
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "");

    TemporaryDirectory directory;
    const std::string log = directory.File("opal.log");
    LoggerPropertyConfigure(
        directory.Write("log4cxx.properties",
                        "log4j.logger.opal.Test=INFO, F\n"
                        "log4j.appender.F=org.apache.log4j.FileAppender\n"
                        "log4j.appender.F.layout=org.apache.log4j.PatternLayout\n"
                        "log4j.appender.F.layout.ConversionPattern=%p %m%n\n"
                        "log4j.appender.F.File=" +
                            log + "\n"));
    getLogger("opal.Test")->error("somebody listens");
    std::ifstream file(log);
    std::string line;
    std::getline(file, line);
    EXPECT_EQ(line, "ERROR somebody listens");
    log4cxx::Logger::getLogger("opal.Test")->removeAllAppenders();
}

TEST(ObjectFactory, TheFirstObjectThatAcceptsTheKindCreates) {
    class SenderObject : public LogEventSenderObject {
      public:
        SenderObject(int kind, int64_t interval) : m_kind(kind), m_interval(interval) {}
        bool Accepts(int kind) const override { return kind == m_kind; }
        ILogEventSender* Create(const LogEventSenderConfig* config, void*) override {
            auto* sender = new RecordingSender;
            sender->Configure(config ? config->transactionInterval : m_interval, 1);
            return sender;
        }

      private:
        const int m_kind;
        const int64_t m_interval;
    };
    ObjectFactory& factory = ObjectFactory::Instance();
    factory.Reset();
    EXPECT_EQ(factory.NewHTTPFile(false), nullptr);
    EXPECT_EQ(factory.NewLogEventSender(), nullptr);
    factory.Register(boost::shared_ptr<LogEventSenderObject>(new SenderObject(2, 22)));
    factory.Register(boost::shared_ptr<LogEventSenderObject>(new SenderObject(2, 33)));
    EXPECT_EQ(factory.NewLogEventSender(), nullptr) << "kind 0 is selected at first";
    factory.SelectLogEventSender(ObjectFactory::kNullSender, nullptr, nullptr);
    const auto interval = [&factory] {
        return std::unique_ptr<ILogEventSender>(factory.NewLogEventSender())
            ->GetTransactionInterval();
    };
    EXPECT_EQ(interval(), 22);
    factory.Register(boost::shared_ptr<LogEventSenderObject>(new SenderObject(2, 11)), true);
    EXPECT_EQ(interval(), 11);
    LogEventSenderConfig config;
    config.transactionInterval = 44;
    factory.SelectLogEventSender(ObjectFactory::kNullSender, &config, nullptr);
    EXPECT_EQ(factory.GetLogEventSenderKind(), 2);
    EXPECT_EQ(interval(), 44);
    factory.Reset();
}
