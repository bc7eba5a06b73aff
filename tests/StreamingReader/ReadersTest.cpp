#include "StreamingReader/Readers.h"

#include <gmock/gmock.h>

#include <atomic>
#include <future>
#include <stdexcept>

#include "SMILParser/ISMILParser.h"
#include "StreamingReader/ReaderFixture.h"

namespace opal::test {
namespace {

using testing::ElementsAre;

const MediaShape kAudio{package::TrackKind::Audio, 5, 4, 100, 3000, false};
const MediaShape kSubtitle{package::TrackKind::Subtitle};

class ReadersTest : public ReaderFixture {
  protected:
    /// A level or track more, at "http://host/" + `name`.
    package::FileLayout Add(const std::string& element, const std::string& name,
                            const MediaShape& shape = {}) {
        const std::string url = "http://host/" + name;
        const auto layout = Serve(url, shape);
        m_entries += "<" + element + " src='" + url + "' xml:lang='eng' systemBitrate='" +
                     std::to_string(++m_count) + "'><param name='header-request' value='" +
                     std::to_string(layout.headerSize) + "'/></" + element + ">";
        return layout;
    }
    /// Of what has been added so far.
    ISMILParser* Manifest() {
        const std::string text = "<smil><body><par>" + m_entries + "</par></body></smil>";
        m_parser.reset(NewSMILParser());
        EXPECT_EQ(OPAL_OK, m_parser->ParseSMILData(text.c_str(), text.size()));
        return m_parser.get();
    }
    OPALError InitVideo(size_t level = 0) {
        return readers.VideoInitialize(Manifest(), buffer.get(), &reports, level);
    }
    OPALError InitAudio(size_t track = 0) {
        return readers.AudioInitialize(Manifest(), audioBuffer.get(), &reports, track);
    }
    bool Buffered(int64_t ms) {
        return Eventually([this, ms] { return buffer->GetBufferedDuration() == ms; });
    }
    bool SubtitleIsOpen() {
        return Eventually([this] {
            int state = STREAMING_READER_ERROR;
            return readers.GetSubtitleState(state) == OPAL_OK && state == STREAMING_READER_STOPPED;
        });
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

  private:
    std::string m_entries;
    int m_count = 0;
    std::unique_ptr<ISMILParser> m_parser;
};

TEST_F(ReadersTest, WhatIsNotThereIsRefused) {
    Add("video", "0");
    Add("audio", "a", kAudio);
    for (const size_t beyond : {size_t{1}, static_cast<size_t>(-1)}) {
        EXPECT_EQ(OPAL_ERROR_INVALID_ARGUMENT, InitVideo(beyond));
        EXPECT_EQ(OPAL_ERROR_INVALID_ARGUMENT, InitAudio(beyond));
    }
    EXPECT_EQ(OPAL_ERROR_NOT_READY, readers.StartAudio());  // there are readers, none is current
    EXPECT_EQ(OPAL_OK, readers.Finalize());
    EXPECT_EQ(OPAL_OK, InitVideo());
    EXPECT_EQ(OPAL_ERROR_NOT_READY, InitVideo());
    EXPECT_EQ(OPAL_ERROR_INVALID_ARGUMENT, readers.SetVideoStream(1));
    EXPECT_EQ(OPAL_ERROR_INVALID_ARGUMENT, readers.StartTrickPlay(0, OPAL_PLAYRATE_ONEX));
}

TEST_F(ReadersTest, LevelsUpToTheCurrentOneAreOpen) {
    for (const char* level : {"0", "1", "2", "3"})
        Add("video", level);
    ASSERT_EQ(OPAL_OK, InitVideo(1));
    EXPECT_THAT(OpenedUrls(), ElementsAre("http://host/0", "http://host/1"));
    const std::vector<IClusterIndex*>& indexes = readers.GetVideoClusterIndexes();
    EXPECT_EQ(4U, indexes.size());
    EXPECT_TRUE(indexes[1]);
    EXPECT_FALSE(indexes[2]);
    server->ClearLog();
    EXPECT_EQ(OPAL_OK, readers.SetVideoStream(3));
    EXPECT_THAT(OpenedUrls(), ElementsAre("http://host/2", "http://host/3"));
    EXPECT_TRUE(indexes[2]);
    EXPECT_TRUE(indexes[3]);

    EXPECT_EQ(OPAL_OK, readers.Finalize());
    server->AddRule(FakeRule::Fail(OPAL_ERROR_HTTP_SERVER, "http://host/1"));
    EXPECT_EQ(OPAL_OK, InitVideo());
    EXPECT_EQ(OPAL_ERROR_HTTP_SERVER, readers.SetVideoStream(2));  // of the level between
    EXPECT_EQ(OPAL_OK, readers.Finalize());
    EXPECT_EQ(OPAL_ERROR_GENERAL, InitVideo(1));
}

TEST_F(ReadersTest, OneClusterPerWakeAndWakesOfATransferCountOnce) {
    const auto layout = Add("video", "0");
    ASSERT_EQ(OPAL_OK, InitVideo());
    const uint64_t held = server->AddRule(FakeRule::Hold());
    EXPECT_EQ(OPAL_OK, readers.StartVideo());
    ASSERT_TRUE(server->WaitForHeld(held, 1, 10000));
    for (int i = 0; i < 3; ++i)
        EXPECT_EQ(OPAL_OK, Promptly([&] { return readers.StartVideo(); }));
    server->ClearLog();
    server->Release(held);
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
    const auto layout = Add("video", "0");
    const std::unique_ptr<IClusterBuffer> small(NewClusterBuffer(layout.clusters[2].size * 2));
    ASSERT_EQ(OPAL_OK, readers.VideoInitialize(Manifest(), small.get(), &reports, 0));
    reports.onWrite = [&](OPALStreamType) { (void)readers.StartVideo(); };
    server->ClearLog();
    EXPECT_EQ(OPAL_OK, readers.StartVideo());
    EXPECT_TRUE(Eventually([&] { return small->GetBufferedDuration() == 4000; }));
    opal::SleepMs(100);  // five polls, without a request
    EXPECT_EQ(2U, server->Reads().size());
    qutl::MemoryBuffer<unsigned char> bytes;
    ClusterInfo info;
    EXPECT_EQ(OPAL_OK, small->Read(bytes, info));
    EXPECT_TRUE(Eventually([&] { return server->Reads().size() == 3; }));
    EXPECT_EQ(OPAL_OK, readers.Finalize());
}

TEST_F(ReadersTest, ExceptionEndsTheThreadAndStays) {
    Add("video", "0");
    ASSERT_EQ(OPAL_OK, InitVideo());
    reports.onWrite = [](OPALStreamType) { throw std::runtime_error("of a library"); };
    EXPECT_EQ(OPAL_OK, readers.StartVideo());
    EXPECT_TRUE(Eventually([&] { return readers.GetVideoError() == OPAL_ERROR_GENERAL; }));
    EXPECT_EQ(OPAL_ERROR_GENERAL, readers.StartVideo());
    EXPECT_EQ(OPAL_OK, readers.Finalize());
    EXPECT_EQ(OPAL_OK, InitVideo());  // nothing sticks
}

TEST_F(ReadersTest, SeekOutOfAStalledTransferIsPrompt) {
    const auto video = Add("video", "0");
    Add("audio", "a", kAudio);
    ASSERT_EQ(OPAL_OK, InitVideo());
    ASSERT_EQ(OPAL_OK, InitAudio());
    const uint64_t held = server->AddRule(FakeRule::Hold());
    ASSERT_EQ(OPAL_OK, readers.StartAll());
    ASSERT_TRUE(server->WaitForHeld(held, 2, 10000));
    EXPECT_EQ(OPAL_OK, Promptly([&] { return readers.CancelAll(); }));
    EXPECT_EQ(OPAL_OK, Promptly([&] { return readers.StopAll(); }));
    server->Release(held);
    int64_t ms = 5000;
    EXPECT_EQ(OPAL_OK, Promptly([&] { return readers.SeekAll(ms); }));
    EXPECT_EQ(4000, ms);
    EXPECT_EQ(OPAL_OK, readers.GetAudioPosition(ms));
    EXPECT_EQ(3000, ms);
    server->ClearLog();
    EXPECT_EQ(OPAL_OK, readers.StartVideo());
    EXPECT_TRUE(Buffered(2000));
    EXPECT_THAT(server->Reads(), ElementsAre(RangeOf(video.clusters[2])));
}

TEST_F(ReadersTest, StreamThatIsLeftIsStopped) {
    Add("video", "0");
    Add("video", "1");
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
    Add("textstream", "s0", kSubtitle);
    Add("textstream", "s1", kSubtitle);
    const uint64_t failing =
        server->AddRule(FakeRule::Fail(OPAL_ERROR_HTTP_SERVER, "http://host/s0"));
    ASSERT_EQ(OPAL_OK, readers.SubtitleInitialize(Manifest(), subtitleBuffer.get(), &reports, 0));
    EXPECT_TRUE(Eventually([&] { return readers.GetSubtitleError() == OPAL_ERROR_HTTP_SERVER; }));
    EXPECT_EQ(OPAL_OK, readers.SetSubtitleStream(1));
    EXPECT_TRUE(SubtitleIsOpen());

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
}

TEST_F(ReadersTest, OperationsFromManyThreadsAndShutdownAtAnyTime) {
    Add("video", "0");
    Add("video", "1");
    Add("audio", "a", kAudio);
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
    }
}

}  // namespace
}  // namespace opal::test
