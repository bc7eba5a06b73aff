#pragma once

#include <gmock/gmock.h>

#include <atomic>
#include <future>
#include <memory>
#include <string>
#include <vector>

#include "PlatformAdapter/Common/ISinks.h"
#include "StreamSwitchingAlgorithm/AlgorithmConfig.h"
#include "StreamingController/PlayReportConfig.h"
#include "StreamingController/StreamingController.h"
#include "StreamingReader/ReaderFixture.h"
#include "support/FakePlatform.h"
#include "support/RecordingListener.h"
#include "support/VirtualClock.h"

namespace opal::test {

constexpr size_t kNone = static_cast<size_t>(-1);

/// A switching controller that decides what the test says. Unless told otherwise a stream has
/// enough from its first report of 2000 ms to the next restart.
class FakeSwitching : public IStreamSwitchingController, private StreamSwitchingNotify::Handler {
  public:
    ~FakeSwitching() override { m_notify.Clear(); }

    int GetCurrentLevel() override {
        ++queries;
        return level;
    }
    int GetTrickLevel() override { return 0; }
    OPALError SetLevels(const std::vector<boost::shared_ptr<IVideoLevel>>& levels,
                        const std::vector<boost::shared_ptr<IAudioTrack>>&) override {
        levelCount = levels.size();
        return OPAL_OK;
    }
    int GetVideoExcessBuffer() override { return 0; }
    int GetAudioExcessBuffer() override { return 0; }
    bool IsVideoBuffered() override { return buffered[0] >= requirementMs; }
    bool IsAudioBuffered() override { return buffered[1] >= requirementMs; }
    InitialBandwidthMode GetInitialBandwidthMode() override { return mode; }
    int GetBandwidth() override { return 0; }
    void SetBandwidth(int value) override { bandwidth = value; }
    void SetStartupTime(int64_t ms) override { startupMs = ms; }
    StreamSwitchingNotify* GetNotify() override { return &m_notify; }
    int64_t GetMaxBuffer() override { return maxBuffer; }
    void SetAudioBitrate(int) override {}
    void GetBufferRequirement(int& ms, OPALStreamType) override { ms = requirementMs; }
    void SetClusterIndexes(const std::vector<IClusterIndex*>*) override {}

    std::atomic<int> level{0};
    std::atomic<int> queries{0};
    std::atomic<int> requirementMs{2000};
    std::atomic<int64_t> maxBuffer{-1};
    std::atomic<int64_t> buffered[3] = {};
    std::atomic<int> restarts[3] = {};
    InitialBandwidthMode mode = InitialBandwidthMode_LowestLevel;
    int bandwidth = -1;
    int64_t startupMs = -1;
    size_t levelCount = 0;

  private:
    void eventHandler(OPALStreamType type, StreamSwitchingNotify::event what,
                      const StreamSwitchingNotify::Message& message) override {
        const bool restart = what == StreamSwitchingNotify::EVENT_RESTART;
        buffered[type] = restart ? 0 : message.bufferedDuration;
        restarts[type] += restart ? 1 : 0;
    }
    void eventHandler(OPALStreamType, StreamSwitchingNotify::event, int, int) override {}

    StreamSwitchingNotify m_notify{this};
};

/// A sink of any kind, whose end, too, is in the journal. What it is configured with is the test's
/// to see, and what it answers the test's to say.
class SessionSink : public FakePlatform,
                    public IVideoSink,
                    public IAudioSink,
                    public ISubtitleSink {
  public:
    SessionSink(const std::string& name, CallJournal& journal)
        : FakePlatform(name, &journal), m_name(name), m_journal(journal) {}
    ~SessionSink() override { m_journal.Add(m_name + " gone"); }

    OPALError Configure(const std::string& codec, int width, int height, int64_t bitrate,
                        const void*, size_t, bool first) override {
        return onConfigure(codec + " " + std::to_string(width) + "x" + std::to_string(height) +
                               " " + std::to_string(bitrate) + (first ? " first" : ""),
                           0);
    }
    OPALError Configure(const std::string& codec, uint32_t, uint32_t, const uint8_t*, size_t size,
                        bool) override {
        return onConfigure(codec, size);
    }
    OPALError Configure(const std::string& codec, int, int, const void*, size_t size) override {
        return onConfigure(codec + " font " + std::to_string(size), size);
    }
    void SetNotify(IPlatformSubtitleNotify* notify) override { listener = notify; }

    std::function<OPALError(const std::string& configuration, size_t size)> onConfigure;
    IPlatformSubtitleNotify* listener = nullptr;

  private:
    const std::string m_name;
    CallJournal& m_journal;
};

/// A controller on fake sinks and a fake decision, whose loop the test steps unless `threaded`.
class TestController : public StreamingController {
  public:
    TestController(CallJournal& journal, bool threaded)
        : m_journal(journal), m_threaded(threaded) {}
    ~TestController() override { (void)Finalize(); }

    void Turn() {
        if (!IsTerminated())
            RunTurn(state);
    }
    using StreamingController::GetState;
    using StreamingController::LeaveLoop;
    using StreamingController::LoopState;

    LoopState state;
    HHABARCH arch = nullptr;
    FakeSwitching* switching = nullptr;
    FakePlatform* video = nullptr;
    FakePlatform* audio = nullptr;
    SessionSink* subtitle = nullptr;
    bool hasSubtitleSink = true;
    InitialBandwidthMode mode = InitialBandwidthMode_LowestLevel;
    int startLevel = 0;
    OPALError audioConfigure = OPAL_OK;
    OPALError videoConfigure = OPAL_OK;
    std::string videoConfiguration;
    std::string subtitleConfiguration;
    std::vector<size_t> buffers;  ///< capacities, in the order of creation

  protected:
    IClusterBuffer* NewClusterBuffer(size_t capacity) override {
        buffers.push_back(capacity);
        return StreamingController::NewClusterBuffer(capacity);
    }
    IStreamSwitchingController* NewSwitchingController() override {
        switching = new FakeSwitching;
        switching->mode = mode;
        switching->level = startLevel;
        return switching;
    }
    IPlatform* NewVideoSink(HHABARCH hArch, HHABTIMER) override {
        arch = hArch;
        auto* sink = new SessionSink("video", m_journal);
        sink->onConfigure = [this](const std::string& configuration, size_t) {
            videoConfiguration = configuration;
            return videoConfigure;
        };
        video = sink;
        return sink;
    }
    IPlatform* NewAudioSink(HHABARCH, HHABTIMER) override {
        auto* sink = new SessionSink("audio", m_journal);
        sink->onConfigure = [this](const std::string&, size_t) { return audioConfigure; };
        audio = sink;
        return sink;
    }
    IPlatform* NewSubtitleSink(HHABARCH, HHABTIMER) override {
        if (!hasSubtitleSink)
            return nullptr;
        auto* sink = new SessionSink("subtitle", m_journal);
        sink->onConfigure = [this](const std::string& configuration, size_t size) {
            subtitleConfiguration = configuration;
            return size != 0 ? OPAL_OK : OPAL_ERROR_GENERAL;
        };
        subtitle = sink;
        return sink;
    }
    void StartLoop() override {
        if (m_threaded)
            StreamingController::StartLoop();
    }

  private:
    CallJournal& m_journal;
    const bool m_threaded;
};

/// Time that only the test moves: sleeps are real, and short.
class HandClock : public VirtualClock {
  public:
    void SleepMs(int64_t) override { std::this_thread::sleep_for(std::chrono::milliseconds(1)); }
};

/// What a presentation holds; every cluster lasts two seconds, a trick cluster six.
struct FilmShape {
    int levels = 2;
    int audioTracks = 1;
    int subtitleTracks = 0;
    bool trick = false;
    int clusters = 60;
    size_t subtitleHeader = 0;  ///< 0: as large as it is
};

class ControllerFixture : public testing::Test {
  protected:
    ControllerFixture() {
        RegisterFakeHTTP(server);
        AlgorithmConfig::Instance().Reset();
        PlayReportConfig::Instance().Reset();
        Build(false);
    }
    ~ControllerFixture() override {
        controller.reset();
        ObjectFactory::Instance().Reset();
    }

    void Build(bool threaded) {
        controller = std::make_unique<TestController>(journal, threaded);
        (void)controller->SetNotify(&listener);
    }

    /// Serves the film; the manifest lies at kFilm, and is what this answers.
    std::string Serve(const FilmShape& film) {
        MediaShape shape;
        shape.clusters = film.clusters;
        shape.blockBytes = 400;  // a level is large enough for a probe
        std::string body;
        layouts.clear();
        for (int i = 1; i <= film.levels; ++i)
            body += Entry("video", "v" + std::to_string(i - 1), shape,
                          "systemBitrate='" + std::to_string(i * 500000) + "' width='" +
                              std::to_string(i * 500) + "' height='360'");
        if (film.trick)
            body += "<switch>" +
                    Entry("video", "t", {package::TrackKind::Video, 4, 6, 100, 6000, true},
                          "systemProfile='TavoPlusTrickTrack'") +
                    "</switch>";
        shape.kind = package::TrackKind::Audio;
        for (int i = 0; i < film.audioTracks; ++i)
            body += Entry("audio", "a" + std::to_string(i), shape, "xml:lang='eng'", 0, 40 + i);
        shape.kind = package::TrackKind::Subtitle;
        for (int i = 0; i < film.subtitleTracks; ++i)
            body += Entry("textstream", "s" + std::to_string(i), shape, "xml:lang='eng'",
                          film.subtitleHeader, 50 + i);
        const std::string manifest = "<smil><body><par>" + body + "</par></body></smil>";
        server->AddFile(kFilm, manifest);
        return manifest;
    }
    OPALError Initialize() {
        return controller->InitializeFromSMILFile(kFilm, "DE", "de", OPAL_WRITER_MODEL_PUSH);
    }
    void Start(const FilmShape& film) {
        Serve(film);
        ASSERT_EQ(OPAL_OK, Initialize());
        server->ClearLog();
        listener.Clear();
    }
    /// Playing, with all events so far forgotten. Video buffers at most `maxBufferMs`; -1:
    /// anything.
    void StartPlaying(const FilmShape& film, int64_t maxBufferMs = -1) {
        Start(film);
        controller->switching->maxBuffer = maxBufferMs;
        ASSERT_EQ(OPAL_OK, controller->Play());
        ASSERT_TRUE(UntilEvent("OnPlay 1 " + std::string(film.audioTracks ? "0" : "-1") + " -1"));
        Forget();
    }
    void Forget() {
        listener.Clear();
        journal.Clear();
    }
    /// Steps the loop until `condition` holds, ten seconds at most.
    bool Until(const std::function<bool()>& condition) {
        return Eventually([&] {
            if (condition())
                return true;
            controller->Turn();
            return condition();
        });
    }
    bool UntilEvent(const std::string& line) {
        return Until([&] { return listener.Count(line) > 0; });
    }
    /// Holds a file's reads from the number `skip` on, each after its first bytes.
    uint64_t HoldReads(const std::string& name, int skip = 0, int64_t bytesFirst = 0) {
        FakeRule rule = FakeRule::Hold(Url(name), FakeRule::Kind::Read);
        rule.skip = skip;
        rule.bytesFirst = bytesFirst;
        return server->AddRule(rule);
    }
    bool UntilHeld(uint64_t rule) {
        return Until([&] { return server->WaitForHeld(rule, 1, 0); });
    }
    void Turns(int count) {
        for (int i = 0; i < count; ++i)
            controller->Turn();
    }
    /// How often each cluster of a stream has been read, in all.
    size_t ClusterReads(const std::string& name) const {
        size_t count = 0;
        for (size_t i = 0; i < layouts.at(name).clusters.size(); ++i)
            count += ClusterReads(name, i);
        return count;
    }
    size_t ClusterReads(const std::string& name, size_t cluster) const {
        const auto reads = server->Reads(Url(name));
        return static_cast<size_t>(
            std::count(reads.begin(), reads.end(), RangeOf(layouts.at(name).clusters.at(cluster))));
    }
    bool HasRead(const std::string& name, size_t cluster) const {
        return ClusterReads(name, cluster) > 0;
    }
    /// Times of the blocks that a sink has been given.
    static std::vector<int64_t> Times(const FakePlatform& sink) {
        std::vector<int64_t> times;
        for (const FakePlatform::Block& block : sink.Blocks())
            times.push_back(block.time);
        return times;
    }
    static std::string Url(const std::string& name) { return "http://host/" + name; }

    static constexpr char kFilm[] = "http://host/film.smil";
    const std::shared_ptr<FakeHTTPServer> server = std::make_shared<FakeHTTPServer>();
    std::map<std::string, package::FileLayout> layouts;
    CallJournal journal;
    RecordingListener listener;
    std::unique_ptr<TestController> controller;

  private:
    /// Serves a file and answers its place in the manifest.
    std::string Entry(const std::string& element, const std::string& name, const MediaShape& shape,
                      const std::string& attributes, size_t headerSize = 0, int assetId = 0) {
        const package::BuiltFile file = MakeMedia(shape);
        server->AddFile(Url(name), std::string(file.bytes.begin(), file.bytes.end()));
        layouts[name] = file.layout;
        const auto header = headerSize != 0 ? headerSize : file.layout.headerSize;
        return "<" + element + " src='" + Url(name) + "' " + attributes +
               "><param name='header-request' value='" + std::to_string(header) +
               "'/><param name='assetId' value='" + std::to_string(assetId) + "'/></" + element +
               ">";
    }
};

}  // namespace opal::test
