#pragma once

#include <gmock/gmock.h>

#include <atomic>
#include <future>
#include <memory>
#include <string>
#include <vector>

#include "Common/logging/LogServer.h"
#include "StreamSwitchingAlgorithm/AlgorithmConfig.h"
#include "StreamingController/PlayReportConfig.h"
#include "StreamingController/StreamingController.h"
#include "StreamingReader/ReaderFixture.h"
#include "support/FakePlatform.h"
#include "support/RecordingListener.h"

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
    void SetAudioBitrate(int rate) override { audioBitrate = rate; }
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
    int audioBitrate = -1;
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

/// A controller on fake sinks and a fake decision, whose loop the test steps unless `threaded`.
class TestController : public StreamingController {
  public:
    TestController(CallJournal& journal, bool threaded)
        : m_journal(journal), m_threaded(threaded) {}
    ~TestController() override { EXPECT_NE(OPAL_ERROR_NOT_YET, Finalize()); }

    void Turn() {
        if (!IsTerminated())
            RunTurn(state);
    }
    using StreamingController::GetState;
    using StreamingController::LeaveLoop;
    using StreamingController::LoopState;
    using StreamingController::Post;

    LoopState state;
    HHABARCH arch = nullptr;
    FakeSwitching* switching = nullptr;
    FakePlatform* video = nullptr;
    FakePlatform* audio = nullptr;
    FakePlatform* subtitle = nullptr;
    IPlatformSubtitleNotify* subtitleNotify = nullptr;
    bool hasSubtitleSink = true;
    InitialBandwidthMode mode = InitialBandwidthMode_LowestLevel;
    int startLevel = 0;
    OPALError audioConfigure = OPAL_OK;
    OPALError videoConfigure = OPAL_OK;
    std::string videoConfiguration;
    std::string subtitleConfiguration;
    std::function<FakePlatform*(const std::string&)> newSink;

  protected:
    IStreamSwitchingController* NewSwitchingController() override {
        switching = new FakeSwitching;
        switching->mode = mode;
        switching->level = startLevel;
        return switching;
    }
    opal::VideoSink NewVideoSink(HHABARCH hArch, HHABTIMER) override {
        arch = hArch;
        video = MakeSink("video");
        opal::VideoSink sink;
        sink.platform = video;
        sink.configure = [this](const std::string& codec, int width, int height, int64_t bitrate,
                                const void*, size_t, bool first) {
            videoConfiguration = codec + " " + std::to_string(width) + "x" +
                                 std::to_string(height) + " " + std::to_string(bitrate) +
                                 (first ? " first" : "");
            return videoConfigure;
        };
        return sink;
    }
    opal::AudioSink NewAudioSink(HHABARCH, HHABTIMER) override {
        audio = MakeSink("audio");
        opal::AudioSink sink;
        sink.platform = audio;
        sink.configure = [this](const std::string&, uint32_t, uint32_t, const uint8_t*, size_t,
                                bool) { return audioConfigure; };
        return sink;
    }
    opal::SubtitleSink NewSubtitleSink(HHABARCH hArch, HHABTIMER hTimer) override {
        if (!hasSubtitleSink)
            return StreamingController::NewSubtitleSink(hArch, hTimer);
        subtitle = MakeSink("subtitle");
        opal::SubtitleSink sink;
        sink.platform = subtitle;
        sink.configure = [this](const std::string& codec, int, int, const void*, size_t size) {
            subtitleConfiguration = codec + " font " + std::to_string(size);
            return size != 0 ? OPAL_OK : OPAL_ERROR_GENERAL;
        };
        sink.setNotify = [this](IPlatformSubtitleNotify* notify) { subtitleNotify = notify; };
        return sink;
    }
    void StartLoop() override {
        if (m_threaded)
            StreamingController::StartLoop();
    }

  private:
    FakePlatform* MakeSink(const std::string& name) {
        return newSink ? newSink(name) : new FakePlatform(name, &m_journal);
    }

    CallJournal& m_journal;
    const bool m_threaded;
};

/// What a presentation holds; every cluster lasts two seconds, a trick cluster six.
struct FilmShape {
    int levels = 2;
    int audioTracks = 1;
    int subtitleTracks = 0;
    bool trick = false;
    int clusters = 6;
    size_t subtitleHeader = 0;  ///< 0: as large as it is
    size_t blockBytes = 100;    ///< of video
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

    /// Serves the film; the manifest lies at kFilm.
    void Serve(const FilmShape& film) {
        std::string body;
        layouts.clear();
        for (int i = 0; i < film.levels; ++i)
            body += Video("v" + std::to_string(i), (i + 1) * 500000, film.clusters, film.blockBytes,
                          false);
        if (film.trick)
            body += "<switch>" + Video("t", 100000, 2, 100, true) + "</switch>";
        for (int i = 0; i < film.audioTracks; ++i)
            body += Track("audio", "a" + std::to_string(i), package::TrackKind::Audio,
                          film.clusters, 0, size_t{40} + static_cast<size_t>(i));
        for (int i = 0; i < film.subtitleTracks; ++i)
            body += Track("textstream", "s" + std::to_string(i), package::TrackKind::Subtitle,
                          film.clusters, film.subtitleHeader, size_t{60} + static_cast<size_t>(i));
        server->AddFile(kFilm, "<smil><body><par>" + body + "</par></body></smil>");
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
    /// Playing, with all events so far forgotten.
    void StartPlaying(const FilmShape& film) {
        Start(film);
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
    bool UntilHeld(uint64_t rule) {
        return Until([&] { return server->WaitForHeld(rule, 1, 0); });
    }
    void Turns(int count) {
        for (int i = 0; i < count; ++i)
            controller->Turn();
    }
    /// Reads of the clusters of a stream.
    size_t ClusterReads(const std::string& name) const {
        size_t count = 0;
        for (const std::string& read : server->Reads(Url(name)))
            for (const package::ClusterLayout& cluster : layouts.at(name).clusters)
                count += read == RangeOf(cluster) ? 1 : 0;
        return count;
    }
    bool HasRead(const std::string& name, size_t cluster) const {
        const auto reads = server->Reads(Url(name));
        return std::count(reads.begin(), reads.end(),
                          RangeOf(layouts.at(name).clusters.at(cluster))) > 0;
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
    size_t Store(const std::string& name, const MediaShape& shape) {
        const package::BuiltFile file = MakeMedia(shape);
        server->AddFile(Url(name), std::string(file.bytes.begin(), file.bytes.end()));
        layouts[name] = file.layout;
        return static_cast<size_t>(file.layout.headerSize);
    }
    static std::string Param(const std::string& name, size_t value) {
        return "<param name='" + name + "' value='" + std::to_string(value) + "'/>";
    }
    std::string Video(const std::string& name, int bitrate, int clusters, size_t blockBytes,
                      bool trick) {
        MediaShape shape;
        shape.blockBytes = blockBytes;
        shape.clusters = clusters;
        shape.trick = trick;
        if (trick) {
            shape.clusterMs = 6000;
            shape.blocks = 6;
        }
        const size_t header = Store(name, shape);
        return "<video src='" + Url(name) + "' systemBitrate='" + std::to_string(bitrate) +
               "' width='" + std::to_string(bitrate / 1000) + "' height='360'" +
               (trick ? " systemProfile='TavoPlusTrickTrack'" : "") + ">" +
               Param("header-request", header) + Param("vbv", 1000000) + "</video>";
    }
    std::string Track(const std::string& element, const std::string& name, package::TrackKind kind,
                      int clusters, size_t headerSize, size_t assetId) {
        MediaShape shape;
        shape.kind = kind;
        shape.clusters = clusters;
        const size_t header = Store(name, shape);
        return "<" + element + " src='" + Url(name) + "' xml:lang='eng'>" +
               Param("header-request", headerSize != 0 ? headerSize : header) +
               Param("assetId", assetId) + "</" + element + ">";
    }
};

}  // namespace opal::test
