#include <gmock/gmock.h>
#include <sys/resource.h>

#include <atomic>
#include <chrono>
#include <filesystem>
#include <fstream>
#include <future>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "Common/ConfigurationFiles.h"
#include "Common/ObjectFactory.h"
#include "Common/StopSignal.h"
#include "Common/logging/LogEvent.h"
#include "Common/logging/LogEventSender.h"
#include "Common/logging/LogEventSerializer.h"
#include "Common/logging/LogServer.h"
#include "Common/logging/Logger.h"
#include "Common/logging/LoggingConfig.h"
#include "StreamSwitchingAlgorithm/AlgorithmConfig.h"
#include "support/RecordingLogSender.h"
#include "support/TemporaryDirectory.h"
#include "support/VirtualClock.h"

using RecordingSender = opal::test::RecordingLogSender;
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

LogServer& Server() {
    return LogServer::Instance();
}

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
        {Events().NewSetAudioTrackLogEvent(-1, 9), 1,
         "<set-audio-track><audio-track>-1</audio-track><playback-time>9</playback-time>"
         "</set-audio-track>"},
        {Events().NewSetSubtitleTrackLogEvent(7, 9), 1,
         "<set-subtitle-track><subtitle-track>7</subtitle-track><playback-time>9</playback-time>"
         "</set-subtitle-track>"},
        {Events().NewEndOfStreamLogEvent(9), 2, "<eos><playback-time>9</playback-time></eos>"},
        {Events().NewTerminateLogEvent(9), 1,
         "<terminate><playback-time>9</playback-time></terminate>"},
        {Events().NewResumeLogEvent(9), 1, "<resume><playback-time>9</playback-time></resume>"},
        {Events().NewPauseDisplayLogEvent(9), 1, "<pause><playback-time>9</playback-time></pause>"},
        {Events().NewStopDownloadLogEvent(9), 1, "<stop><playback-time>9</playback-time></stop>"},
        {Events().NewQualityLevelChangeLogEvent(3, 2, 2500000), 2,
         "<quality-level-change><new-level>3</new-level><old-level>2</old-level><bw>2500000</bw>"
         "</quality-level-change>"},
        {Events().NewErrorLogEvent(-13), 2, "<error><error-code>-13</error-code></error>"},
        {Events().NewUnderflowLogEvent(4, 9), 2,
         "<underflow><current-level>4</current-level><playback-time>9</playback-time>"
         "</underflow>"},
        {Events().NewAlgorithmModeChangeLogEvent(0), 2,
         "<algo-mode-change><mode>agile</mode></algo-mode-change>"},
        {Events().NewAlgorithmModeChangeLogEvent(1), 2,
         "<algo-mode-change><mode>steady</mode></algo-mode-change>"},
        {Events().NewSetPlayRateLogEvent(OPAL_PLAYRATE_FOURXRW, 9), 1,
         "<set-play-rate><rate>-4x</rate><playback-time>9</playback-time></set-play-rate>"},
        {Events().NewSetPlayRateLogEvent(static_cast<OPALPlayRate>(0), 9), 1,
         "<set-play-rate><rate>unknown</rate><playback-time>9</playback-time></set-play-rate>"},
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
    global.initialBandwidthDecision = InitialBandwidthMode_BandwidthProbe;
    global.maxBufferFromEmpty = 12999;
    AlgorithmConfig::Mode steady;
    steady.minPeriodUpSwitch = 21000;
    ASSERT_EQ(config.Set(global, AlgorithmConfig::Mode(), steady), OPAL_OK);
    EXPECT_EQ(Document({event}),
              Action("<algo-config><startup-decision>bwprobe</startup-decision><bw-hint>0</bw-hint>"
                     "<max-buffer-from-empty>12</max-buffer-from-empty>"
                     "<min-buffer-to-enter-agile>0</min-buffer-to-enter-agile>"
                     "<max-secs-in-agile>120</max-secs-in-agile>"
                     "<min-secs-in-agile>15</min-secs-in-agile>"
                     "<upper-guard-trigger>15</upper-guard-trigger>"
                     "<agile><min-period-up-switch>0</min-period-up-switch>"
                     "<min-period-down-switch>0</min-period-down-switch></agile>"
                     "<steady><min-period-up-switch>21</min-period-up-switch>"
                     "<min-period-down-switch>0</min-period-down-switch></steady></algo-config>"));
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
    for (const size_t maxSize : {152u, 36u, 0u})
        EXPECT_EQ(pauses(maxSize), "<partial-buffer>true</partial-buffer>" + whole);
}

TEST(LogEventSerializer, DropsEventsAtItsLimitAndSaysSo) {
    LogEventSerializer serializer;
    std::string document;
    // 66 bytes and 69 an event. The tenth would be the last to fit, but for the room that a cut
    // always allows for a second mark.
    for (const auto& [maxSize, count] : {std::pair<size_t, size_t>{SIZE_MAX, 16448}, {768, 9}}) {
        for (int i = 0; i < 16448; ++i)
            serializer.AddEvent(Events().NewErrorLogEvent(-1));
        serializer.AddEvent(Events().NewErrorLogEvent(-2));
        serializer.Serialize(document, maxSize);
        EXPECT_THAT(document,
                    StartsWith("<device-event><partial-buffer>true</partial-buffer><action>"));
        EXPECT_EQ(document.size(), 66 + 69 * count);
        EXPECT_EQ(document.find("<error-code>-2"), std::string::npos);
    }
    serializer.AddEvent(Events().NewErrorLogEvent(-2));
    opal::StopSignal stop;
    stop.Raise();
    document = "untouched";
    serializer.Serialize(document, SIZE_MAX, &stop);
    EXPECT_EQ(document, "untouched");
    serializer.Serialize(document, SIZE_MAX);
    EXPECT_EQ(document, Action("<error><error-code>-2</error-code></error>"));
}

TEST(LogServer, SendsWhatIsPostedBetweenStartAndStop) {
    EXPECT_FALSE(Server().Post(nullptr));
    RecordingSender sender, broken(OPAL_ERROR_SERVICE_21), next;
    opal::test::VirtualClock clock;
    Server().Start(&sender);
    clock.Advance(2999);
    Server().PostOrDestroy(Events().NewResumeLogEvent(5));   // level 1
    Server().PostOrDestroy(Events().NewErrorLogEvent(-13));  // level 2, off in this sender
    Server().PostOrDestroy(Events().NewTraceLogEvent("t"));  // level 3
    Server().Stop();
    Server().PostOrDestroy(Events().NewStopDownloadLogEvent(6));
    EXPECT_THAT(sender.Documents(), HasSubstr("<ts>2</ts><resume>"));
    EXPECT_THAT(sender.Documents(), HasSubstr("<algo-trace>"));
    EXPECT_THAT(sender.Documents(), testing::Not(HasSubstr("<error>")));

    Server().Start(&broken);
    Server().PostOrDestroy(Events().NewStopDownloadLogEvent(1));
    Server().Stop();
    EXPECT_EQ(broken.Documents(), "");
    Server().Start(&next);
    Server().PostOrDestroy(Events().NewResumeLogEvent(2));
    Server().Stop();
    EXPECT_EQ(next.Documents(), Action("<resume><playback-time>2</playback-time></resume>"))
        << "what came in between, and for the broken connection, is dropped";
}

TEST(LogServer, ConnectsOnItsThreadAndTwiceForAnUploadThatCannotBe) {
    class CountingSender : public RecordingSender {
      public:
        using RecordingSender::RecordingSender;
        OPALError Initialize() override {
            ++attempts;
            priority = getpriority(PRIO_PROCESS, 0);
            return RecordingSender::Initialize();
        }
        int attempts = 0;
        int priority = 0;
    };
    for (const auto& [result, attempts] : {std::pair{OPAL_OK, 1}, {OPAL_ERROR_SERVICE_20, 2}}) {
        CountingSender sender(result);
        Server().Start(&sender);
        Server().Flush();
        Server().Stop();
        EXPECT_EQ(sender.attempts, attempts);
        EXPECT_EQ(sender.priority, 19);
    }
}

TEST(LogServer, WithoutALogThreadEventsPileUpToALimit) {
    RecordingSender sender;
    Server().Start(&sender);
    Server().Stop();
    int taken = 0;
    for (std::unique_ptr<LogEvent> event; taken < 20000; ++taken) {
        event.reset(Events().NewErrorLogEvent(-1));
        if (!Server().Post(event.get()))
            break;
        (void)event.release();
    }
    EXPECT_EQ(taken, 16448);
    Server().Start(&sender);
    EXPECT_TRUE(Server().Post(Events().NewResumeLogEvent(1))) << "a new start has dropped them";
    Server().Stop();
}

TEST(LogServer, EveryPostArrivesAndStopNeverMissesItsWakeUp) {
    RecordingSender sender;
    for (int i = 0; i < 2000; ++i) {  // a missed wake-up hangs until the test's time-out
        Server().Start(&sender);
        if (i % 2 != 0)
            Server().Flush();
        Server().Stop();
    }
    Server().Start(&sender);
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t) {
        threads.emplace_back([] {
            for (int i = 0; i < 200; ++i) {
                Server().PostOrDestroy(Events().NewResumeLogEvent(i));
                if (i % 50 == 0)
                    Server().Flush();
            }
        });
    }
    for (std::thread& thread : threads)
        thread.join();
    Server().Stop();
    const std::string& documents = sender.Documents();
    size_t count = 0;
    for (size_t at = documents.find("<resume>"); at != std::string::npos; ++count)
        at = documents.find("<resume>", at + 1);
    EXPECT_EQ(count, 800u);
}

// The posters never rest, as readers do not while a session ends and the next one begins.
TEST(LogServer, StartsAndStopsUnderPostsFromFourThreads) {
    std::atomic<bool> done{false};
    std::vector<std::thread> posters;
    for (int t = 0; t < 4; ++t) {
        posters.emplace_back([&done] {
            while (!done) {
                Server().PostOrDestroy(Events().NewErrorLogEvent(-1));
                std::this_thread::sleep_for(std::chrono::microseconds(200));
            }
        });
    }
    for (int i = 0; i < 10000; ++i) {  // a missed wake-up hangs until the test's time-out
        RecordingSender sender(i % 3 == 0 ? OPAL_ERROR_SERVICE_21 : OPAL_OK);
        Server().Start(&sender);
        Server().PostOrDestroy(Events().NewResumeLogEvent(i));
        if (i % 2 == 0)
            Server().Flush();
        Server().Stop();
        const std::string resume = "<resume><playback-time>" + std::to_string(i) + "<";
        ASSERT_EQ(sender.Documents().find(resume) == std::string::npos, i % 3 == 0) << i;
    }
    done = true;
    for (std::thread& poster : posters)
        poster.join();
}

TEST(LogServer, ASenderThatBlocksDisturbsNobodyAndHasABound) {
    class BlockingSender : public RecordingSender {
      public:
        OPALError Send(const std::string& document) override {
            if (!m_told.exchange(true))
                blocked.set_value();
            m_opened.wait();
            return RecordingSender::Send(document);
        }
        std::promise<void> blocked, gate;

      private:
        const std::shared_future<void> m_opened = gate.get_future().share();
        std::atomic<bool> m_told{false};
    };
    BlockingSender sender;
    sender.Configure(1000, 0x2000000);
    Server().Start(&sender);
    Server().PostOrDestroy(Events().NewResumeLogEvent(1));
    Server().Flush();
    sender.blocked.get_future().wait();
    int taken = 0;
    for (int i = 0; i < 20000; ++i) {
        std::unique_ptr<LogEvent> event(Events().NewResumeLogEvent(i));
        if (!Server().Post(event.get()))
            continue;
        (void)event.release();
        ++taken;
    }
    Server().Flush();
    EXPECT_EQ(taken, 16448) << "and no post has waited for the sender";
    sender.gate.set_value();
    Server().Stop();
    EXPECT_THAT(sender.Documents(), HasSubstr("<playback-time>16447<"));
    EXPECT_THAT(sender.Documents(),
                HasSubstr("</device-event><device-event><partial-buffer>true</partial-buffer>"))
        << "events were refused";
}

// Two controllers at once are not meant to be, and must not bring the process down.
TEST(LogServer, TwoOwnersAtOnceDoNoHarm) {
    const auto own = [] {
        for (int i = 0; i < 500; ++i) {
            RecordingSender sender;
            Server().Start(&sender);
            Server().PostOrDestroy(Events().NewResumeLogEvent(i));
            Server().Stop();
        }
    };
    std::thread other(own);
    own();
    other.join();
    RecordingSender last;
    Server().Start(&last);
    Server().PostOrDestroy(Events().NewResumeLogEvent(7));
    Server().Stop();
    EXPECT_EQ(last.Documents(), Action("<resume><playback-time>7</playback-time></resume>"));
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
    EXPECT_EQ(LoggingConfig().Load(), OPAL_ERROR_GENERAL) << "no file";
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

TEST(Logger, AMissingFileIsQuiet) {
    testing::internal::CaptureStderr();
    LoggerPropertyConfigure("/nonexistent/log4cxx.properties");
    getLogger("opal.Test")->error("nobody listens");
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
}

TEST(Logger, TheSampleFileWritesWhatItSays) {
    const TemporaryDirectory directory;
    const std::filesystem::path before = std::filesystem::current_path();
    std::filesystem::current_path(directory.Path());
    LoggerPropertyConfigure(OPAL_SAMPLE_PROPERTIES);
    getLogger("opal.LogServer")->info("SendLog() = 0");
    getLogger("opal.LogServer.data")->trace("<device-event>");
    getLogger("opal.StreamingController")->error("it failed");
    getLogger("opal.StreamingController")->info("not told");
    std::ostringstream text;
    text << std::ifstream("opal.log").rdbuf();
    std::filesystem::current_path(before);
    EXPECT_THAT(text.str(),
                testing::MatchesRegex(".* INFO  .*opal.LogServer: SendLog.. = 0\n"
                                      ".* ERROR .*opal.StreamingController: it failed\n"));
}

TEST(ObjectFactory, TheFirstObjectThatAcceptsTheKindCreates) {
    class SenderObject : public LogEventSenderObject {
      public:
        explicit SenderObject(int64_t interval) : m_interval(interval) {}
        bool Accepts(int kind) const override { return kind == ObjectFactory::kNullSender; }
        ILogEventSender* Create(const LogEventSenderConfig* config, void*) override {
            auto* sender = new RecordingSender;
            sender->Configure(config ? config->transactionInterval : m_interval, 1);
            return sender;
        }

      private:
        const int64_t m_interval;
    };
    ObjectFactory& factory = ObjectFactory::Instance();
    const auto add = [&factory](int64_t interval, bool front) {
        factory.Register(boost::shared_ptr<LogEventSenderObject>(new SenderObject(interval)),
                         front);
    };
    const auto interval = [&factory] {
        const std::unique_ptr<ILogEventSender> sender(factory.NewLogEventSender());
        return sender ? sender->GetTransactionInterval() : -1;
    };
    factory.Reset();
    EXPECT_EQ(factory.NewHTTPFile(false), nullptr);
    add(22, false);
    add(33, false);
    EXPECT_EQ(interval(), -1) << "kind 0 is selected at first";
    factory.SelectLogEventSender(ObjectFactory::kNullSender, nullptr, nullptr);
    EXPECT_EQ(interval(), 22);
    add(11, true);
    EXPECT_EQ(interval(), 11);
    LogEventSenderConfig config;
    config.transactionInterval = 44;
    factory.SelectLogEventSender(ObjectFactory::kNullSender, &config, nullptr);
    EXPECT_EQ(interval(), 44);
    factory.Reset();
}
