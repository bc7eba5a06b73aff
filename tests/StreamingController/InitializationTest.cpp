#include <algorithm>
#include <boost/make_shared.hpp>
#include <climits>

#include "Common/ConfigurationFiles.h"
#include "ContentSession/IProtectedContent.h"
#include "StreamingController/ControllerFixture.h"
#include "support/TemporaryDirectory.h"

namespace opal::test {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

struct ContentScript {
    OPALError open = OPAL_OK;
    OPALError setup = OPAL_OK;
    std::string manifest;
    CallJournal calls;  ///< reports are made by a thread of their own
};

class FakeContent : public IProtectedContent {
  public:
    explicit FakeContent(ContentScript& script) : m_script(script) {}
    OPALError Initialize(const qutl::MemoryBuffer<unsigned char>& data, const std::string& country,
                         const std::string& language) override {
        m_script.calls.Add("Initialize " + std::to_string(data.GetSize()) + country + language);
        return OPAL_OK;
    }
    OPALError Finalize() override { return OPAL_OK; }
    OPALError Open(const std::string& ticket, std::string& assetId) override {
        m_script.calls.Add("Open " + ticket);
        assetId = "asset";
        return m_script.open;
    }
    OPALError Close() override {
        m_script.calls.Add("Close");
        return OPAL_OK;
    }
    OPALError GetManifest(std::string& text) override {
        text = m_script.manifest;
        return OPAL_OK;
    }
    OPALError SetupStream() override { return m_script.setup; }
    OPALError GetPulseConfiguration(int64_t& intervalMs) override {
        intervalMs = 90000000;  // more than a day
        return OPAL_OK;
    }
    OPALError GetStreamingAlgorithmConfig(AlgorithmConfig::Global& global, AlgorithmConfig::Mode&,
                                          AlgorithmConfig::Mode&) override {
        global.bandwidthHint = 123;
        return OPAL_OK;
    }
    OPALError ReportPlayEvent(int state, int64_t, int64_t bandwidth, int64_t audioTrack,
                              int64_t subtitleTrack) override {
        m_script.calls.Add("Report " + std::to_string(state) + " " + std::to_string(bandwidth) +
                           " " + std::to_string(audioTrack) + " " + std::to_string(subtitleTrack));
        return OPAL_ERROR_SERVICE_27;  // which disturbs nothing
    }
    int32_t GetAudioAssetId() override { return 41; }
    int32_t GetSubtitleAssetId() override { return -1; }
    OPALError Prepare(const qutl::MemoryBuffer<unsigned char>&, void** session) override {
        *session = this;
        return OPAL_OK;
    }
    OPALError GetLastErrorText(qutl::MemoryBuffer<unsigned char>& text) override {
        text.Assign(reinterpret_cast<const unsigned char*>("no\0rest"), 7, 0, false);
        return OPAL_OK;
    }

  private:
    ContentScript& m_script;
};

class FakeContentObject : public ProtectedContentObject {
  public:
    explicit FakeContentObject(ContentScript& script) : m_script(script) {}
    bool Accepts(int kind) const override { return kind == 0; }
    IProtectedContent* Create() override { return new FakeContent(m_script); }

  private:
    ContentScript& m_script;
};

class InitializationTest : public ControllerFixture {};

TEST_F(InitializationTest, OpensTheStartLevelAndNothingElse) {
    FilmShape film;
    film.subtitleTracks = 1;
    Serve(film);
    const auto caller = std::this_thread::get_id();
    listener.onEvent = [&](const std::string&) { EXPECT_EQ(caller, std::this_thread::get_id()); };
    ASSERT_EQ(OPAL_OK, Initialize());
    Turns(10);
    EXPECT_THAT(listener.Lines(), ElementsAre("OnVideoLevelChanged 2 0 0"));
    EXPECT_EQ(3u, server->Reads(Url("v0")).size());
    EXPECT_EQ(0u, ClusterReads("v0"));
    for (const char* name : {"v1", "a0", "s0"})
        EXPECT_THAT(server->Reads(Url(name)), IsEmpty());
    EXPECT_EQ("V_MPEG4/ISO/AVC 1000x360 500000 first", controller->videoConfiguration);
    EXPECT_EQ(0u, controller->GetCurrentVideoLevel());
    EXPECT_EQ(kNone, controller->GetCurrentAudioTrack());
    EXPECT_EQ(kNone, controller->GetCurrentSubtitleTrack());
    VideoLevelInfo info;
    EXPECT_EQ(OPAL_OK, controller->GetVideoLevelInfo(1, info));
    EXPECT_EQ(1000000u, info.bitrate);
    EXPECT_EQ(OPAL_ERROR_OUT_OF_RANGE, controller->GetVideoLevelInfo(2, info));
    EXPECT_EQ(0u, info.bitrate);
}

TEST_F(InitializationTest, ASessionThatCannotBeBuiltAnswersWhyAndIsFinalized) {
    EXPECT_EQ(OPAL_OK, controller->Finalize());  // before any session
    FilmShape film;
    film.levels = 0;
    Serve(film);
    EXPECT_EQ(OPAL_ERROR_GENERAL, Initialize());
    EXPECT_EQ(kNone, controller->GetCurrentVideoLevel());
    EXPECT_EQ(OPAL_OK, controller->Finalize());
    EXPECT_EQ(OPAL_OK, controller->Finalize());

    Serve({});
    controller->videoConfigure = OPAL_ERROR_GENERAL;
    EXPECT_EQ(OPAL_ERROR_GENERAL, Initialize());
    EXPECT_NE(OPAL_OK, controller->Play());
    EXPECT_EQ(OPAL_ERROR_HTTP_CLIENT,  // no Finalize between: the same controller
              controller->InitializeFromSMILFile(Url("none"), "DE", "de", OPAL_WRITER_MODEL_PUSH));
    EXPECT_EQ(0u, controller->GetVideoLevelCount());
    EXPECT_EQ(OPAL_OK, controller->Finalize());
}

TEST_F(InitializationTest, OperationsWithoutASessionAreNotReady) {
    int64_t ms = 7;
    size_t figure = 7;
    VideoLevelInfo info;
    qutl::MemoryBuffer<unsigned char> data;
    uint32_t number = 0;
    EXPECT_EQ(OPAL_ERROR_NOT_READY, controller->Play());
    EXPECT_EQ(OPAL_ERROR_NOT_READY, controller->Pause());
    EXPECT_EQ(OPAL_ERROR_NOT_READY, controller->Seek(ms));
    EXPECT_EQ(OPAL_ERROR_NOT_READY, controller->SetAudioTrack(0));
    EXPECT_EQ(OPAL_ERROR_NOT_READY, controller->SetPlayRate(OPAL_PLAYRATE_ONEX));
    EXPECT_EQ(OPAL_ERROR_OUT_OF_RANGE, controller->SetPlayRate(OPAL_PLAYRATE_TWOXFF));
    EXPECT_EQ(OPAL_ERROR_NOT_YET, controller->GetVideoLevelInfo(0, info));
    EXPECT_EQ(OPAL_ERROR_NOT_YET, controller->GetSubtitleFont(nullptr, figure));
    EXPECT_EQ(OPAL_ERROR_NOT_READY, controller->GetBufferingProgress(figure));
    EXPECT_EQ(OPAL_ERROR_NOT_READY, controller->PullVideoBlock(data, ms, ms, number, number));
    EXPECT_EQ(kNone, controller->GetCurrentVideoLevel());
    EXPECT_EQ(OPAL_OK, controller->GetBufferedDuration(OPAL_STREAM_VIDEO, ms));
    EXPECT_EQ(0, ms);
    HABPreferences preferences;  // those of the television, which need no session
    EXPECT_EQ(OPAL_OK, controller->GetPlatformPreferences(preferences));
    EXPECT_EQ("english", preferences.audioLanguage);
}

TEST_F(InitializationTest, StartLevelByProbeHintAndDecision) {
    HandClock clock;
    FilmShape film;
    film.levels = 6;
    film.clusters = 180;
    Serve(film);
    struct Case {
        InitialBandwidthMode mode;
        int decided;
        int64_t probeMs;  ///< below 0: the probe's file cannot be opened
        size_t level;
        int bandwidth;
    };
    AlgorithmConfig::Global global;
    global.bandwidthHint = 777;
    ASSERT_EQ(OPAL_OK, AlgorithmConfig::Instance().Set(global, {}, {}));
    for (const Case& c :
         std::vector<Case>{{InitialBandwidthMode_BandwidthProbe, 5, 1200, 4, 512000},
                           {InitialBandwidthMode_BandwidthProbe, 0, 0, 0, 0},
                           {InitialBandwidthMode_BandwidthProbe, 0, 1, 0, INT_MAX},  // and more
                           {InitialBandwidthMode_BandwidthProbe, 5, -1, 0, -1},
                           {InitialBandwidthMode_BandwidthHint, 3, 0, 3, 777},
                           {InitialBandwidthMode_LowestLevel, 2, 0, 2, -1},
                           {InitialBandwidthMode_LowestLevel, -1, 0, 0, -1},
                           {InitialBandwidthMode_LowestLevel, 6, 0, 5, -1}}) {
        SCOPED_TRACE(testing::Message() << c.mode << " " << c.decided << " " << c.probeMs);
        FakeRule rule;
        rule.url = Url("v0");
        rule.kind = c.probeMs < 0 ? FakeRule::Kind::Open : FakeRule::Kind::Read;
        rule.result = c.probeMs < 0 ? OPAL_ERROR_CONNECT : OPAL_OK;
        rule.count = 1;
        rule.skip = c.probeMs == 1 ? 2 : 0;  // the whole file in 1 ms
        rule.action = [&] { clock.Advance(std::max<int64_t>(0, c.probeMs)); };
        if (c.mode == InitialBandwidthMode_BandwidthProbe)
            server->AddRule(rule);
        Build(false);
        controller->mode = c.mode;
        controller->startLevel = c.decided;
        ASSERT_EQ(OPAL_OK, Initialize());
        EXPECT_EQ(c.level, controller->GetCurrentVideoLevel());
        EXPECT_EQ(c.bandwidth, controller->switching->bandwidth);
        EXPECT_EQ(c.probeMs < 0 ? 0 : 1, controller->switching->queries);
        EXPECT_EQ(c.bandwidth >= 0 ? c.probeMs : -1, controller->switching->startupMs);
        const auto decided = static_cast<size_t>(std::clamp(c.decided, 0, film.levels - 1));
        if (decided == c.level)
            continue;
        // The decision stands where it stood: the first change goes there.
        ASSERT_EQ(OPAL_OK, controller->Play());
        EXPECT_TRUE(UntilEvent("OnVideoLevelChanged 6 " + std::to_string(c.level) + " " +
                               std::to_string(decided)));
    }
    controller.reset();  // its threads sleep by the clock
}

TEST_F(InitializationTest, ATicketIsOpenedAndItsPlaybackReported) {
    FilmShape film;
    film.audioTracks = 2;
    film.subtitleTracks = 1;
    ContentScript script;
    script.manifest = Serve(film);
    const auto initialize = [&] {
        return controller->InitializeFromTIXString("ticket", "data", "DE", "de",
                                                   OPAL_WRITER_MODEL_PUSH);
    };
    EXPECT_EQ(OPAL_ERROR_CONTENT_SESSION, initialize());  // there is none
    ObjectFactory::Instance().Register(boost::make_shared<FakeContentObject>(script), true);
    script.open = OPAL_ERROR_SERVICE_21;
    EXPECT_EQ(OPAL_ERROR_SERVICE_21, initialize());
    EXPECT_THAT(listener.Lines(), ElementsAre("OnError -21 'no'"));
    script.open = OPAL_OK;
    script.setup = OPAL_ERROR_CONTENT_SESSION;
    EXPECT_EQ(OPAL_ERROR_CONTENT_SESSION, initialize());
    EXPECT_EQ(1u, listener.Count("OnError -10 'no'"));
    script.setup = OPAL_OK;
    script.calls.Clear();
    ASSERT_EQ(OPAL_OK, initialize());
    EXPECT_THAT(script.calls.Lines(), ElementsAre("Initialize 4DEde", "Open ticket"));
    EXPECT_EQ(123, AlgorithmConfig::Instance().GetBandwidthHint());
    EXPECT_EQ(300000, PlayReportConfig::Instance().GetInterval());
    size_t audio = 5;
    size_t subtitle = 5;
    EXPECT_EQ(OPAL_OK, controller->GetDefaultTracks(audio, subtitle));
    EXPECT_EQ(1u, audio);
    EXPECT_EQ(kNone, subtitle);  // none is on
    script.calls.Clear();
    ASSERT_EQ(OPAL_OK, controller->Play());
    ASSERT_TRUE(UntilEvent("OnPlay 1 0 -1"));
    ASSERT_EQ(OPAL_OK, controller->Pause());
    Turns(5);
    // The first turn's periodic report, then the start's and the pause's; no other within 300 s.
    EXPECT_TRUE(Eventually([&] { return script.calls.Lines().size() >= 3; }));
    EXPECT_THAT(
        script.calls.Lines(),
        ElementsAre("Report 1 1000000 40 -1", "Report 0 1000000 40 -1", "Report 2 1000000 40 -1"));
    EXPECT_EQ(OPAL_OK, controller->Finalize());
    EXPECT_EQ("Close", script.calls.Lines().back());
}

TEST_F(InitializationTest, ABadSettingsFileIsNotUsed) {
    TemporaryDirectory directory;
    directory.Write("kmt_ssa_config.xml", "<global><bandwidthHint/></global>");
    directory.Write("kmt_logging_config.xml",
                    "<settings><transaction-size>abc</transaction-size></settings>");
    SetConfigurationDirectory(directory.Path());
    Serve({});
    EXPECT_EQ(OPAL_OK, Initialize());
    EXPECT_EQ(ObjectFactory::kNullSender, ObjectFactory::Instance().GetLogEventSenderKind());
    directory.Write("kmt_logging_config.xml",
                    "<settings><enable-level2>1</enable-level2></settings>");
    EXPECT_EQ(OPAL_OK, Initialize());
    EXPECT_EQ(ObjectFactory::kUploadSender, ObjectFactory::Instance().GetLogEventSenderKind());
    SetConfigurationDirectory(".");
}

}  // namespace
}  // namespace opal::test
