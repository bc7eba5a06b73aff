#include "StreamingReader/Readers.h"

#include <gmock/gmock.h>

#include <atomic>
#include <future>
#include <stdexcept>

#include "StreamingDemux/EBML/IClusterIndex.h"
#include "StreamingReader/ReaderFixture.h"
#include "StreamingWriter/IStreamingWriter.h"
#include "support/FakePlatform.h"

namespace opal::test {
namespace {

using testing::ElementsAre;

const MediaShape kAudioShape{package::TrackKind::Audio, 5, 4, 100, 3000, false};

class ReadersTest : public ReaderFixture {
  protected:
    OPALError InitVideo(size_t level = 0) {
        return readers.VideoInitialize(Manifest(), buffer.get(), &reports, level);
    }
    OPALError InitAudio() {
        return readers.AudioInitialize(Manifest(), audioBuffer.get(), &reports, 0);
    }
    OPALError InitSubtitle(size_t track = 0) {
        return readers.SubtitleInitialize(Manifest(), subtitleBuffer.get(), &reports, track);
    }
    bool Buffered(int64_t ms) {
        return Eventually([this, ms] { return buffer->GetBufferedDuration() == ms; });
    }
    bool SubtitleIsOpen() {
        return Eventually([this] { return SubtitleState() == STREAMING_READER_STOPPED; });
    }
    bool SubtitleFails(OPALError error) {
        return Eventually([this, error] { return readers.GetSubtitleError() == error; });
    }
    int SubtitleState() {
        int state = STREAMING_READER_ERROR;
        (void)readers.GetSubtitleState(state);
        return state;
    }
    std::vector<std::string> OpenedUrls() const {
        std::vector<std::string> urls;
        for (const FakeRequest& request : server->Log()) {
            if (request.isOpen)
                urls.push_back(request.url);
        }
        return urls;
    }
    /// The operation's result; the test fails if it takes longer than a shutdown or seek may.
    OPALError Promptly(const std::function<OPALError()>& operation) {
        auto done = std::async(std::launch::async, operation);
        EXPECT_EQ(std::future_status::ready, done.wait_for(std::chrono::milliseconds(2500)));
        return done.get();
    }

    const std::unique_ptr<IClusterBuffer> audioBuffer{NewClusterBuffer(384000)};
    const std::unique_ptr<IClusterBuffer> subtitleBuffer{NewClusterBuffer(100000)};
    Readers readers;
};

TEST_F(ReadersTest, KindThatTheManifestLacksDoesNothing) {
    EXPECT_EQ(OPAL_OK, InitVideo());
    int64_t ms = 5;
    size_t bytes = 5;
    int state = 0;
    for (const OPALError result :
         {readers.StartAll(), readers.StopAll(), readers.SeekAll(ms), readers.CancelAll(),
          readers.GetAudioPosition(ms), readers.GetAudioBytesInFlight(bytes),
          readers.GetAudioState(state)})
        EXPECT_EQ(OPAL_OK, result);
    EXPECT_EQ(STREAMING_READER_ERROR, state);
    EXPECT_EQ(0, ms);
    EXPECT_EQ(0U, bytes);
    EXPECT_EQ(static_cast<size_t>(-1), readers.GetCurrentAudio());
}

TEST_F(ReadersTest, ArgumentsAreChecked) {
    ServeLevel("http://host/0");
    ServeAudio("http://host/a", kAudioShape);
    EXPECT_EQ(OPAL_ERROR_INVALID_ARGUMENT,
              readers.AudioInitialize(nullptr, buffer.get(), nullptr, 0));
    for (const size_t beyond : {size_t{1}, static_cast<size_t>(-1)}) {
        EXPECT_EQ(OPAL_ERROR_INVALID_ARGUMENT, InitVideo(beyond));
        EXPECT_EQ(OPAL_ERROR_INVALID_ARGUMENT,
                  readers.AudioInitialize(Manifest(), audioBuffer.get(), nullptr, beyond));
    }
    EXPECT_EQ(OPAL_ERROR_NOT_READY, readers.StartAudio());  // there are readers, none is current
    EXPECT_EQ(OPAL_OK, readers.Finalize());
    EXPECT_EQ(OPAL_OK, InitVideo());
    EXPECT_EQ(OPAL_ERROR_NOT_READY, InitVideo());
    EXPECT_EQ(OPAL_ERROR_INVALID_ARGUMENT, readers.SetVideoStream(1));
    EXPECT_EQ(OPAL_ERROR_INVALID_ARGUMENT, readers.StartTrickPlay(0, OPAL_PLAYRATE_ONEX));
    EXPECT_EQ(OPAL_ERROR_INVALID_ARGUMENT, readers.SetVideoRate(OPAL_PLAYRATE_FOURXFF));
}

TEST_F(ReadersTest, LevelsUpToTheCurrentOneAreOpen) {
    for (int i = 0; i < 6; ++i)
        ServeLevel("http://host/" + std::to_string(i));
    ServeTrick("http://host/t", {});
    ASSERT_EQ(OPAL_OK, InitVideo(3));
    EXPECT_THAT(OpenedUrls(),
                ElementsAre("http://host/0", "http://host/1", "http://host/2", "http://host/3"));
    const std::vector<IClusterIndex*>& indexes = readers.GetVideoClusterIndexes();
    EXPECT_EQ(6U, indexes.size());
    EXPECT_TRUE(indexes[3]);
    EXPECT_FALSE(indexes[4]);
    server->ClearLog();
    EXPECT_EQ(OPAL_OK, readers.SetVideoRate(OPAL_PLAYRATE_FOURXFF));
    EXPECT_THAT(OpenedUrls(), ElementsAre("http://host/t"));
    server->ClearLog();
    EXPECT_EQ(OPAL_OK, readers.SetVideoStream(5));
    EXPECT_THAT(OpenedUrls(), ElementsAre("http://host/4", "http://host/5"));
    EXPECT_TRUE(indexes[4] && indexes[5]);
    EXPECT_EQ(5U, indexes[5]->GetCount());
}

TEST_F(ReadersTest, FailedOpeningsAreTold) {
    for (int i = 0; i < 3; ++i)
        ServeLevel("http://host/" + std::to_string(i));
    const uint64_t missing =
        server->AddRule(FakeRule::Fail(OPAL_ERROR_HTTP_CLIENT, "http://host/0"));
    EXPECT_EQ(OPAL_ERROR_GENERAL, InitVideo());
    EXPECT_EQ(OPAL_OK, readers.Finalize());
    EXPECT_EQ(OPAL_OK, readers.Finalize());
    server->Release(missing);
    server->AddRule(FakeRule::Fail(OPAL_ERROR_HTTP_SERVER, "http://host/1"));
    EXPECT_EQ(OPAL_OK, InitVideo());
    EXPECT_EQ(OPAL_ERROR_HTTP_SERVER, readers.SetVideoStream(2));  // of the level between
}

TEST_F(ReadersTest, OneClusterPerWakeAndWakesOfATransferCountOnce) {
    const auto layout = ServeLevel("http://host/0");
    ASSERT_EQ(OPAL_OK, InitVideo());
    const uint64_t held = server->AddRule(FakeRule::Hold());
    EXPECT_EQ(OPAL_OK, readers.StartVideo());
    ASSERT_TRUE(server->WaitForHeld(held, 1, 10000));
    for (int i = 0; i < 3; ++i)
        EXPECT_EQ(OPAL_OK, Promptly([&] { return readers.StartVideo(); }));
    server->ClearLog();
    server->Release(held);
    ASSERT_TRUE(server->WaitForRequests(1, 10000));
    EXPECT_TRUE(Buffered(4000));
    opal::SleepMs(100);  // five polls, in which nothing may happen
    EXPECT_THAT(server->Reads(), ElementsAre(RangeOf(layout.clusters[1])));

    // A start in a transfer that was cancelled fetches the cluster again.
    FakeRule restart;
    restart.count = 1;
    restart.action = [&] {
        EXPECT_EQ(OPAL_OK, readers.CancelVideo());
        EXPECT_EQ(OPAL_OK, readers.StartVideo());
    };
    server->AddRule(restart);
    server->ClearLog();
    EXPECT_EQ(OPAL_OK, readers.StartVideo());
    EXPECT_TRUE(Buffered(6000));
    const std::string third = RangeOf(layout.clusters[2]);
    EXPECT_THAT(server->Reads(), ElementsAre(third, third));
}

TEST_F(ReadersTest, FullBufferIsPolledWithoutAWake) {
    ServeLevel("http://host/0");
    buffer->SetMaxDuration(2000);
    ASSERT_EQ(OPAL_OK, InitVideo());
    reports.onWrite = [&](OPALStreamType) { (void)readers.StartVideo(); };
    EXPECT_EQ(OPAL_OK, readers.StartVideo());
    const size_t requests = 4 + 1 + 3;  // three attempts for the second cluster
    ASSERT_TRUE(server->WaitForRequests(requests, 10000));
    EXPECT_EQ(2000, buffer->GetBufferedDuration());
    buffer->SetMaxDuration(0);
    EXPECT_TRUE(Buffered(10000));
    int state = 0;
    EXPECT_TRUE(Eventually(
        [&] { return readers.GetVideoState(state) == OPAL_OK && state == STREAMING_READER_END; }));
    EXPECT_EQ(OPAL_OK, readers.GetVideoError());
}

TEST_F(ReadersTest, FatalFailureOrExceptionEndsTheThreadAndStays) {
    ServeLevel("http://host/0");
    for (const OPALError failure : {OPAL_ERROR_HTTP_SERVER, OPAL_ERROR_GENERAL}) {
        ASSERT_EQ(OPAL_OK, InitVideo());
        if (failure == OPAL_ERROR_GENERAL)
            reports.onWrite = [](OPALStreamType) { throw std::runtime_error("of a library"); };
        const uint64_t failing = server->AddRule(FakeRule::Fail(
            failure == OPAL_ERROR_GENERAL ? OPAL_OK : failure, {}, FakeRule::Kind::Read));
        EXPECT_EQ(OPAL_OK, readers.StartVideo());
        EXPECT_TRUE(Eventually([&] { return readers.GetVideoError() == failure; }));
        EXPECT_EQ(failure, readers.StartVideo());
        EXPECT_EQ(OPAL_OK, readers.Finalize());
        server->Release(failing);
    }
}

TEST_F(ReadersTest, SeekOutOfAStalledTransferIsPrompt) {
    const auto video = ServeLevel("http://host/0");
    const auto audio = ServeAudio("http://host/a", kAudioShape);
    ServeSubtitle("http://host/s");
    ASSERT_EQ(OPAL_OK, InitVideo());
    ASSERT_EQ(OPAL_OK, InitAudio());
    const uint64_t held = server->AddRule(FakeRule::Hold());
    ASSERT_EQ(OPAL_OK, readers.StartAll());
    ASSERT_TRUE(server->WaitForHeld(held, 2, 10000));
    EXPECT_EQ(OPAL_OK, Promptly([&] { return readers.CancelAll(); }));
    EXPECT_EQ(OPAL_OK, Promptly([&] { return readers.StopAll(); }));
    server->Release(held);
    // Subtitles that are being opened meanwhile are no obstacle.
    const uint64_t opening = server->AddRule(FakeRule::Hold("http://host/s"));
    ASSERT_EQ(OPAL_OK, InitSubtitle());
    ASSERT_TRUE(server->WaitForHeld(opening, 1, 10000));
    int64_t ms = 5000;
    EXPECT_EQ(OPAL_OK, Promptly([&] { return readers.SeekAll(ms); }));
    EXPECT_EQ(4000, ms);
    EXPECT_EQ(OPAL_OK, readers.GetAudioPosition(ms));
    EXPECT_EQ(3000, ms);
    server->ClearLog();
    EXPECT_EQ(OPAL_OK, readers.StartVideo());
    EXPECT_EQ(OPAL_OK, readers.StartAudio());
    EXPECT_TRUE(Eventually([&] {
        return buffer->GetBufferedDuration() == 2000 && audioBuffer->GetBufferedDuration() == 2000;
    }));
    EXPECT_THAT(server->Reads("http://host/0"), ElementsAre(RangeOf(video.clusters[2])));
    EXPECT_THAT(server->Reads("http://host/a"), ElementsAre(RangeOf(audio.clusters[1])));
}

TEST_F(ReadersTest, FinalizeEndsWhateverRuns) {
    ServeLevel("http://host/0");
    ServeLevel("http://host/1");
    ServeAudio("http://host/a", kAudioShape);
    ServeSubtitle("http://host/s");
    ASSERT_EQ(OPAL_OK, InitVideo());
    ASSERT_EQ(OPAL_OK, InitAudio());
    const uint64_t held = server->AddRule(FakeRule::Hold());
    ASSERT_EQ(OPAL_OK, InitSubtitle());  // stalls in its opening
    ASSERT_EQ(OPAL_OK, readers.StartAudio());
    ASSERT_EQ(OPAL_OK, readers.StartVideo());
    ASSERT_TRUE(server->WaitForHeld(held, 3, 10000));
    auto blocked = std::async(std::launch::async, [&] { return readers.StopVideo(); });
    EXPECT_EQ(OPAL_OK, Promptly([&] { return readers.Finalize(); }));
    (void)blocked.get();
    EXPECT_EQ(0U, server->OpenFiles());
    EXPECT_EQ(0U, readers.GetVideoStreamCount());
    server->Release(held);
    EXPECT_EQ(OPAL_OK, InitVideo(1));  // nothing sticks
}

TEST_F(ReadersTest, StreamThatIsLeftIsStopped) {
    ServeLevel("http://host/0");
    ServeLevel("http://host/1");
    ASSERT_EQ(OPAL_OK, InitVideo(1));
    EXPECT_EQ(OPAL_OK, readers.StartVideo());
    EXPECT_TRUE(Buffered(2000));
    for (const size_t level : {0u, 1u})
        EXPECT_EQ(OPAL_OK, readers.SetVideoStream(level));
    int state = 0;
    EXPECT_EQ(OPAL_OK, readers.GetVideoState(state));
    EXPECT_EQ(STREAMING_READER_STOPPED, state);
}

TEST_F(ReadersTest, SubtitlesOpenInTheBackgroundAndRecover) {
    ServeSubtitle("http://host/s0");
    ServeSubtitle("http://host/s1");
    const auto fail = FakeRule::Fail(OPAL_ERROR_HTTP_SERVER, "http://host/s0");
    const uint64_t failing = server->AddRule(fail);
    ASSERT_EQ(OPAL_OK, InitSubtitle());
    EXPECT_TRUE(SubtitleFails(OPAL_ERROR_HTTP_SERVER));
    EXPECT_EQ(OPAL_OK, readers.SetSubtitleStream(1));
    EXPECT_TRUE(SubtitleIsOpen());
    const void* font = nullptr;
    size_t size = 0;
    EXPECT_EQ(OPAL_OK, readers.GetSubtitleFont(font, size));
    EXPECT_EQ(2U, size);

    // Back to the first: the second one's connection is gone by then, and nothing of the failure
    // has stayed.
    server->Release(failing);
    std::atomic<size_t> openBefore{99};
    FakeRule look;
    look.kind = FakeRule::Kind::Open;
    look.action = [&] { openBefore = server->OpenFiles(); };
    server->AddRule(look);
    EXPECT_EQ(OPAL_OK, readers.SetSubtitleStream(0));
    EXPECT_TRUE(SubtitleIsOpen());
    EXPECT_EQ(0U, openBefore);

    server->AddRule(FakeRule::Fail(OPAL_ERROR_HTTP_CLIENT, "http://host/s0"));
    EXPECT_EQ(OPAL_OK, readers.StartSubtitle());
    EXPECT_TRUE(SubtitleFails(OPAL_ERROR_HTTP_CLIENT));
    EXPECT_EQ(OPAL_OK, readers.FinalizeSubtitle());
    EXPECT_EQ(0U, readers.GetSubtitleStreamCount());
    EXPECT_EQ(OPAL_OK, readers.StopAll());
    EXPECT_EQ(OPAL_OK, InitSubtitle(1));
    EXPECT_TRUE(SubtitleIsOpen());
    const uint64_t stalled = server->AddRule(FakeRule::Hold("http://host/s1"));
    EXPECT_EQ(OPAL_OK, readers.StartSubtitle());
    ASSERT_TRUE(server->WaitForHeld(stalled, 1, 10000));
    EXPECT_EQ(OPAL_OK, Promptly([&] { return readers.FinalizeSubtitle(); }));
}

TEST_F(ReadersTest, OperationsFromManyThreadsAndShutdownAtAnyTime) {
    ServeLevel("http://host/0");
    ServeLevel("http://host/1");
    ServeAudio("http://host/a", kAudioShape);
    reports.onWrite = [&](OPALStreamType type) {
        (void)(type == OPAL_STREAM_AUDIO ? readers.StartAudio() : readers.StartVideo());
    };
    for (int round = 0; round < 15; ++round) {
        ASSERT_EQ(OPAL_OK, InitVideo());
        ASSERT_EQ(OPAL_OK, InitAudio());
        std::atomic<bool> stop{false};
        auto watch = std::async(std::launch::async, [&] {
            int state = 0;
            size_t bytes = 0;
            while (!stop) {
                (void)readers.GetVideoState(state);
                (void)readers.GetVideoBytesInFlight(bytes);
                (void)readers.GetAudioError();
                (void)readers.CancelAll();
            }
        });
        for (int64_t i = 0; i < 10; ++i) {
            int64_t ms = i * 700;
            (void)readers.StartAll();
            if (i % 3 == 2)
                (void)readers.StopAll();
            (void)readers.SeekAll(ms);
            (void)readers.SetVideoStream(static_cast<size_t>(i % 2));
        }
        opal::SleepMs(round);
        EXPECT_EQ(OPAL_OK, Promptly([&] { return readers.Finalize(); }));
        stop = true;
        watch.get();
        (void)buffer->Clear();
        (void)audioBuffer->Clear();
    }
}

TEST_F(ReadersTest, StopsWhenThePipeIsFull) {
    ServeLevel("http://host/0", {package::TrackKind::Video, 14, 1, 999950, 2000, false});
    ASSERT_EQ(OPAL_OK, InitVideo());
    server->ClearLog();
    reports.onWrite = [&](OPALStreamType) { (void)readers.StartVideo(); };
    FakePlatform sink;
    sink.AcceptBlocks(0);
    const std::unique_ptr<IStreamingWriter> writer(
        NewStreamingWriter(buffer.get(), &sink, OPAL_STREAM_VIDEO, OPAL_WRITER_MODEL_PUSH));
    ASSERT_EQ(OPAL_OK, writer->Initialize());
    ASSERT_EQ(OPAL_OK, writer->Start());
    ASSERT_EQ(OPAL_OK, readers.StartVideo());
    ASSERT_TRUE(server->WaitForRequests(13, 10000));  // 12 buffered and one in the parser
    opal::SleepMs(100);
    EXPECT_EQ(13U, server->Reads().size());
    EXPECT_EQ(OPAL_OK, readers.Finalize());
}

}  // namespace
}  // namespace opal::test
