// A server that falls silent at any point of a session holds up no operation whose work is not the
// network.
#include "StreamingController/ControllerFixture.h"

namespace opal::test {
namespace {

using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;

/// The promise, in turns; and what it may be in time on a machine under load.
constexpr int kAtOnceTurns = 100;
constexpr milliseconds kAtOnce{1000};
/// A cancel takes a second at most, and the sinks' flush is not the network's.
constexpr milliseconds kCancel{1800};

/// Counts how often a thread that sleeps for a millisecond has got its turn. While other programs
/// have the processor, that tells better than a clock what an operation waits for.
class TurnCounter {
  public:
    ~TurnCounter() {
        m_over = true;
        m_thread.join();
    }
    int Count() const { return m_count; }

  private:
    std::atomic<bool> m_over{false};
    std::atomic<int> m_count{0};
    std::thread m_thread{[this] {
        for (; !m_over; ++m_count)
            std::this_thread::sleep_for(milliseconds(1));
    }};
};

class SilenceTest : public ControllerFixture {
  protected:
    SilenceTest() { Build(true); }
    ~SilenceTest() override {
        controller.reset();
        RecordProperty("longest_turns", longest);
    }

    static milliseconds Took(const std::function<void()>& operation) {
        const auto start = Clock::now();
        operation();
        return std::chrono::duration_cast<milliseconds>(Clock::now() - start);
    }

    void ExpectAtOnce(const std::function<void()>& operation) {
        const int before = turns.Count();
        EXPECT_GT(kAtOnce, Took(operation));
        longest = std::max(longest, turns.Count() - before);
        EXPECT_GT(kAtOnceTurns, turns.Count() - before);
    }
    void ExpectQueriesAtOnce() {
        ExpectAtOnce([this] {
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
        });
    }

    FilmShape Film() {
        FilmShape film;
        film.audioTracks = 2;
        film.subtitleTracks = 2;
        film.trick = true;
        return film;
    }

    TurnCounter turns;
    int longest = 0;  ///< that an operation took that promises to return at once
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
        ExpectAtOnce([&] { EXPECT_EQ(OPAL_OK, controller->Pause()); });
        ExpectAtOnce([&] { EXPECT_EQ(OPAL_OK, controller->Stop()); });
        ExpectAtOnce([&] { EXPECT_EQ(OPAL_OK, controller->SetAudioTrack(0)); });
        ExpectAtOnce([&] { EXPECT_EQ(OPAL_OK, controller->SetSubtitleTrack(1)); });
        ExpectAtOnce([&] { EXPECT_EQ(OPAL_OK, controller->SetSubtitleTrack(kNone)); });
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
    ExpectAtOnce([&] { EXPECT_EQ(OPAL_OK, controller->Pause()); });
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

}  // namespace
}  // namespace opal::test
