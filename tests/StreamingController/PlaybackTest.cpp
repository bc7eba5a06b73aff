#include "StreamingController/ControllerFixture.h"

namespace opal::test {
namespace {

using testing::Each;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::Lt;

/// Of a reader's thread, in which it would do what it must not.
constexpr int64_t kFivePollsMs = 100;

class PlaybackTest : public ControllerFixture {};

/// Of the first blocks of a film without a gap: four of 500 ms a cluster.
std::vector<int64_t> TimesOf(size_t blocks) {
    std::vector<int64_t> times;
    for (size_t i = 0; i < blocks; ++i)
        times.push_back(static_cast<int64_t>(i) * 500);
    return times;
}

TEST_F(PlaybackTest, PlaybackStartsWhenBothBuffersAreReady) {
    Start({});
    const uint64_t held = HoldReads("a0", 3, 100);  // all but header and index
    ASSERT_EQ(OPAL_OK, controller->Play());
    ASSERT_TRUE(UntilHeld(held));
    ASSERT_TRUE(Until(
        [&] { return !listener.Progress().empty() && controller->switching->IsVideoBuffered(); }));
    Turns(10);
    EXPECT_THAT(listener.Lines(), IsEmpty());
    EXPECT_THAT(listener.Progress(), Each(Lt(100u)));
    const uint64_t video = layouts["v0"].clusters[0].size;
    const uint64_t audio = layouts["a0"].clusters[0].size;
    EXPECT_EQ((video + 100) * 100 / (video + audio), listener.Progress().back());
    server->Release(held);
    ASSERT_TRUE(UntilEvent("OnPlay 1 0 -1"));
    EXPECT_THAT(listener.Lines(), ElementsAre("OnPlay 1 0 -1"));
    EXPECT_EQ(100u, listener.Progress().back());
    EXPECT_FALSE(controller->video->IsPaused());
    EXPECT_FALSE(controller->audio->IsPaused());
    // Both sinks are started once more in the turn of the start.
    EXPECT_THAT(journal.Lines(), ElementsAre("video Initialize", "audio Initialize",
                                             "video SetPaused false", "audio SetPaused false",
                                             "video SetPaused false", "audio SetPaused false"));
    ASSERT_TRUE(Until([&] { return controller->video->BlockCount() >= 24; }));
    const std::vector<int64_t> times = Times(*controller->video);
    EXPECT_EQ(TimesOf(times.size()), times);
}

TEST_F(PlaybackTest, PauseAndPlayNeedNoBuffering) {
    StartPlaying({});
    ASSERT_EQ(OPAL_OK, controller->Pause());
    EXPECT_TRUE(controller->video->IsPaused());
    EXPECT_EQ(StreamingController::CONTROLLER_PAUSED, controller->GetState());
    Turns(3);
    ASSERT_EQ(OPAL_OK, controller->Play());
    ASSERT_TRUE(UntilEvent("OnPlay 1 0 -1"));
    EXPECT_THAT(listener.Lines(), ElementsAre("OnPause", "OnPlay 1 0 -1"));
    EXPECT_THAT(listener.Progress(), IsEmpty());
    // The pause counts until the first seek after it, which reports no progress either.
    for (const bool reported : {false, true}) {
        Forget();
        int64_t position = 2000;
        ASSERT_EQ(OPAL_OK, controller->Seek(position));
        ASSERT_TRUE(UntilEvent("OnPlay 1 0 -1"));
        EXPECT_EQ(reported, !listener.Progress().empty());
    }
    Forget();
    // A pause that comes before the start was handled: the start still happens, and the writers
    // run.
    ASSERT_EQ(OPAL_OK, controller->Play());
    ASSERT_EQ(OPAL_OK, controller->Pause());
    ASSERT_TRUE(UntilEvent("OnPause"));
    EXPECT_THAT(listener.Lines(), ElementsAre("OnPlay 1 0 -1", "OnPause"));
    EXPECT_EQ("audio SetPaused false", journal.Lines().back());
    Forget();
    EXPECT_EQ(OPAL_ERROR_OUT_OF_RANGE, controller->SetPlayRate(OPAL_PLAYRATE_TWOXFF));  // no track
    ASSERT_EQ(OPAL_OK, controller->SetPlayRate(OPAL_PLAYRATE_ONEX));  // as a resume
    EXPECT_TRUE(UntilEvent("OnPlay 1 0 -1"));
}

TEST_F(PlaybackTest, SeekRestartsAtAClusterWithoutAStaleByte) {
    StartPlaying({}, 8000);
    controller->video->AcceptBlocks(0);
    server->ClearLog();
    int64_t position = -1;
    EXPECT_EQ(OPAL_ERROR_INVALID_ARGUMENT, controller->Seek(position));
    EXPECT_EQ(OPAL_ERROR_INVALID_ARGUMENT, controller->Resume(-1));
    EXPECT_THAT(journal.Lines(), IsEmpty());  // a seek that cannot be done disturbs nothing
    position = 101300;
    controller->switching->level = 1;
    ASSERT_EQ(OPAL_OK, controller->Seek(position));
    EXPECT_EQ(100000, position);
    EXPECT_THAT(journal.Lines(), ElementsAre("video SetPaused true", "audio SetPaused true",
                                             "video Flush", "audio Flush"));
    ASSERT_TRUE(UntilEvent("OnVideoLevelChanged 2 0 1"));  // once the level is open
    EXPECT_EQ("OnVideoLevelChanged 2 0 1", listener.Lines().front());
    EXPECT_EQ(1, controller->switching->restarts[OPAL_STREAM_VIDEO]);
    EXPECT_EQ(1, controller->switching->restarts[OPAL_STREAM_AUDIO]);
    EXPECT_EQ(1, controller->switching->restarts[OPAL_STREAM_SUBTITLE]);
    const size_t before = controller->video->BlockCount();
    controller->video->AcceptBlocks(FakePlatform::kAlways);
    ASSERT_TRUE(UntilEvent("OnPlay 1 0 -1"));
    ASSERT_TRUE(Until([&] { return controller->video->BlockCount() > before; }));
    EXPECT_EQ(100000, Times(*controller->video)[before]);
    EXPECT_TRUE(HasRead("a0", 50));
    EXPECT_TRUE(HasRead("v1", 50));
    EXPECT_FALSE(HasRead("v0", 50));
    EXPECT_THAT(listener.Lines(), ElementsAre("OnVideoLevelChanged 2 0 1", "OnPlay 1 0 -1"));
    ASSERT_FALSE(listener.Progress().empty());
    EXPECT_EQ(100u, listener.Progress().back());
}

TEST_F(PlaybackTest, SeekInAPauseResumes) {
    StartPlaying({});
    ASSERT_EQ(OPAL_OK, controller->Pause());
    Turns(3);
    Forget();
    int64_t position = 6000;
    ASSERT_EQ(OPAL_OK, controller->Seek(position));
    ASSERT_TRUE(UntilEvent("OnPlay 1 0 -1"));
    EXPECT_THAT(listener.Progress(), IsEmpty());
    EXPECT_FALSE(controller->video->IsPaused());
}

TEST_F(PlaybackTest, PlayGoesOnBehindASeekThatFails) {
    StartPlaying({}, 8000);
    controller->video->FailNext(FakePlatform::Op::Flush, OPAL_ERROR_GENERAL, 1);
    int64_t position = 20000;
    EXPECT_EQ(OPAL_ERROR_GENERAL, controller->Seek(position));
    EXPECT_EQ(StreamingController::CONTROLLER_PAUSED, controller->GetState());
    Turns(3);
    EXPECT_TRUE(controller->video->IsPaused());
    ASSERT_EQ(OPAL_OK, controller->Play());
    EXPECT_TRUE(UntilEvent("OnPlay 1 0 -1"));
    EXPECT_FALSE(controller->video->IsPaused());
}

TEST_F(PlaybackTest, ALevelChangeReachesTheSinkAtAClusterBoundaryOrEndsTheSession) {
    FilmShape film;
    film.levels = 4;
    StartPlaying(film, 4000);
    controller->switching->level = 1;
    ASSERT_TRUE(UntilEvent("OnVideoLevelChanged 4 0 1"));
    const size_t at = controller->video->BlockCount();
    ASSERT_TRUE(Until([&] { return controller->video->BlockCount() >= at + 16; }));
    controller->switching->level = -1;
    ASSERT_TRUE(UntilEvent("OnVideoLevelChanged 4 1 0"));
    EXPECT_EQ(0u, controller->GetCurrentVideoLevel());
    const size_t then = controller->video->BlockCount();
    ASSERT_TRUE(Until([&] { return controller->video->BlockCount() >= then + 12; }));
    const std::vector<int64_t> times = Times(*controller->video);
    EXPECT_EQ(TimesOf(times.size()), times);
    EXPECT_EQ(0u, controller->video->Calls(FakePlatform::Op::Flush));
    EXPECT_EQ(0u, listener.Count("OnPlay 1 0 -1"));
    server->AddRule(FakeRule::Fail(OPAL_ERROR_HTTP_SERVER, Url("v2")));
    controller->switching->level = 99;  // no such level: the highest, and this one on the way
    ASSERT_TRUE(UntilEvent("OnError -13 ''"));
    EXPECT_THAT(server->Reads(Url("v3")), IsEmpty());
}

TEST_F(PlaybackTest, AudioIsHeldFiveSecondsAheadOfVideo) {
    Start({});
    const uint64_t held = HoldReads("v0", 1);
    controller->switching->requirementMs = 1000000;
    ASSERT_EQ(OPAL_OK, controller->Play());
    ASSERT_TRUE(UntilHeld(held));
    // No video cluster comes, so nothing compares: audio runs on.
    ASSERT_TRUE(Until([&] { return ClusterReads("a0") >= 10; }));
    server->Release(held);
    ASSERT_TRUE(Until([&] { return HasRead("v0", 2); }));
    // From here on every video cluster compares, until both lie within five seconds.
    ASSERT_TRUE(Until([&] {
        int64_t audio = 0;
        int64_t video = 0;
        (void)controller->GetBufferedDuration(OPAL_STREAM_AUDIO, audio);
        (void)controller->GetBufferedDuration(OPAL_STREAM_VIDEO, video);
        return audio - video <= 5000;
    }));
    const size_t reads = ClusterReads("a0");
    EXPECT_LE(reads, ClusterReads("v0") + 4);
    EXPECT_TRUE(Until([&] { return ClusterReads("a0") > reads; }));
}

TEST_F(PlaybackTest, TheBufferLimitIsMetByFetchingAgain) {
    FilmShape film;
    film.audioTracks = 0;
    Start(film);
    controller->switching->maxBuffer = 6000;
    controller->video->AcceptBlocks(0);
    ASSERT_EQ(OPAL_OK, controller->Play());
    // Three in the buffer, one in the writer's parser, and the fifth again and again.
    ASSERT_TRUE(Until([&] { return ClusterReads("v0", 4) >= 3; }));
    EXPECT_EQ(1u, ClusterReads("v0", 2));
    EXPECT_FALSE(HasRead("v0", 5));
    controller->video->AcceptBlocks(FakePlatform::kAlways);
    EXPECT_TRUE(Until([&] { return HasRead("v0", 6); }));
}

TEST_F(PlaybackTest, TrickPlayTakesKeyFramesAndComesBack) {
    FilmShape film;
    film.trick = true;
    StartPlaying(film);
    controller->video->SetPositionMs(2500);
    controller->video->AcceptBlocks(0);
    ASSERT_EQ(OPAL_OK, controller->SetPlayRate(OPAL_PLAYRATE_FOURXFF));
    EXPECT_THAT(journal.Lines(),
                ElementsAre("video SetPaused true", "audio SetPaused true", "video Flush",
                            "audio Flush", "video SetRate OPAL_PLAYRATE_FOURXFF"));
    for (const auto& restarts : controller->switching->restarts)
        EXPECT_EQ(1, restarts);
    EXPECT_EQ(StreamingController::CONTROLLER_TRICK, controller->GetState());
    const size_t before = controller->video->BlockCount();
    ASSERT_TRUE(UntilEvent("OnPlayRateChanged 4"));
    const auto lines = listener.Lines();
    EXPECT_GE(lines.size(), 2u);
    EXPECT_EQ(lines.size() - 1, listener.Count("OnPause"));
    EXPECT_EQ("OnPlayRateChanged 4", lines.back());
    // One cluster in the writer's hands, one in the buffer, and no third.
    const size_t reads = 3 + 2;  // of the opening and of the two
    ASSERT_TRUE(Until([&] { return server->Reads(Url("t")).size() >= reads; }));
    Turns(10);
    SleepMs(kFivePollsMs);
    EXPECT_EQ(reads, server->Reads(Url("t")).size());
    controller->video->AcceptBlocks(FakePlatform::kAlways);
    ASSERT_TRUE(Until([&] { return controller->video->BlockCount() >= before + 3; }));
    // Frames 2 and 4 of the first cluster; cluster 1 starts at 6000 and gives every second one.
    auto times = Times(*controller->video);
    EXPECT_THAT(std::vector<int64_t>(times.begin() + static_cast<int64_t>(before),
                                     times.begin() + static_cast<int64_t>(before) + 3),
                ElementsAre(2000, 4000, 6000));
    EXPECT_TRUE(controller->audio->IsPaused());

    Forget();
    controller->video->SetPositionMs(4500);
    server->ClearLog();
    ASSERT_EQ(OPAL_OK, controller->SetPlayRate(OPAL_PLAYRATE_ONEX));
    EXPECT_THAT(journal.Lines(),
                ElementsAre("video SetPaused true", "audio SetPaused true", "video Flush",
                            "audio Flush", "video SetRate OPAL_PLAYRATE_ONEX"));
    ASSERT_TRUE(UntilEvent("OnPlay 1 0 -1"));
    EXPECT_TRUE(HasRead("v0", 2));
    EXPECT_FALSE(HasRead("v0", 1));
    EXPECT_THAT(listener.Lines(), ElementsAre("OnPlay 1 0 -1"));
}

TEST_F(PlaybackTest, TrickPlayMayComeFirstAndWhatFollowsASeekGoesToItsTarget) {
    FilmShape film;
    film.trick = true;
    film.audioTracks = 2;
    Start(film);
    ASSERT_EQ(OPAL_OK, controller->SetPlayRate(OPAL_PLAYRATE_TWOXFF));
    ASSERT_TRUE(UntilEvent("OnPlayRateChanged 2"));
    ASSERT_EQ(OPAL_OK, controller->SetPlayRate(OPAL_PLAYRATE_ONEX));
    ASSERT_TRUE(UntilEvent("OnPlay 1 0 -1")) << "with the first audio track";
    controller->video->SetPositionMs(2500);  // and there it stays
    int64_t position = 21000;
    ASSERT_EQ(OPAL_OK, controller->Seek(position));
    Forget();
    ASSERT_TRUE(UntilEvent("OnPlay 1 0 -1"));
    ASSERT_EQ(OPAL_OK, controller->SetAudioTrack(1));
    ASSERT_TRUE(Until([&] { return ClusterReads("a1") > 0; }));
    EXPECT_TRUE(HasRead("a1", 10));
    ASSERT_EQ(OPAL_OK, controller->SetPlayRate(OPAL_PLAYRATE_TWOXFF));
    const size_t before = controller->video->BlockCount();
    ASSERT_TRUE(UntilEvent("OnPlayRateChanged 2"));
    ASSERT_TRUE(Until([&] { return controller->video->BlockCount() > before; }));
    EXPECT_LE(18000, Times(*controller->video).back());
}

TEST_F(PlaybackTest, ASeekInTrickPlayGoesOnAtTheRate) {
    FilmShape film;
    film.trick = true;
    StartPlaying(film);
    EXPECT_EQ(OPAL_OK, controller->SetPlayRate(OPAL_PLAYRATE_TWOXFF));
    ASSERT_TRUE(UntilEvent("OnPlayRateChanged 2"));
    controller->switching->level = 1;
    const uint64_t held = HoldReads("t");
    Forget();
    const size_t before = controller->video->BlockCount();
    int64_t position = 7000;
    ASSERT_EQ(OPAL_OK, controller->Seek(position));
    EXPECT_EQ(6000, position);
    ASSERT_TRUE(UntilHeld(held));
    Turns(20);  // what the old position left in the queue starts nothing
    EXPECT_THAT(listener.Lines(), IsEmpty());
    server->Release(held);
    ASSERT_TRUE(UntilEvent("OnPlay 2 0 -1"));
    ASSERT_TRUE(Until([&] { return controller->video->BlockCount() > before; }));
    EXPECT_EQ(7000, Times(*controller->video)[before]);
    EXPECT_EQ(0u, listener.Count("OnVideoLevelChanged 2 0 1"));
    ASSERT_EQ(OPAL_OK, controller->Play());  // at the rate
    EXPECT_TRUE(UntilEvent("OnPlayRateChanged 2"));
}

TEST_F(PlaybackTest, AnUnderflowPausesAndRecovers) {
    Start({});
    const uint64_t held = HoldReads("v0", 5, 100);
    ASSERT_EQ(OPAL_OK, controller->Play());
    ASSERT_TRUE(UntilEvent("OnPlay 1 0 -1"));
    ASSERT_TRUE(UntilHeld(held));
    ASSERT_TRUE(Until([&] { return controller->video->BlockCount() == 20; }));
    Forget();
    controller->video->SetBufferedDurationMs(1);  // and 500 of the cluster in hand
    Turns(5);
    EXPECT_THAT(listener.Lines(), IsEmpty());
    controller->video->SetBufferedDurationMs(0);
    ASSERT_TRUE(UntilEvent("OnUnderflow"));
    Turns(5);
    EXPECT_TRUE(controller->video->IsPaused());
    EXPECT_TRUE(controller->audio->IsPaused());
    EXPECT_EQ(1, controller->switching->restarts[OPAL_STREAM_VIDEO]);
    EXPECT_EQ(0, controller->switching->restarts[OPAL_STREAM_AUDIO]);
    EXPECT_EQ(1u, listener.Count("OnUnderflow"));
    // Of the one cluster that is missing, whatever audio does.
    EXPECT_EQ(100 * 100 / layouts["v0"].clusters[5].size, listener.Progress().back());
    Forget();
    controller->video->UseComputedBufferedDuration();
    server->Release(held);
    ASSERT_TRUE(UntilEvent("OnPlay 1 0 -1"));
    EXPECT_EQ(0u, listener.Count("OnUnderflow"));
    EXPECT_EQ(100u, listener.Progress().back());
    EXPECT_FALSE(controller->video->IsPaused());
}

TEST_F(PlaybackTest, TheEndIsReportedOnceAndIsNoUnderflow) {
    FilmShape film;
    film.audioTracks = 0;
    film.clusters = 5;
    Start(film);
    ASSERT_EQ(OPAL_OK, controller->Play());
    ASSERT_TRUE(Until([&] { return controller->video->BlockCount() == 20; }));
    Turns(5);
    EXPECT_THAT(listener.Lines(), ElementsAre("OnPlay 1 -1 -1"));
    controller->video->SetPositionMs(9600);
    ASSERT_TRUE(UntilEvent("OnEndOfStream"));
    Turns(20);
    EXPECT_THAT(listener.Lines(), ElementsAre("OnPlay 1 -1 -1", "OnEndOfStream"));
    EXPECT_EQ(5u, ClusterReads("v0"));
    ASSERT_EQ(OPAL_OK, controller->Resume(0));  // the film again, from its start
    EXPECT_TRUE(Until([&] { return listener.Count("OnPlay 1 -1 -1") == 2; }));
}

TEST_F(PlaybackTest, ATransferThatOutlastsTheBufferIsGivenUpWhenToldTo) {
    for (const bool told : {false, true}) {
        SCOPED_TRACE(told);
        AlgorithmConfig::Global global;
        global.abandonTransfers = told;
        ASSERT_EQ(OPAL_OK, AlgorithmConfig::Instance().Set(global, {}, {}));
        Build(false);
        FilmShape film;
        film.audioTracks = 0;
        Serve(film);
        MediaShape large;
        large.clusters = film.clusters;
        large.blockBytes = 4000;
        const package::BuiltFile file = MakeMedia(large);
        server->AddFile(Url("v1"), std::string(file.bytes.begin(), file.bytes.end()));
        layouts["v1"] = file.layout;
        ASSERT_EQ(OPAL_OK, Initialize());
        ASSERT_EQ(OPAL_OK, controller->Play());
        controller->switching->maxBuffer = 6000;
        ASSERT_TRUE(UntilEvent("OnPlay 1 -1 -1"));
        const uint64_t held = HoldReads("v1", 3, 100);  // behind header and index
        controller->switching->level = 1;
        ASSERT_TRUE(UntilHeld(held));
        ASSERT_TRUE(UntilEvent("OnVideoLevelChanged 2 0 1"));
        Forget();
        const size_t low = ClusterReads("v0");
        const auto end = std::chrono::steady_clock::now() + std::chrono::milliseconds(1500);
        while (listener.Lines().empty() && std::chrono::steady_clock::now() < end)
            controller->Turn();
        EXPECT_EQ(told ? 1u : 0u, listener.Count("OnVideoLevelChanged 2 1 0"));
        EXPECT_EQ(told, Until([&] { return !told || ClusterReads("v0") > low; }) && told);
        EXPECT_EQ(told ? low + 1 : low, ClusterReads("v0"));  // each cluster once
        server->Release(held);
    }
}

TEST_F(PlaybackTest, PositionComesOnceASecondAndNotForZero) {
    HandClock clock;
    StartPlaying({});
    ASSERT_TRUE(Until([&] { return controller->video->BlockCount() > 4; }));
    clock.Advance(5000);
    Turns(1);
    EXPECT_THAT(listener.Positions(), IsEmpty());  // still at 0
    controller->video->SetPositionMs(1700);
    Turns(1);
    clock.Advance(999);
    Turns(1);
    ASSERT_EQ(1u, listener.Positions().size());
    EXPECT_EQ(1700, listener.Positions()[0].ms);
    EXPECT_EQ(0u, listener.Positions()[0].level);
    clock.Advance(1);
    Turns(1);
    EXPECT_EQ(2u, listener.Positions().size());
    clock.Advance(-3600000);  // a wall clock may be set back
    Turns(1);
    EXPECT_EQ(3u, listener.Positions().size());
    controller.reset();  // its threads sleep by the clock
}

TEST_F(PlaybackTest, StopHoldsUntilTheNextStart) {
    StartPlaying({});
    const uint64_t held = HoldReads("v0");
    int64_t position = 40000;
    ASSERT_EQ(OPAL_OK, controller->Seek(position));
    ASSERT_TRUE(UntilHeld(held));
    ASSERT_EQ(OPAL_OK, controller->Stop());
    // Stopping waits for the transfer; the cluster that then arrives wakes nothing.
    auto release = std::async(std::launch::async, [&] {
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
        server->Release(held);
    });
    ASSERT_TRUE(UntilEvent("OnStop"));
    release.wait();
    server->ClearLog();
    Turns(20);
    SleepMs(kFivePollsMs);
    EXPECT_EQ(0u, ClusterReads("v0"));
    Forget();
    ASSERT_EQ(OPAL_OK, controller->Play());
    ASSERT_TRUE(UntilEvent("OnPlay 1 0 -1"));
    Forget();
    ASSERT_EQ(OPAL_OK, controller->Stop());
    ASSERT_EQ(OPAL_OK, controller->Play());  // at once: the stop does not undo it
    ASSERT_TRUE(UntilEvent("OnPlay 1 0 -1"));
    EXPECT_THAT(listener.Lines(), ElementsAre("OnStop", "OnPlay 1 0 -1"));
    server->ClearLog();
    EXPECT_TRUE(Until([&] { return ClusterReads("v0") > 1; }));
}

TEST_F(PlaybackTest, AFailedReaderEndsTheSession) {
    StartPlaying({});
    server->AddRule(FakeRule::Fail(OPAL_ERROR_HTTP_SERVER, Url("v1")));
    controller->switching->level = 1;
    int64_t position = 0;
    EXPECT_EQ(OPAL_OK, controller->Seek(position));  // it does not wait for the level
    ASSERT_TRUE(UntilEvent("OnError -13 ''"));
    EXPECT_EQ(0u, listener.Count("OnVideoLevelChanged 2 0 1"));
    EXPECT_EQ(StreamingController::CONTROLLER_ERROR, controller->GetState());
    EXPECT_EQ(OPAL_ERROR_HTTP_SERVER, controller->Play());
    controller->LeaveLoop();
    EXPECT_EQ("OnStop", listener.Lines().back());
    EXPECT_EQ(OPAL_OK, controller->Finalize());
    EXPECT_EQ(1u, listener.Count("OnError -13 ''"));
}

TEST_F(PlaybackTest, WhatIsLeftInTheQueueIsNotForTheNextSession) {
    StartPlaying({});
    ASSERT_EQ(OPAL_OK, controller->Pause());
    ASSERT_EQ(OPAL_OK, controller->Finalize());
    (void)controller->SetNotify(&listener);
    controller->state = TestController::LoopState();
    Start({});
    Turns(50);
    EXPECT_THAT(listener.Lines(), IsEmpty());
}

TEST_F(PlaybackTest, AFailedWriterEndsTheSession) {
    Start({});
    controller->video->FailNext(FakePlatform::Op::Queue, OPAL_ERROR_GENERAL, 1);
    ASSERT_EQ(OPAL_OK, controller->Play());
    EXPECT_TRUE(UntilEvent("OnError -1 ''"));
}

TEST_F(PlaybackTest, FinalizeDropsOneSinkBeforeItFlushesTheNext) {
    StartPlaying({});
    controller->video->FailNext(FakePlatform::Op::Flush, OPAL_ERROR_GENERAL, 1);
    controller->audio->FailNext(FakePlatform::Op::Flush, OPAL_ERROR_NOT_READY, 1);
    EXPECT_EQ(OPAL_ERROR_NOT_READY, controller->Finalize());
    EXPECT_THAT(journal.Lines(), ElementsAre("video Flush", "video Stop", "video gone",
                                             "audio Flush", "audio gone"));
}

}  // namespace
}  // namespace opal::test
