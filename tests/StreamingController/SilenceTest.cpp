// A server that falls silent at any point of a session holds up no operation whose work is not the
// network.
#include <boost/make_shared.hpp>

#include "ContentSession/IProtectedContent.h"
#include "StreamingController/ControllerFixture.h"

namespace opal::test {
namespace {

using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;

/// Ample for a machine under load; the promise is a tenth of it.
constexpr milliseconds kAtOnce{1000};
/// A cancel takes a second at most, and the sinks' flush is not the network's.
constexpr milliseconds kCancel{1800};

class SilenceTest : public ControllerFixture {
  protected:
    SilenceTest() { Build(true); }
    ~SilenceTest() override { controller.reset(); }

    static milliseconds Took(const std::function<void()>& operation) {
        const auto start = Clock::now();
        operation();
        return std::chrono::duration_cast<milliseconds>(Clock::now() - start);
    }

    void ExpectQueriesAtOnce() {
        EXPECT_GT(kAtOnce, Took([this] {
                      int64_t ms = 0;
                      size_t figure = 0;
                      AudioTrackInfo audio;
                      VideoLevelInfo video;
                      OPALPlayRate rate;
                      char byte = 0;
                      (void)controller->GetDuration(ms);
                      (void)controller->GetPlayRate(rate);
                      (void)controller->GetBufferedDuration(OPAL_STREAM_VIDEO, ms);
                      (void)controller->GetBufferingProgress(figure);
                      (void)controller->GetVideoLevelInfo(0, video);
                      for (size_t i = 0; i < 2; ++i)
                          (void)controller->GetAudioTrackInfo(i, audio);
                      size_t room = 1;
                      (void)controller->GetSubtitleFont(&byte, room);
                      (void)controller->GetDefaultTracks(figure, room);
                      (void)controller->SetNotify(&listener);
                  }));
    }

    FilmShape Film() {
        FilmShape film;
        film.audioTracks = 2;
        film.subtitleTracks = 2;
        film.trick = true;
        return film;
    }
};

/// Where the server falls silent, and what of the session's makes it.
struct Point {
    const char* file;
    FakeRule::Kind kind;
    int skip;
    std::function<void(TestController&)> begin;
};

std::vector<Point> Points() {
    const auto level = [](TestController& c) { c.switching->level = 1; };
    const auto trick = [](TestController& c) {
        EXPECT_EQ(OPAL_OK, c.SetPlayRate(OPAL_PLAYRATE_TWOXFF));
    };
    const auto audio = [](TestController& c) { EXPECT_EQ(OPAL_OK, c.SetAudioTrack(1)); };
    const auto subtitle = [](TestController& c) { EXPECT_EQ(OPAL_OK, c.SetSubtitleTrack(0)); };
    const auto nothing = [](TestController&) {};
    std::vector<Point> points;
    for (const int skip : {0, 1, 2, 3}) {  // header, head of the index, index, first cluster
        points.push_back({"v1", FakeRule::Kind::Read, skip, level});
        points.push_back({"t", FakeRule::Kind::Read, skip, trick});
        points.push_back({"a1", FakeRule::Kind::Read, skip, audio});
        points.push_back({"s0", FakeRule::Kind::Read, skip, subtitle});
    }
    points.push_back({"v1", FakeRule::Kind::Open, 0, level});
    points.push_back({"t", FakeRule::Kind::Open, 0, trick});
    points.push_back({"a1", FakeRule::Kind::Open, 0, audio});
    points.push_back({"s0", FakeRule::Kind::Open, 0, subtitle});
    points.push_back({"v0", FakeRule::Kind::Read, 12, nothing});
    points.push_back({"a0", FakeRule::Kind::Read, 10, nothing});
    return points;
}

TEST_F(SilenceTest, NothingButTheNetworksWorkWaitsForIt) {
    Serve(Film());
    for (const Point& point : Points()) {
        SCOPED_TRACE(testing::Message()
                     << point.file << " " << static_cast<int>(point.kind) << " " << point.skip);
        Build(true);
        listener.Clear();
        ASSERT_EQ(OPAL_OK, Initialize());
        FakeRule rule = FakeRule::Hold(Url(point.file), point.kind);
        rule.skip = point.skip;
        const uint64_t held = server->AddRule(rule);
        ASSERT_EQ(OPAL_OK, controller->Play());
        ASSERT_TRUE(listener.WaitFor("OnPlay 1 0 -1"));
        point.begin(*controller);
        ASSERT_TRUE(server->WaitForHeld(held, 1, 10000));
        ExpectQueriesAtOnce();
        EXPECT_GT(kAtOnce, Took([&] { EXPECT_EQ(OPAL_OK, controller->Pause()); }));
        EXPECT_GT(kAtOnce, Took([&] { EXPECT_EQ(OPAL_OK, controller->Stop()); }));
        EXPECT_GT(kAtOnce, Took([&] { EXPECT_EQ(OPAL_OK, controller->SetAudioTrack(0)); }));
        EXPECT_GT(kAtOnce, Took([&] { EXPECT_EQ(OPAL_OK, controller->SetSubtitleTrack(1)); }));
        EXPECT_GT(kAtOnce, Took([&] { EXPECT_EQ(OPAL_OK, controller->SetSubtitleTrack(kNone)); }));
        std::this_thread::sleep_for(milliseconds(60));  // for the loop to handle them
        ExpectQueriesAtOnce();
        int64_t position = 20000;
        EXPECT_GT(kCancel, Took([&] { EXPECT_EQ(OPAL_OK, controller->Seek(position)); }));
        for (const OPALPlayRate rate : {OPAL_PLAYRATE_FOURXFF, OPAL_PLAYRATE_ONEX})
            EXPECT_GT(kCancel, Took([&] { EXPECT_EQ(OPAL_OK, controller->SetPlayRate(rate)); }));
        ExpectQueriesAtOnce();
        server->Release(held);
        // What the silence has held up goes on, and the session with it.
        listener.Clear();
        EXPECT_EQ(OPAL_OK, controller->Seek(position));
        EXPECT_TRUE(listener.WaitForPrefix("OnPlay 1 "));
        EXPECT_EQ(0u, listener.CountPrefix("OnError"));
        EXPECT_GT(milliseconds(3000), Took([&] { (void)controller->Finalize(); }));
    }
}

TEST_F(SilenceTest, AFirstPlayThatOpensAudioHoldsNothingElseUp) {
    Serve(Film());
    ASSERT_EQ(OPAL_OK, Initialize());
    const uint64_t held = server->AddRule(FakeRule::Hold(Url("a0")));
    auto play = std::async(std::launch::async, [this] { return controller->Play(); });
    ASSERT_TRUE(server->WaitForHeld(held, 1, 10000));
    ExpectQueriesAtOnce();
    EXPECT_GT(kAtOnce, Took([&] { EXPECT_EQ(OPAL_OK, controller->Pause()); }));
    EXPECT_EQ(OPAL_OK, controller->SetAudioTrack(1));
    auto second = std::async(std::launch::async, [this] { return controller->Play(); });
    server->Release(held);
    EXPECT_EQ(OPAL_OK, play.get());
    EXPECT_EQ(OPAL_OK, second.get());
    EXPECT_TRUE(listener.WaitFor("OnAudioTrackChanged 1"));
    EXPECT_TRUE(listener.WaitForPrefix("OnPlay 1 "));
}

TEST_F(SilenceTest, SubtitlesTurnedOffAreReportedOnceAndOpenedNoFurther) {
    Serve(Film());
    ASSERT_EQ(OPAL_OK, Initialize());
    ASSERT_EQ(OPAL_OK, controller->Play());
    ASSERT_TRUE(listener.WaitFor("OnPlay 1 0 -1"));
    const uint64_t held = server->AddRule(FakeRule::Hold(Url("s0"), FakeRule::Kind::Read));
    ASSERT_EQ(OPAL_OK, controller->SetSubtitleTrack(0));
    ASSERT_TRUE(server->WaitForHeld(held, 1, 10000));
    char byte = 0;
    size_t room = 1;
    EXPECT_EQ(OPAL_ERROR_NOT_YET, controller->GetSubtitleFont(&byte, room));
    ASSERT_EQ(OPAL_OK, controller->SetSubtitleTrack(kNone));
    ASSERT_TRUE(listener.WaitFor("OnSubtitleTrackChanged -1"));
    server->Release(held);
    const size_t reads = server->Reads(Url("s0")).size();
    std::this_thread::sleep_for(milliseconds(150));
    EXPECT_EQ(reads, server->Reads(Url("s0")).size());
    EXPECT_EQ(1u, listener.Count("OnSubtitleTrackChanged -1"));
    ASSERT_EQ(OPAL_OK, controller->SetSubtitleTrack(0));  // and the same track comes again
    EXPECT_TRUE(listener.WaitFor("OnSubtitleTrackChanged 0"));
}

/// A service that answers nothing in the named call until the session's stop signal is raised.
class SilentContent : public IProtectedContent {
  public:
    SilentContent(std::string manifest, std::string silent, std::atomic<bool>& waiting)
        : m_manifest(std::move(manifest)), m_silent(std::move(silent)), m_waiting(waiting) {}
    OPALError Initialize(const qutl::MemoryBuffer<unsigned char>&, const std::string&,
                         const std::string&) override {
        return Answer("Initialize");
    }
    OPALError Finalize() override { return OPAL_OK; }
    OPALError Open(const std::string&, std::string&) override { return Answer("Open"); }
    OPALError Close() override { return OPAL_OK; }
    OPALError GetManifest(std::string& text) override {
        text = m_manifest;
        return OPAL_OK;
    }
    OPALError SetupStream() override { return Answer("SetupStream"); }
    OPALError GetPulseConfiguration(int64_t& intervalMs) override {
        intervalMs = 1;
        return OPAL_OK;
    }
    OPALError GetStreamingAlgorithmConfig(AlgorithmConfig::Global&, AlgorithmConfig::Mode&,
                                          AlgorithmConfig::Mode&) override {
        return OPAL_OK;
    }
    OPALError ReportPlayEvent(int, int64_t, int64_t, int64_t, int64_t) override {
        return Answer("ReportPlayEvent");
    }
    int32_t GetAudioAssetId() override { return 0; }
    int32_t GetSubtitleAssetId() override { return 0; }
    OPALError Prepare(const qutl::MemoryBuffer<unsigned char>&, void** session) override {
        *session = this;
        return OPAL_OK;
    }
    OPALError GetLastErrorText(qutl::MemoryBuffer<unsigned char>&) override { return OPAL_OK; }
    void SetStopSignal(const StopSignal* signal) override { m_stop = signal; }

  private:
    OPALError Answer(const std::string& call) {
        if (call != m_silent)
            return OPAL_OK;
        m_waiting = true;
        const auto end = Clock::now() + std::chrono::seconds(20);
        while (!IsRaised(m_stop) && Clock::now() < end)
            std::this_thread::sleep_for(milliseconds(2));
        return OPAL_ERROR_SERVICE_21;
    }

    const std::string m_manifest;
    const std::string m_silent;
    std::atomic<bool>& m_waiting;
    std::atomic<const StopSignal*> m_stop{nullptr};
};

struct SilentContentObject : ProtectedContentObject {
    bool Accepts(int kind) const override { return kind == 0; }
    IProtectedContent* Create() override { return new SilentContent(manifest, silent, *waiting); }
    std::string manifest;
    std::string silent;
    std::atomic<bool>* waiting = nullptr;
};

TEST_F(SilenceTest, ASilentServiceHoldsUpNeitherTheLoopNorFinalize) {
    const std::string manifest = Serve({});
    for (const char* silent : {"Initialize", "Open", "SetupStream", "ReportPlayEvent"}) {
        SCOPED_TRACE(silent);
        std::atomic<bool> waiting{false};
        const auto object = boost::make_shared<SilentContentObject>();
        object->manifest = manifest;
        object->silent = silent;
        object->waiting = &waiting;
        ObjectFactory::Instance().Register(object, true);
        Build(true);
        listener.Clear();
        auto session = std::async(std::launch::async, [this] {
            const OPALError code = controller->InitializeFromTIXString("ticket", "data", "DE", "de",
                                                                       OPAL_WRITER_MODEL_PUSH);
            return code == OPAL_OK ? controller->Play() : code;
        });
        ASSERT_TRUE(Eventually([&] { return waiting.load(); }));
        if (std::string(silent) == "ReportPlayEvent") {
            EXPECT_EQ(OPAL_OK, session.get());
            EXPECT_TRUE(listener.WaitFor("OnPlay 1 0 -1"));
        }
        EXPECT_GT(milliseconds(3000), Took([&] { EXPECT_EQ(OPAL_OK, controller->Finalize()); }));
        if (session.valid()) {
            EXPECT_EQ(OPAL_ERROR_SERVICE_21, session.get());
        }
    }
    controller.reset();
}

}  // namespace
}  // namespace opal::test
