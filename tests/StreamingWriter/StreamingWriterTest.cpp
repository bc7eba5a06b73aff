#include <gmock/gmock.h>

#include <atomic>
#include <future>
#include <limits>
#include <memory>
#include <thread>

#include "Common/Clock.h"
#include "StreamingDemux/EBML/IClusterBuffer.h"
#include "StreamingWriter/IStreamingWriter.h"
#include "support/FakePlatform.h"
#include "support/TestMedia.h"

namespace opal::test {
namespace {

using testing::ElementsAre;
using Op = FakePlatform::Op;

/// A buffer that tests fill, a writer, and a sink. Without Initialize no thread runs: the test
/// steps with WriteBlocks.
class StreamingWriterTest : public testing::Test {
  protected:
    void Make(OPALStreamType type = OPAL_STREAM_VIDEO,
              OPALWriterModel model = OPAL_WRITER_MODEL_PUSH, IPlatform* other = nullptr) {
        writer.reset(NewStreamingWriter(buffer.get(), other ? other : &sink, type, model));
        EXPECT_EQ(OPAL_OK, writer->Start());
    }
    void Put(std::vector<uint8_t> bytes, uint32_t level, int32_t index, uint32_t count,
             int64_t frameDurationNs = 500000000) {
        qutl::MemoryBuffer<unsigned char> data;
        data.Assign(bytes.data(), bytes.size(), 0, false);
        ClusterInfo info;
        info.duration = 2000;
        info.level = level;
        info.clusterIndex = index;
        info.clusterCount = count;
        info.frameDuration = frameDurationNs;
        EXPECT_EQ(OPAL_OK, buffer->Write(data, info));
    }
    /// The clusters of a file, the first `levels.size()` of them, each with its level.
    void PutMedia(const MediaShape& shape, const std::vector<uint32_t>& levels) {
        const package::BuiltFile file = MakeMedia(shape);
        for (size_t i = 0; i < levels.size(); ++i) {
            const auto from =
                file.bytes.begin() + static_cast<long>(file.layout.clusters[i].offset);
            Put({from, from + static_cast<long>(file.layout.clusters[i].size)}, levels[i],
                static_cast<int32_t>(i), static_cast<uint32_t>(levels.size()));
        }
    }
    /// Steps until the writer has nothing, for as many rounds as a test may need.
    OPALError Drain() {
        OPALError result = OPAL_OK;
        for (int i = 0; i < 100 && result == OPAL_OK; ++i)
            result = writer->WriteBlocks();
        return result;
    }
    std::vector<int64_t> Times() const {
        std::vector<int64_t> times;
        for (const FakePlatform::Block& block : sink.Blocks())
            times.push_back(block.time);
        return times;
    }

    const std::unique_ptr<IClusterBuffer> buffer{NewClusterBuffer(1000000)};
    CallJournal journal;
    FakePlatform sink{"sink", &journal};
    std::unique_ptr<IStreamingWriter> writer;
};

TEST_F(StreamingWriterTest, VideoGoesBlockByBlockToItsEndAndNoneIsLost) {
    PutMedia({}, {0, 0});
    Make();
    sink.SetTrailerSize(4);
    sink.FailNext(Op::Queue, OPAL_ERROR_NOT_YET, 2);
    EXPECT_EQ(OPAL_ERROR_NOT_YET, writer->WriteBlocks());
    EXPECT_EQ(OPAL_ERROR_NOT_YET, writer->WriteBlocks());
    EXPECT_EQ(OPAL_OK, writer->WriteBlocks());
    EXPECT_EQ(1U, sink.BlockCount());
    EXPECT_EQ(500, sink.ClusterTimeMs());
    sink.SetBufferedDurationMs(500);
    EXPECT_FALSE(writer->IsEndOfStream());
    EXPECT_EQ(OPAL_ERROR_END_OF_DATA, Drain());
    EXPECT_THAT(Times(), ElementsAre(0, 500, 1000, 1500, 2000, 2500, 3000, 3500));
    EXPECT_EQ(500, sink.Blocks()[3].duration);
    EXPECT_EQ(100U, sink.Blocks()[3].data.size());  // the padding is the sink's, not the block's
    EXPECT_EQ(3, sink.Blocks()[3].data[99]);
    EXPECT_TRUE(writer->IsEndOfStream());
    sink.SetBufferedDurationMs(501);
    EXPECT_FALSE(writer->IsEndOfStream());
    int64_t ms = 0;
    EXPECT_EQ(OPAL_OK, writer->GetBufferedDuration(ms));
    EXPECT_EQ(501 + 500, ms);  // of each cluster the first frame is not taken off
    sink.FailNext(Op::GetBufferedDuration, OPAL_ERROR_NOT_READY, 1);
    EXPECT_EQ(OPAL_ERROR_GENERAL, writer->GetBufferedDuration(ms));

    EXPECT_EQ(OPAL_OK, writer->Flush());
    sink.SetBufferedDurationMs(0);
    EXPECT_FALSE(writer->IsEndOfStream());
    EXPECT_EQ(OPAL_ERROR_NOT_YET, writer->WriteBlocks());
    sink.FailNext(Op::SetPaused, OPAL_ERROR_GENERAL, 1);
    EXPECT_EQ(OPAL_ERROR_GENERAL, writer->Pause());
    EXPECT_EQ(OPAL_ERROR_GENERAL, writer->GetError());
}

TEST_F(StreamingWriterTest, RoundOfAudioSpansThirtyMilliseconds) {
    MediaShape shape{package::TrackKind::Audio, 1, 25, 10, 500, false};
    PutMedia(shape, {0});  // blocks of 20 ms
    Make(OPAL_STREAM_AUDIO);
    EXPECT_EQ(OPAL_OK, writer->WriteBlocks());
    EXPECT_THAT(Times(), ElementsAre(0, 20, 40));
    (void)Drain();
    EXPECT_EQ(25U, sink.BlockCount());
    EXPECT_EQ(OPAL_OK, writer->Flush());
    shape.clusterMs = 25;  // of 1 ms
    PutMedia(shape, {0});
    EXPECT_EQ(OPAL_OK, writer->WriteBlocks());
    EXPECT_EQ(35U, sink.BlockCount());
}

TEST_F(StreamingWriterTest, ClustersOfTheDiscardedLevelAreDropped) {
    PutMedia({}, {1, 1, 2, 1});
    Make(OPAL_STREAM_SUBTITLE);
    sink.SetBufferedDurationMs(0);
    EXPECT_EQ(OPAL_OK, writer->SetDiscardLevel(1));
    EXPECT_EQ(OPAL_ERROR_NOT_YET, writer->WriteBlocks());
    EXPECT_EQ(OPAL_ERROR_NOT_YET, writer->WriteBlocks());
    EXPECT_EQ(OPAL_ERROR_END_OF_DATA, Drain());
    EXPECT_THAT(Times(), ElementsAre(4000, 4500, 5000, 5500, 6000, 6500, 7000, 7500));
    EXPECT_EQ(2U + 9U, sink.Calls(Op::Refresh));

    EXPECT_EQ(OPAL_OK, writer->Flush());
    EXPECT_EQ(OPAL_OK, writer->SetDiscardLevel(1));
    PutMedia({}, {1});  // the stream's last: dropped all the same, and no end of data reached
    EXPECT_EQ(OPAL_ERROR_NOT_YET, writer->WriteBlocks());
    EXPECT_EQ(OPAL_ERROR_NOT_YET, writer->WriteBlocks());
    EXPECT_TRUE(writer->IsEndOfStream());
}

// The underflow watch adds up buffer and writer at any moment.
TEST_F(StreamingWriterTest, AClusterCountsAllTheWayFromTheBufferToTheSink) {
    class Sink : public FakePlatform {
      public:
        OPALError SetClusterTime(int64_t) override {
            taken();
            return OPAL_OK;
        }
        OPALError GetBufferedDuration(int64_t& ms) override {
            const OPALError result = FakePlatform::GetBufferedDuration(ms);
            asked();
            return result;
        }
        std::function<void()> taken;
        std::function<void()> asked = [] {};
    } taking;
    PutMedia({}, {0});
    Make(OPAL_STREAM_VIDEO, OPAL_WRITER_MODEL_PUSH, &taking);
    int64_t counted = 0;
    taking.taken = [&] {
        EXPECT_EQ(0, buffer->GetBufferedDuration());
        EXPECT_EQ(OPAL_OK, writer->GetBufferedDuration(counted));
    };
    EXPECT_EQ(OPAL_OK, writer->WriteBlocks());
    EXPECT_EQ(2000, counted);
    taking.asked = [&] {  // blocks that move on in the middle of the question
        for (int i = 0; i < 3; ++i)
            EXPECT_EQ(OPAL_OK, writer->WriteBlocks());
    };
    EXPECT_EQ(OPAL_OK, writer->GetBufferedDuration(counted));
    EXPECT_GE(counted, 2000);
    writer.reset();
}

TEST_F(StreamingWriterTest, LevelOnTheScreenFollowsTheTime) {
    PutMedia({}, {0, 2, 2, 1});
    Make();
    size_t level = 77;
    EXPECT_EQ(OPAL_ERROR_GENERAL, writer->GetLevelForTime(0, level));
    (void)Drain();
    EXPECT_EQ(OPAL_ERROR_GENERAL, writer->GetLevelForTime(-1, level));
    EXPECT_EQ(77U, level);
    const std::pair<int64_t, size_t> kCases[] = {
        {0, 0}, {1999, 0}, {2000, 2}, {5999, 2}, {9999, 1}};
    for (const auto& [time, expected] : kCases) {
        EXPECT_EQ(OPAL_OK, writer->GetLevelForTime(time, level));
        EXPECT_EQ(expected, level) << time;
    }
    EXPECT_EQ(OPAL_ERROR_GENERAL, writer->GetLevelForTime(0, level));  // forgotten

    EXPECT_EQ(OPAL_OK, writer->Flush());
    EXPECT_EQ(OPAL_OK, writer->SetRate(OPAL_PLAYRATE_FOURXRW));
    EXPECT_EQ(OPAL_PLAYRATE_FOURXRW, sink.Rate());
    PutMedia({}, {5});
    EXPECT_EQ(OPAL_ERROR_END_OF_DATA, Drain());  // number 0 is the last in reverse
    EXPECT_EQ(OPAL_ERROR_GENERAL, writer->GetLevelForTime(1501, level));
    EXPECT_EQ(OPAL_OK, writer->GetLevelForTime(1500, level));
    EXPECT_EQ(5U, level);
    std::vector<int64_t> times = Times();
    times.erase(times.begin(), times.end() - 4);
    EXPECT_THAT(times, ElementsAre(1500, 1000, 500, 0));
}

TEST_F(StreamingWriterTest, BadMediaDoesNoHarm) {
    // A group with a block at -1 ms and no duration, one with a duration of -56.
    const std::vector<uint8_t> odd = {0x1F, 0x43, 0xB6, 0x75, 0x9A, 0xE7, 0x81, 0x00,
                                      0xA0, 0x88, 0xA1, 0x86, 0x81, 0xFF, 0xFF, 0x00,
                                      0xAA, 0xAA, 0xA0, 0x8B, 0xA1, 0x86, 0x81, 0x00,
                                      0x05, 0x00, 0xBB, 0xBB, 0x9B, 0x81, 0xC8};
    Make();
    sink.SetTrailerSize(0);
    Put(odd, 0, 0, 9, 40000000);
    EXPECT_EQ(OPAL_ERROR_NOT_YET, Drain());
    EXPECT_THAT(sink.Blocks(), ElementsAre(FakePlatform::Block{{0xAA, 0xAA}, 0, 40},
                                           FakePlatform::Block{{0xBB, 0xBB}, 5, 40}));
    Put(odd, 0, 1, 9, std::numeric_limits<int64_t>::min());
    EXPECT_EQ(OPAL_ERROR_NOT_YET, Drain());
    EXPECT_EQ(0, sink.Blocks().back().duration);
}

TEST_F(StreamingWriterTest, PullModelHandsBlocksOut) {
    qutl::MemoryBuffer<unsigned char> data;
    int64_t time = 0;
    int64_t duration = 0;
    uint32_t level = 0;
    uint32_t flags = 0;
    const auto pull = [&] { return writer->PullBlock(data, time, duration, level, flags); };
    PutMedia({}, {3});
    Make();
    EXPECT_EQ(OPAL_ERROR_OUT_OF_RANGE, pull());
    Make(OPAL_STREAM_TRICK, OPAL_WRITER_MODEL_PULL);
    EXPECT_EQ(OPAL_OK, writer->Pause());
    EXPECT_EQ(OPAL_ERROR_NOT_YET, pull());
    EXPECT_EQ(OPAL_OK, writer->Start());
    for (int block = 0; block < 4; ++block) {
        EXPECT_EQ(OPAL_OK, pull());
        EXPECT_EQ(500 * block, time);
        EXPECT_EQ(3U, level);
        EXPECT_EQ(16U, flags);
    }
    EXPECT_EQ(OPAL_ERROR_END_OF_DATA, pull());
    EXPECT_TRUE(data.IsEmpty());
    size_t shown = 0;
    EXPECT_EQ(OPAL_OK, writer->GetLevelForTime(0, shown));  // trick tracks count as video
    EXPECT_EQ(3U, shown);
}

TEST_F(StreamingWriterTest, ThreadDeliversEverythingBetweenPauses) {
    const MediaShape shape{package::TrackKind::Video, 10, 20, 50, 2000, false};
    PutMedia(shape, std::vector<uint32_t>(10, 0));
    Make();
    ASSERT_EQ(OPAL_OK, writer->Initialize());
    EXPECT_EQ(OPAL_ERROR_NOT_READY, writer->Initialize());
    for (int i = 0; i < 20; ++i) {
        sink.AcceptBlocks(10);
        EXPECT_EQ(OPAL_OK, writer->Start());
        EXPECT_TRUE(sink.WaitForCalls(Op::Queue, sink.QueueCalls() + 1));
        EXPECT_EQ(OPAL_OK, writer->Pause());
        const size_t calls = sink.QueueCalls();
        std::this_thread::yield();
        EXPECT_EQ(calls, sink.QueueCalls());
    }
    sink.AcceptBlocks(FakePlatform::kAlways);
    EXPECT_EQ(OPAL_OK, writer->Start());
    ASSERT_TRUE(sink.WaitForBlocks(200));
    const std::vector<int64_t> times = Times();
    for (size_t i = 0; i < times.size(); ++i)
        EXPECT_EQ(static_cast<int64_t>(i) * 100, times[i]);
    EXPECT_EQ(OPAL_OK, writer->GetError());
    EXPECT_EQ(OPAL_OK, writer->Finalize());
    EXPECT_EQ(OPAL_ERROR_TERMINATED, writer->GetError());
    EXPECT_EQ(OPAL_OK, writer->Initialize());  // and again
    EXPECT_EQ(OPAL_OK, writer->GetError());
}

TEST_F(StreamingWriterTest, PauseEndsARoundThatTheSinkHoldsUp) {
    PutMedia({}, {0});
    Make(OPAL_STREAM_SUBTITLE);
    std::promise<void> inSink;
    sink.SetQueueHook([&](const FakePlatform::Block&) {
        inSink.set_value();
        while (!sink.IsPaused())  // a text that stays until its end, or until the pause
            opal::SleepMs(1);
    });
    ASSERT_EQ(OPAL_OK, writer->Initialize());
    EXPECT_EQ(OPAL_OK, writer->Start());
    inSink.get_future().wait();
    EXPECT_EQ(OPAL_OK, writer->Pause());
    EXPECT_EQ(1U, sink.BlockCount());
    EXPECT_EQ(OPAL_OK, writer->Finalize());
}

/// Counts the sleeps of the library's threads.
class CountingClock : public Clock {
  public:
    CountingClock() { SetClock(this); }
    ~CountingClock() override { SetClock(nullptr); }
    boost::posix_time::ptime Now() override { return {}; }
    void SleepMs(int64_t ms) override {
        ++sleeps;
        std::this_thread::sleep_for(std::chrono::milliseconds(ms));
    }
    std::atomic<int> sleeps{0};
};

TEST_F(StreamingWriterTest, DisabledWriterSleepsAndLeavesTheSinkAlone) {
    CountingClock clock;
    PutMedia({}, {0});
    Make();
    ASSERT_EQ(OPAL_OK, writer->SetDisabled(true));
    sink.SetBufferedDurationMs(900);
    int64_t ms = 1;
    EXPECT_EQ(OPAL_OK, writer->GetBufferedDuration(ms));
    EXPECT_EQ(0, ms);
    EXPECT_EQ(OPAL_OK, writer->Flush());
    EXPECT_EQ(OPAL_OK, writer->Start());
    EXPECT_EQ(OPAL_OK, writer->WriteBlocks());
    EXPECT_EQ(0, clock.sleeps);  // in the loop, not in the round
    ASSERT_EQ(OPAL_OK, writer->Initialize());
    EXPECT_EQ(OPAL_OK, writer->Start());
    while (clock.sleeps < 3)
        std::this_thread::yield();
    EXPECT_EQ(OPAL_OK, writer->Finalize());
    EXPECT_THAT(journal.Lines(), ElementsAre("sink SetPaused false"));  // Make's
    EXPECT_EQ(0U, sink.QueueCalls());
}

}  // namespace
}  // namespace opal::test
