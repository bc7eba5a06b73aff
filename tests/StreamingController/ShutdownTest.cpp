#include <malloc.h>

#include "PlatformAdapter/Mstar/HABArch.h"
#include "StreamingController/ControllerFixture.h"
#include "support/ScaledClock.h"

namespace opal::test {
namespace {

using testing::ElementsAre;

/// With the controller's own loop.
class ShutdownTest : public ControllerFixture {
  protected:
    ShutdownTest() { Build(true); }
    ~ShutdownTest() override { controller.reset(); }  // its threads sleep by the clock

    /// Finalizes and says whether that took less than three seconds.
    bool FinalizePromptly() {
        const auto before = std::chrono::steady_clock::now();
        EXPECT_EQ(OPAL_OK, controller->Finalize());
        return std::chrono::steady_clock::now() - before < std::chrono::seconds(3);
    }

    ScaledClock clock{10};
};

// Another thread waits in the named place for a server that says nothing.
TEST_F(ShutdownTest, FinalizeDoesNotWaitForTheNetwork) {
    FilmShape film;
    film.subtitleTracks = 1;
    Serve(film);
    const struct {
        const char* what;
        std::string file;
        FakeRule::Kind kind;
        int skip;
    } places[] = {
        {"the manifest", "film.smil", FakeRule::Kind::Read, 0},
        {"the probe", "v0", FakeRule::Kind::Read, 0},
        {"an audio cluster", "a0", FakeRule::Kind::Read, 4},
        {"the subtitles' file", "s0", FakeRule::Kind::Open, 0},
        {"the subtitles' index", "s0", FakeRule::Kind::Read, 1},
    };
    for (const auto& place : places) {
        SCOPED_TRACE(place.what);
        Build(true);
        controller->mode = InitialBandwidthMode_BandwidthProbe;
        listener.Clear();
        FakeRule rule = FakeRule::Hold(Url(place.file), place.kind);
        rule.skip = place.skip;
        const uint64_t held = server->AddRule(rule);
        auto application = std::async(std::launch::async, [&] {
            if (Initialize() == OPAL_OK && controller->Play() == OPAL_OK) {
                (void)controller->SetSubtitleTrack(0);
                (void)listener.WaitFor("OnStop");
            }
        });
        EXPECT_TRUE(server->WaitForHeld(held, 1, 10000));
        EXPECT_TRUE(FinalizePromptly());
        application.get();
        EXPECT_TRUE(FinalizePromptly());
        server->Release(held);
        EXPECT_THAT(listener.Lines(),
                    testing::Not(testing::Contains(testing::StartsWith("OnError"))));
        EXPECT_LE(listener.Count("OnStop"), 1u);
        EXPECT_EQ(0u, server->OpenFiles());
    }
}

// As a television does that takes no more payloads, or a text that waits for a picture.
TEST_F(ShutdownTest, FinalizeEndsAWaitInsideASink) {
    Serve({});
    ASSERT_EQ(OPAL_OK, Initialize());
    std::atomic<int> ended{-1};
    controller->video->SetQueueHook([&, arch = controller->arch](const FakePlatform::Block&) {
        ended = 0;
        ended = Eventually([arch] { return HABArch_IsClosing(arch); });
    });
    ASSERT_EQ(OPAL_OK, controller->Play());
    ASSERT_TRUE(Eventually([&] { return ended == 0; }));
    EXPECT_TRUE(FinalizePromptly());
    EXPECT_EQ(1, ended);
}

// Neither the accessor nor the shutdown waits for the transfer.
TEST_F(ShutdownTest, FinalizeEndsATransferThatAnAccessorMeets) {
    Serve({});
    const uint64_t held = HoldReads("a0", 4);
    ASSERT_EQ(OPAL_OK, Initialize());
    ASSERT_EQ(OPAL_OK, controller->Play());
    ASSERT_TRUE(server->WaitForHeld(held, 1, 10000));
    AudioTrackInfo info;
    auto asking =
        std::async(std::launch::async, [&] { return controller->GetAudioTrackInfo(0, info); });
    EXPECT_EQ(std::future_status::ready, asking.wait_for(std::chrono::seconds(2)));
    EXPECT_EQ(OPAL_OK, asking.get());
    EXPECT_EQ(2u, info.channels);
    EXPECT_TRUE(FinalizePromptly());
}

TEST_F(ShutdownTest, FinalizeAtAnyMomentLeavesNothing) {
    FilmShape film;
    film.trick = true;
    film.subtitleTracks = 1;
    Serve(film);
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
    for (int round = 0; round < 40; ++round) {
        SCOPED_TRACE(round);
        (void)controller->SetNotify(&listener);
        listener.Clear();
        EXPECT_EQ(OPAL_OK, Initialize());
        EXPECT_EQ(OPAL_OK, controller->Play());
        if (round % 4 == 1)
            (void)controller->SetSubtitleTrack(0);
        if (round % 4 == 2)
            (void)controller->SetPlayRate(OPAL_PLAYRATE_EIGHTXFF);
        int64_t position = 30000;
        if (round % 4 == 3)
            (void)controller->Seek(position);
        std::this_thread::sleep_for(std::chrono::microseconds(700 * round));
        EXPECT_TRUE(FinalizePromptly());
        EXPECT_EQ(1u, listener.Count("OnStop"));
        EXPECT_EQ("OnStop", listener.Lines().back());
        EXPECT_EQ(0u, server->OpenFiles());
        EXPECT_EQ(OPAL_ERROR_TERMINATED, controller->Play());
    }
    done = true;
}

// Figures of the allocator; a sanitizer brings one of its own.
#if !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__)
TEST_F(ShutdownTest, BlocksOfAClustersSizeGoBackToTheSystem) {
    constexpr size_t kCluster = 2 << 20;
    void* volatile cluster = std::malloc(8 * kCluster);  // else the compiler leaves it out
    std::free(cluster);
    const size_t before = mallinfo2().hblkhd;
    cluster = std::malloc(kCluster);
    EXPECT_GE(mallinfo2().hblkhd, before + kCluster) << "mapped by itself";
    std::free(cluster);
    EXPECT_EQ(mallinfo2().hblkhd, before);
}
#endif

TEST_F(ShutdownTest, AListenerMayCallBackAndThrowButNotFinalize) {
    Serve({});
    std::atomic<int> refused{0};
    listener.onEvent = [&](const std::string& line) {
        refused += controller->Finalize() == OPAL_ERROR_GENERAL ? 1 : 0;
        EXPECT_EQ(OPAL_ERROR_GENERAL, Initialize());
        if (line == "OnPlay 1 0 -1") {
            EXPECT_EQ(OPAL_OK, controller->Pause());
        }
        if (line == "OnPause")
            throw 7;  // no std::exception
    };
    ASSERT_EQ(OPAL_OK, Initialize());
    ASSERT_EQ(OPAL_OK, controller->Play());
    EXPECT_TRUE(listener.WaitFor("OnStop"));
    EXPECT_TRUE(FinalizePromptly());
    EXPECT_THAT(listener.Lines(), ElementsAre("OnVideoLevelChanged 2 0 0", "OnPlay 1 0 -1",
                                              "OnPause", "OnError -1 ''", "OnStop"));
    EXPECT_EQ(5, refused);
}

TEST_F(ShutdownTest, ASecondInitializeEndsTheFirstSession) {
    FilmShape film;
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
    EXPECT_EQ(2u, controller->buffers.size());  // those of the first session
    EXPECT_EQ(1u, controller->switching->levelCount);
    EXPECT_THAT(listener.Lines(), ElementsAre("OnStop", "OnVideoLevelChanged 1 0 0"));
    EXPECT_EQ(0u, controller->video->BlockCount());
    ASSERT_EQ(OPAL_OK, controller->Play());
    EXPECT_TRUE(listener.WaitFor("OnPlay 1 0 -1"));
}

}  // namespace
}  // namespace opal::test
