#include "PlatformAdapter/Mstar/src/HABArchRecord.h"
#include "StreamingController/ControllerFixture.h"
#include "support/ScaledClock.h"

namespace opal::test {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

/// A sink that plays: its position runs with the clock from the first block on, as far as it has
/// blocks, and it takes two seconds ahead of that.
class PlayingSink : public FakePlatform {
  public:
    using FakePlatform::FakePlatform;

    OPALError Queue(void* data, size_t size, int64_t time, int64_t duration) override {
        {
            std::lock_guard<std::mutex> lock(m_mutex);
            if (m_empty)
                m_position = m_end = time;
            if (time - Position() > 2000)
                return OPAL_ERROR_NOT_YET;
            m_empty = false;
            m_end = time + duration;
        }
        return FakePlatform::Queue(data, size, time, duration);
    }
    OPALError Flush() override {
        {
            std::lock_guard<std::mutex> lock(m_mutex);
            m_empty = true;
            m_end = m_position;
        }
        return FakePlatform::Flush();
    }
    OPALError SetPaused(bool paused) override {
        {
            std::lock_guard<std::mutex> lock(m_mutex);
            (void)Position();
            m_running = !paused;
        }
        return FakePlatform::SetPaused(paused);
    }
    OPALError GetPosition(int64_t& ms) override {
        std::lock_guard<std::mutex> lock(m_mutex);
        ms = Position();
        return OPAL_OK;
    }
    OPALError GetBufferedDuration(int64_t& ms) override {
        std::lock_guard<std::mutex> lock(m_mutex);
        ms = m_end - Position();
        return OPAL_OK;
    }

  private:
    int64_t Position() {
        const auto now = Now();
        if (m_running)
            m_position = std::min(m_end, m_position + ToMilliseconds(now - m_last));
        m_last = now;
        return m_position;
    }

    std::mutex m_mutex;
    bool m_empty = true;
    bool m_running = false;
    int64_t m_position = 0;
    int64_t m_end = 0;
    boost::posix_time::ptime m_last = Now();
};

class ShutdownTest : public ControllerFixture {
  protected:
    void BuildThreaded() {
        Build(true);
        controller->newSink = [](const std::string& name) { return new PlayingSink(name); };
    }
    /// Finalizes and says whether that took less than three seconds.
    bool FinalizePromptly() {
        const auto before = std::chrono::steady_clock::now();
        EXPECT_EQ(OPAL_OK, controller->Finalize());
        return std::chrono::steady_clock::now() - before < std::chrono::seconds(3);
    }

    ScaledClock clock{10};
};

TEST_F(ShutdownTest, AWholeSessionTwiceInOneProcess) {
    BuildThreaded();
    FilmShape film;
    film.clusters = 10;
    Serve(film);
    for (int session = 0; session < 2; ++session) {
        (void)controller->SetNotify(&listener);
        listener.Clear();
        ASSERT_EQ(OPAL_OK, Initialize());
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
        EXPECT_THAT(listener.Lines(), ElementsAre("OnVideoLevelChanged 2 0 0"));
        ASSERT_EQ(OPAL_OK, controller->Play());
        ASSERT_TRUE(listener.WaitFor("OnPlay 1 0 -1"));
        ASSERT_EQ(OPAL_OK, controller->Pause());
        ASSERT_TRUE(listener.WaitFor("OnPause"));
        ASSERT_EQ(OPAL_OK, controller->Play());
        ASSERT_TRUE(listener.WaitFor("OnPlay 1 0 -1", 2));
        int64_t position = 15000;
        ASSERT_EQ(OPAL_OK, controller->Seek(position));
        ASSERT_TRUE(listener.WaitFor("OnPlay 1 0 -1", 3));
        position = 6000;
        ASSERT_EQ(OPAL_OK, controller->Seek(position));
        ASSERT_TRUE(listener.WaitFor("OnPlay 1 0 -1", 4));
        ASSERT_TRUE(listener.WaitFor("OnEndOfStream"));
        ASSERT_EQ(OPAL_OK, controller->Stop());
        ASSERT_TRUE(listener.WaitFor("OnStop"));
        EXPECT_TRUE(FinalizePromptly());
        EXPECT_THAT(
            listener.Lines(),
            ElementsAre("OnVideoLevelChanged 2 0 0", "OnPlay 1 0 -1", "OnPause", "OnPlay 1 0 -1",
                        "OnPlay 1 0 -1", "OnPlay 1 0 -1", "OnEndOfStream", "OnStop", "OnStop"));
        int64_t last = 0;
        for (const RecordingListener::Position& p : listener.Positions())
            last = std::max(last, p.ms);
        EXPECT_GE(last, 15000);
        EXPECT_LE(last, 20000);
    }
}

/// Finalize comes while another thread waits in the named place for a server that says nothing.
struct Stall {
    const char* url;
    FakeRule::Kind kind;
    int skip;
    InitialBandwidthMode mode;
};

class StallTest : public ShutdownTest, public testing::WithParamInterface<Stall> {};

TEST_P(StallTest, FinalizeDoesNotWaitForTheNetwork) {
    const Stall& stall = GetParam();
    BuildThreaded();
    controller->mode = stall.mode;
    FilmShape film;
    film.levels = 3;
    film.clusters = 100;
    film.subtitleTracks = 1;
    Serve(film);
    FakeRule rule = FakeRule::Hold(stall.url, stall.kind);
    rule.skip = stall.skip;
    const uint64_t held = server->AddRule(rule);
    auto application = std::async(std::launch::async, [&] {
        if (Initialize() == OPAL_OK && controller->Play() == OPAL_OK) {
            (void)controller->SetSubtitleTrack(0);
            (void)listener.WaitFor("OnStop");
        }
    });
    ASSERT_TRUE(server->WaitForHeld(held, 1, 10000));
    EXPECT_TRUE(FinalizePromptly());
    application.wait();
    EXPECT_TRUE(FinalizePromptly());
    for (const std::string& line : listener.Lines())
        EXPECT_THAT(line, testing::Not(testing::StartsWith("OnError")));
    EXPECT_LE(listener.Count("OnStop"), 1u);
    EXPECT_EQ(0u, server->OpenFiles());
}

INSTANTIATE_TEST_SUITE_P(
    Places, StallTest,
    testing::Values(
        Stall{"http://host/film.smil", FakeRule::Kind::Open, 0, InitialBandwidthMode_LowestLevel},
        Stall{"http://host/film.smil", FakeRule::Kind::Read, 0, InitialBandwidthMode_LowestLevel},
        Stall{"http://host/v0", FakeRule::Kind::Read, 0, InitialBandwidthMode_BandwidthProbe},
        Stall{"http://host/v0", FakeRule::Kind::Open, 0, InitialBandwidthMode_LowestLevel},
        Stall{"http://host/v0", FakeRule::Kind::Read, 2, InitialBandwidthMode_LowestLevel},
        Stall{"http://host/a0", FakeRule::Kind::Open, 0, InitialBandwidthMode_LowestLevel},
        Stall{"http://host/a0", FakeRule::Kind::Read, 4, InitialBandwidthMode_LowestLevel},
        Stall{"http://host/v0", FakeRule::Kind::Read, 5, InitialBandwidthMode_LowestLevel},
        Stall{"http://host/s0", FakeRule::Kind::Open, 0, InitialBandwidthMode_LowestLevel},
        Stall{"http://host/s0", FakeRule::Kind::Read, 1, InitialBandwidthMode_LowestLevel}));

// As a set does that takes no more payloads, or a text that waits for a picture.
TEST_F(ShutdownTest, FinalizeEndsAWaitInsideASink) {
    BuildThreaded();
    Serve({});
    ASSERT_EQ(OPAL_OK, Initialize());
    std::atomic<int> ended{-1};
    controller->video->SetQueueHook([&, arch = controller->arch](const FakePlatform::Block&) {
        ended = 0;
        ended = Eventually([arch] { return arch->closing == 1; });
    });
    ASSERT_EQ(OPAL_OK, controller->Play());
    ASSERT_TRUE(Eventually([&] { return ended == 0; }));
    EXPECT_TRUE(FinalizePromptly());
    EXPECT_EQ(1, ended);
}

TEST_F(ShutdownTest, FinalizeAtAnyMomentLeavesNothing) {
    BuildThreaded();
    FilmShape film;
    film.clusters = 30;
    film.trick = true;
    film.subtitleTracks = 1;
    Serve(film);
    for (int round = 0; round < 40; ++round) {
        (void)controller->SetNotify(&listener);
        listener.Clear();
        ASSERT_EQ(OPAL_OK, Initialize());
        ASSERT_EQ(OPAL_OK, controller->Play());
        if (round % 4 == 1)
            (void)controller->SetSubtitleTrack(0);
        if (round % 4 == 2)
            (void)controller->SetPlayRate(OPAL_PLAYRATE_EIGHTXFF);
        int64_t position = 30000;
        if (round % 4 == 3)
            (void)controller->Seek(position);
        std::this_thread::sleep_for(std::chrono::microseconds(700 * round));
        ASSERT_TRUE(FinalizePromptly());
        ASSERT_EQ(1u, listener.Count("OnStop"));
        ASSERT_EQ("OnStop", listener.Lines().back());
        ASSERT_EQ(0u, server->OpenFiles());
        ASSERT_EQ(OPAL_ERROR_TERMINATED, controller->Play());
    }
}

TEST_F(ShutdownTest, AccessorsMeetASessionThatComesAndGoes) {
    BuildThreaded();
    Serve({});
    ASSERT_EQ(OPAL_OK, Initialize());
    ASSERT_EQ(OPAL_OK, controller->Play());
    ASSERT_TRUE(listener.WaitFor("OnPlay 1 0 -1"));
    std::atomic<bool> done{false};
    auto accessors = std::async(std::launch::async, [&] {
        while (!done) {
            int64_t ms = 0;
            size_t figure = 0;
            VideoLevelInfo level;
            AudioTrackInfo track;
            qutl::MemoryBuffer<unsigned char> data;
            uint32_t number = 0;
            (void)controller->GetVideoLevelInfo(0, level);
            (void)controller->GetAudioTrackInfo(0, track);
            (void)controller->GetCurrentVideoLevel();
            (void)controller->GetBufferedDuration(OPAL_STREAM_AUDIO, ms);
            (void)controller->GetBufferingProgress(figure);
            (void)controller->PullVideoBlock(data, ms, ms, number, number);
            (void)controller->GetDefaultTracks(figure, figure);
        }
    });
    for (int round = 0; round < 10; ++round) {
        EXPECT_TRUE(FinalizePromptly());
        ASSERT_EQ(OPAL_OK, Initialize());
        ASSERT_EQ(OPAL_OK, controller->Play());
    }
    done = true;
    accessors.wait();
}

TEST_F(ShutdownTest, AListenerCannotFinalizeButMayCallBack) {
    BuildThreaded();
    FilmShape film;
    film.trick = true;
    Serve(film);
    std::atomic<int> refused{0};
    listener.onEvent = [&](const std::string& line) {
        refused += controller->Finalize() == OPAL_ERROR_GENERAL ? 1 : 0;
        EXPECT_EQ(OPAL_ERROR_GENERAL, Initialize());
        if (line == "OnPlay 1 0 -1") {
            EXPECT_EQ(OPAL_OK, controller->Pause());
        }
    };
    ASSERT_EQ(OPAL_OK, Initialize());
    ASSERT_EQ(OPAL_OK, controller->Play());
    ASSERT_TRUE(listener.WaitFor("OnPause"));
    EXPECT_TRUE(FinalizePromptly());
    EXPECT_EQ(4, refused);  // of the level, the start, the pause and the stop
}

TEST_F(ShutdownTest, AnExceptionOfTheListenerEndsTheSessionInOrder) {
    BuildThreaded();
    Serve({});
    listener.onEvent = [&](const std::string& line) {
        if (line == "OnPlay 1 0 -1")
            throw 7;  // no std::exception
    };
    ASSERT_EQ(OPAL_OK, Initialize());
    ASSERT_EQ(OPAL_OK, controller->Play());
    ASSERT_TRUE(listener.WaitFor("OnStop"));
    EXPECT_EQ(1u, listener.Count("OnError -1 ''"));
    EXPECT_TRUE(FinalizePromptly());
}

TEST_F(ShutdownTest, ASecondInitializeEndsTheFirstSession) {
    BuildThreaded();
    FilmShape film;
    film.clusters = 30;
    Serve(film);
    ASSERT_EQ(OPAL_OK, Initialize());
    ASSERT_EQ(OPAL_OK, controller->Play());
    ASSERT_TRUE(listener.WaitFor("OnPlay 1 0 -1"));
    const FakeSwitching* before = controller->switching;
    film.levels = 1;
    Serve(film);
    listener.Clear();
    ASSERT_EQ(OPAL_OK, Initialize());
    EXPECT_EQ(before, controller->switching);
    EXPECT_EQ(1u, controller->switching->levelCount);
    EXPECT_THAT(listener.Lines(), ElementsAre("OnStop", "OnVideoLevelChanged 1 0 0"));
    EXPECT_EQ(0u, controller->video->BlockCount());
    ASSERT_EQ(OPAL_OK, controller->Play());
    EXPECT_TRUE(listener.WaitFor("OnPlay 1 0 -1"));
}

TEST_F(ShutdownTest, ThePullModelYieldsTheSameBlocks) {
    Build(true);
    Serve({});
    ASSERT_EQ(OPAL_OK,
              controller->InitializeFromSMILFile(kFilm, "DE", "de", OPAL_WRITER_MODEL_PULL));
    ASSERT_EQ(OPAL_OK, controller->Play());
    ASSERT_TRUE(listener.WaitFor("OnPlay 1 0 -1"));
    std::vector<int64_t> times;
    qutl::MemoryBuffer<unsigned char> data;
    int64_t time = 0;
    int64_t duration = 0;
    uint32_t level = 0;
    uint32_t flags = 0;
    ASSERT_TRUE(Eventually([&] {
        const OPALError code = controller->PullVideoBlock(data, time, duration, level, flags);
        if (code == OPAL_OK)
            times.push_back(time);
        return code == OPAL_ERROR_END_OF_DATA;
    }));
    ASSERT_EQ(24u, times.size());
    for (size_t i = 0; i < times.size(); ++i)
        EXPECT_EQ(static_cast<int64_t>(i) * 500, times[i]);
    EXPECT_TRUE(data.IsEmpty());
    EXPECT_EQ(OPAL_OK, controller->PullAudioBlock(data, time, duration, level, flags));
    EXPECT_EQ(OPAL_ERROR_NOT_READY,
              controller->PullSubtitleBlock(data, time, duration, level, flags));
}

}  // namespace
}  // namespace opal::test
