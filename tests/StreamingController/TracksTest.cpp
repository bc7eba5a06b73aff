#include "StreamingController/ControllerFixture.h"

namespace opal::test {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

class TracksTest : public ControllerFixture {
  protected:
    void StartWithSubtitles(int tracks = 1, size_t header = 0) {
        FilmShape film;
        film.subtitleTracks = tracks;
        film.subtitleHeader = header;
        StartPlaying(film, 8000);
        // No underflow, and no second start, however slow the machine.
        controller->video->SetBufferedDurationMs(3000);
        controller->video->SetPositionMs(1);
        Forget();
    }
};

TEST_F(TracksTest, AudioChangesWithoutABlockOfTheOldTrack) {
    FilmShape film;
    film.audioTracks = 2;
    StartPlaying(film);
    ASSERT_TRUE(Until([&] { return controller->audio->BlockCount() > 20; }));
    journal.Clear();
    controller->video->SetPositionMs(6500);
    controller->video->SetBufferedDurationMs(3000);
    EXPECT_EQ(OPAL_ERROR_OUT_OF_RANGE, controller->SetAudioTrack(2));
    ASSERT_EQ(OPAL_OK, controller->SetAudioTrack(1));
    ASSERT_TRUE(UntilEvent("OnAudioTrackChanged 1"));
    EXPECT_EQ(1u, controller->GetCurrentAudioTrack());
    EXPECT_THAT(journal.Lines(),
                ElementsAre("audio SetPaused true", "audio Flush", "audio SetPaused false"));
    EXPECT_EQ(1, controller->switching->restarts[OPAL_STREAM_AUDIO]);
    EXPECT_EQ(0, controller->switching->restarts[OPAL_STREAM_VIDEO]);
    ASSERT_TRUE(Until([&] { return HasRead("a1", 4); }));
    EXPECT_TRUE(HasRead("a1", 3));
    EXPECT_FALSE(HasRead("a1", 2));
    // Times go back once, to the new track's first cluster: no block of the old one comes behind.
    std::vector<int64_t> times;
    ASSERT_TRUE(Until([&] {
        times = Times(*controller->audio);
        return std::count(times.begin(), times.end(), 6000) == 2;
    }));
    std::vector<int64_t> steps;
    for (size_t i = 1; i < times.size(); ++i)
        if (times[i] != times[i - 1] + 500)
            steps.push_back(times[i]);
    EXPECT_THAT(steps, ElementsAre(6000));
    ASSERT_EQ(OPAL_OK, controller->SetAudioTrack(1));  // no change, but told
    ASSERT_TRUE(Until([&] { return listener.Count("OnAudioTrackChanged 1") == 2; }));
    EXPECT_EQ(1u, controller->audio->Calls(FakePlatform::Op::Flush));
    AudioTrackInfo info;
    EXPECT_EQ(OPAL_OK, controller->GetAudioTrackInfo(1, info));
    EXPECT_EQ(44100, info.samplingFrequency);
    EXPECT_EQ("eng", info.language);
}

TEST_F(TracksTest, ARefusedCodecLeavesThePicturePlaying) {
    FilmShape film;
    film.audioTracks = 2;
    Serve(film);
    controller->audioConfigure = OPAL_ERROR_AUDIO_UNSUPPORTED;
    ASSERT_EQ(OPAL_OK, Initialize());
    listener.Clear();
    ASSERT_EQ(OPAL_OK, controller->Play());
    EXPECT_THAT(listener.Lines(), ElementsAre("OnError -23 null"));
    ASSERT_TRUE(UntilEvent("OnPlay 1 0 -1"));
    ASSERT_TRUE(Until([&] { return ClusterReads("a0") >= 3; }));
    EXPECT_EQ(0u, controller->audio->BlockCount());
    EXPECT_EQ(1u, listener.Count("OnError -23 null"));
    controller->audioConfigure = OPAL_OK;
    ASSERT_EQ(OPAL_OK, controller->SetAudioTrack(1));
    ASSERT_TRUE(UntilEvent("OnAudioTrackChanged 1"));
    ASSERT_TRUE(Until([&] { return controller->audio->BlockCount() > 0; }));
    controller->audioConfigure = OPAL_ERROR_AUDIO_UNSUPPORTED;
    ASSERT_EQ(OPAL_OK, controller->SetAudioTrack(0));
    ASSERT_TRUE(Until([&] { return listener.Count("OnError -23 null") == 2; }));
    EXPECT_EQ(0u, listener.Count("OnAudioTrackChanged 0"));
    EXPECT_EQ(StreamingController::CONTROLLER_PLAYING, controller->GetState());
}

TEST_F(TracksTest, WithoutASubtitleSinkOrWithAHugeHeaderASelectionIsSilent) {
    for (const bool sink : {false, true}) {
        Build(false);
        StartWithSubtitles(1, sink ? 2100001 : 2100000);
        controller->hasSubtitleSink = sink;
        EXPECT_EQ(OPAL_ERROR_OUT_OF_RANGE, controller->SetSubtitleTrack(1));
        ASSERT_EQ(OPAL_OK, controller->SetSubtitleTrack(0));
        Turns(10);
        EXPECT_THAT(listener.Lines(), IsEmpty());
        EXPECT_THAT(journal.Lines(), IsEmpty());
        EXPECT_THAT(server->Reads(Url("s0")), IsEmpty());
        EXPECT_EQ(kNone, controller->GetCurrentSubtitleTrack());
    }
}

TEST_F(TracksTest, ASubtitleTrackIsOpenedShownChangedAndSwitchedOff) {
    StartWithSubtitles(2, 2100000);  // the largest header that is fetched
    controller->video->SetPositionMs(4700);
    size_t room = 1;
    ASSERT_EQ(OPAL_OK, controller->SetSubtitleTrack(0));
    ASSERT_TRUE(UntilEvent("OnSubtitleTrackChanged 0"));
    EXPECT_THAT(listener.Lines(), ElementsAre("OnPause", "OnSubtitleTrackChanged 0"));
    EXPECT_EQ("video SetPaused true", journal.Lines().at(1));
    EXPECT_THAT(controller->buffers, ElementsAre(12 * 1024 * 1024, 384000, 384000));
    EXPECT_EQ("S_TEXT/UTF8 font 2", controller->subtitleConfiguration);
    ASSERT_TRUE(Until([&] { return controller->subtitle->BlockCount() > 0; }));
    EXPECT_EQ(4000, Times(*controller->subtitle)[0]);
    EXPECT_EQ(0u, listener.CountPrefix("OnPlay"));
    EXPECT_EQ(OPAL_ERROR_NO_MEMORY, controller->GetSubtitleFont(&room, room));
    EXPECT_EQ(2u, room);
    unsigned char font[2] = {};
    EXPECT_EQ(OPAL_OK, controller->GetSubtitleFont(font, room));
    EXPECT_EQ(8, font[1]);
    controller->subtitle->listener->OnSubtitle(1, 2, "text");
    EXPECT_EQ("OnSubtitle 1 2 text", listener.Lines().back());

    Forget();
    ASSERT_EQ(OPAL_OK, controller->SetSubtitleTrack(0));  // runs already: nothing is posted
    ASSERT_EQ(OPAL_OK, controller->SetSubtitleTrack(1));
    ASSERT_TRUE(UntilEvent("OnSubtitleTrackChanged 1"));
    EXPECT_THAT(listener.Lines(), ElementsAre("OnPause", "OnSubtitleTrackChanged 1"));
    EXPECT_EQ(1u, controller->GetCurrentSubtitleTrack());
    EXPECT_EQ(1, controller->switching->restarts[OPAL_STREAM_SUBTITLE]);

    Forget();
    const uint64_t held = HoldReads("s1");
    ASSERT_TRUE(UntilHeld(held));
    ASSERT_EQ(OPAL_OK, controller->SetSubtitleTrack(kNone));
    server->Release(held);  // this cluster is announced when subtitles are off
    ASSERT_TRUE(UntilEvent("OnSubtitleTrackChanged -1"));
    EXPECT_THAT(journal.Lines(), ElementsAre("subtitle SetPaused true", "subtitle Flush"));
    server->ClearLog();
    Turns(30);
    SleepMs(100);  // five polls of the reader
    EXPECT_EQ(0u, ClusterReads("s1"));
    int64_t position = 8000;
    ASSERT_EQ(OPAL_OK, controller->Seek(position));
    EXPECT_TRUE(UntilEvent("OnPlay 1 0 -1"));
}

TEST_F(TracksTest, ASelectionThatIsTakenBackWhileItOpensLetsPlaybackGoOn) {
    StartWithSubtitles(2);
    const uint64_t held = HoldReads("s0");
    ASSERT_EQ(OPAL_OK, controller->SetSubtitleTrack(0));
    ASSERT_TRUE(UntilEvent("OnPause"));
    ASSERT_TRUE(UntilHeld(held));
    int64_t position = 2000;
    ASSERT_EQ(OPAL_OK, controller->Seek(position));  // leaves the opening stream alone
    ASSERT_EQ(OPAL_OK, controller->SetSubtitleTrack(kNone));
    ASSERT_TRUE(UntilEvent("OnSubtitleTrackChanged -1"));
    EXPECT_TRUE(Until([&] { return !controller->video->IsPaused(); }));
    server->Release(held);
    Turns(20);
    EXPECT_EQ(kNone, controller->GetCurrentSubtitleTrack());
    EXPECT_EQ(0u, ClusterReads("s0"));
    EXPECT_EQ(0u, listener.Count("OnSubtitleTrackChanged 0"));
    EXPECT_FALSE(controller->video->IsPaused());
}

TEST_F(TracksTest, AFailedSubtitleStreamTurnsSubtitlesOff) {
    StartWithSubtitles(2);
    // While it opens.
    const uint64_t failing = server->AddRule(FakeRule::Fail(OPAL_ERROR_HTTP_CLIENT, Url("s0")));
    ASSERT_EQ(OPAL_OK, controller->SetSubtitleTrack(0));
    ASSERT_TRUE(UntilEvent("OnSubtitleTrackChanged -1"));
    EXPECT_THAT(listener.Lines(), ElementsAre("OnPause", "OnSubtitleTrackChanged -1"));
    EXPECT_TRUE(Until([&] { return !controller->video->IsPaused(); }));
    int64_t position = 8000;
    ASSERT_EQ(OPAL_OK, controller->Seek(position));
    ASSERT_TRUE(UntilEvent("OnPlay 1 0 -1"));
    server->Release(failing);
    Forget();
    ASSERT_EQ(OPAL_OK, controller->SetSubtitleTrack(0));
    ASSERT_TRUE(UntilEvent("OnSubtitleTrackChanged 0"));
    ASSERT_TRUE(Until([&] { return controller->subtitle->BlockCount() > 0; }));
    // While it runs; a seek at that very moment is not stranded by it.
    const uint64_t broken = server->AddRule(FakeRule::Fail(OPAL_ERROR_TIMEOUT, Url("s0")));
    position = 20000;
    ASSERT_EQ(OPAL_OK, controller->Seek(position));
    ASSERT_TRUE(Eventually([&] {
        for (const FakeRequest& request : server->Log())
            if (request.url == Url("s0") && request.result == OPAL_ERROR_TIMEOUT)
                return true;
        return false;
    }));
    position = 24000;
    ASSERT_EQ(OPAL_OK, controller->Seek(position));
    Forget();
    ASSERT_TRUE(UntilEvent("OnSubtitleTrackChanged -1"));
    ASSERT_TRUE(UntilEvent("OnPlay 1 0 -1"));
    EXPECT_EQ(kNone, controller->GetCurrentSubtitleTrack());
    server->Release(broken);
    ASSERT_EQ(OPAL_OK, controller->SetSubtitleTrack(1));
    EXPECT_TRUE(UntilEvent("OnSubtitleTrackChanged 1"));
    EXPECT_EQ(StreamingController::CONTROLLER_PLAYING, controller->GetState());
}

}  // namespace
}  // namespace opal::test
