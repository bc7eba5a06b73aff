#include <gmock/gmock.h>

#include <future>
#include <limits>

#include "StreamingReader/ReaderFixture.h"

namespace opal::test {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

constexpr char kUrl[] = "http://host/v";

class StreamingReaderTest : public ReaderFixture {
  protected:
    void Make(const MediaShape& shape = {}, OPALStreamType type = OPAL_STREAM_VIDEO) {
        layout = Serve(kUrl, shape);
        reader.reset(NewStreamingReader(kUrl, layout.headerSize, buffer.get(), &reports, type, 3));
    }
    void MakeOpen(const MediaShape& shape = {}, OPALStreamType type = OPAL_STREAM_VIDEO) {
        Make(shape, type);
        EXPECT_EQ(OPAL_OK, reader->Open());
        server->ClearLog();
    }
    /// Bytes of a trick cluster: its opening and these frames.
    std::string TrickRange(size_t cluster, const std::vector<size_t>& frames) const {
        const package::ClusterLayout& c = layout.clusters[cluster];
        const auto text = [](uint64_t from, uint64_t to) {
            return std::to_string(from) + "-" + std::to_string(to - 1);
        };
        std::string ranges = text(c.offset, c.frameOffsets[0]);
        for (const size_t frame : frames)
            ranges += "," + text(c.frameOffsets[frame], frame + 1 < c.frameOffsets.size()
                                                            ? c.frameOffsets[frame + 1]
                                                            : c.offset + c.size);
        return ranges;
    }

    package::FileLayout layout;
    std::unique_ptr<IStreamingReader> reader;
};

TEST_F(StreamingReaderTest, EachFailureOfOpeningSticksUntilTheNextOpen) {
    Make();
    for (int failing = 0; failing < 4; ++failing) {
        FakeRule rule = FakeRule::Fail(OPAL_ERROR_HTTP_SERVER);
        rule.skip = failing;
        const uint64_t id = server->AddRule(rule);
        EXPECT_EQ(OPAL_ERROR_HTTP_SERVER, reader->Open());
        server->Release(id);
        int64_t ms = 0;
        EXPECT_EQ(STREAMING_READER_ERROR, reader->GetState()) << failing;
        EXPECT_TRUE(reader->HasError());
        for (const OPALError result :
             {reader->GetError(), reader->Start(), reader->StartDelayed(1), reader->Stop(),
              reader->Seek(ms), reader->GetPosition(ms), reader->DownloadNext(OPAL_PLAYRATE_ONEX)})
            EXPECT_EQ(OPAL_ERROR_HTTP_SERVER, result);
        EXPECT_EQ(OPAL_OK, reader->Open());
        EXPECT_EQ(OPAL_OK, reader->GetError());
        EXPECT_EQ(OPAL_OK, reader->Finalize());
    }
}

TEST_F(StreamingReaderTest, FilesCutOrSpoiltAnywhereFailWithoutHarm) {
    const package::BuiltFile file = MakeMedia({});
    Make();
    for (size_t at = 0; at < file.bytes.size(); at += 7) {
        for (const bool cut : {true, false}) {
            std::string bytes(file.bytes.begin(), file.bytes.end());
            if (cut)
                bytes.resize(at + 1);
            else
                bytes[at] = static_cast<char>(bytes[at] ^ 0xFF);
            server->AddFile(kUrl, bytes);
            if (reader->Open() == OPAL_OK) {
                int64_t ms = std::numeric_limits<int64_t>::max();
                (void)reader->Seek(ms);
                (void)reader->DownloadNext(OPAL_PLAYRATE_ONEX);
                size_t ahead = 0;
                EXPECT_EQ(OPAL_OK, reader->GetBytesAhead(ms, ahead));
            }
            EXPECT_EQ(OPAL_OK, reader->Finalize());
            (void)buffer->Clear();
        }
    }
}

TEST_F(StreamingReaderTest, CuesOfImplausibleSizeAreNotFetched) {
    constexpr uint64_t kMaxCues = 16 * 1024 * 1024;
    const package::BuiltFile file = MakeMedia({});
    Make();
    const auto openWith = [&](uint64_t totalSize, size_t fileSize) {
        std::string bytes(file.bytes.begin(), file.bytes.end());
        bytes.resize(fileSize, '\0');
        uint64_t payload = totalSize - 12;  // identifier, and a size in eight bytes
        for (size_t at = layout.cuesOffset + 11; at > layout.cuesOffset + 4; --at, payload >>= 8)
            bytes[at] = static_cast<char>(payload);
        bytes[layout.cuesOffset + 4] = 1;
        server->AddFile(kUrl, std::move(bytes));
        server->ClearLog();
        const OPALError opened = reader->Open();
        EXPECT_EQ(OPAL_OK, reader->Finalize());
        return std::make_pair(opened, server->Reads().size());
    };
    const auto refused = std::make_pair(OPAL_ERROR_GENERAL, size_t{2});
    const auto fetched = std::make_pair(OPAL_OK, size_t{3});
    server->ClearLog();
    reader.reset(
        NewStreamingReader(kUrl, kMaxCues + 1, buffer.get(), &reports, OPAL_STREAM_VIDEO, 0));
    EXPECT_EQ(OPAL_ERROR_GENERAL, reader->Open()) << "nor a header of that size";
    EXPECT_THAT(server->Reads(), IsEmpty());
    Make();

    const size_t rest = file.bytes.size() - layout.cuesOffset;
    EXPECT_EQ(refused, openWith(rest + 1, file.bytes.size()));
    EXPECT_EQ(refused, openWith(uint64_t{1} << 55, file.bytes.size()));
    EXPECT_EQ(refused, openWith(kMaxCues + 1, layout.cuesOffset + kMaxCues + 1));
    EXPECT_EQ(fetched, openWith(kMaxCues, layout.cuesOffset + kMaxCues));
}

TEST_F(StreamingReaderTest, DeliversClusterAfterClusterFromWhereItWasSought) {
    Make();
    int64_t ms = -1;
    EXPECT_EQ(STREAMING_READER_NOT_OPEN, reader->GetState());
    EXPECT_EQ(OPAL_ERROR_NOT_READY, reader->GetPosition(ms));
    EXPECT_EQ(OPAL_ERROR_NOT_READY, reader->DownloadNext(OPAL_PLAYRATE_ONEX));
    ASSERT_EQ(OPAL_OK, reader->Open());
    server->ClearLog();
    EXPECT_EQ(OPAL_ERROR_INVALID_ARGUMENT, reader->Seek(ms));
    EXPECT_EQ(-1, ms);
    const std::pair<int64_t, int64_t> kSeeks[] = {{std::numeric_limits<int64_t>::max(), 8000},
                                                  {5000, 4000}};
    for (const auto& [asked, landed] : kSeeks) {
        ms = asked;
        EXPECT_EQ(OPAL_OK, reader->Seek(ms));
        EXPECT_EQ(landed, ms);
    }
    std::vector<std::string> reported;
    for (size_t i = 2; i < layout.clusters.size(); ++i) {
        EXPECT_EQ(OPAL_OK, reader->GetPosition(ms));
        EXPECT_EQ(static_cast<int64_t>(i) * 2000, ms);
        EXPECT_EQ(OPAL_OK, reader->DownloadNext(OPAL_PLAYRATE_ONEX));
        EXPECT_EQ(RangeOf(layout.clusters[i]), server->Reads().back());
        reported.push_back("complete 0 " + std::to_string(layout.clusters[i].size) + " " +
                           std::to_string(i));
        reported.push_back("write 0");
    }
    EXPECT_EQ(reported, reports.Lines());
    qutl::MemoryBuffer<unsigned char> bytes;
    ClusterInfo info;
    ASSERT_EQ(OPAL_OK, buffer->Read(bytes, info));
    EXPECT_EQ(layout.clusters[2].size, bytes.GetSize());
    EXPECT_EQ(2000, info.duration);
    EXPECT_EQ(3U, info.level);
    EXPECT_EQ(2, info.clusterIndex);
    EXPECT_EQ(5U, info.clusterCount);
    EXPECT_EQ(500000000, info.frameDuration);
    EXPECT_EQ(OPAL_ERROR_END_OF_DATA, reader->DownloadNext(OPAL_PLAYRATE_ONEX));
    EXPECT_EQ(STREAMING_READER_END, reader->GetState());
    EXPECT_EQ(OPAL_OK, reader->GetPosition(ms));
    EXPECT_EQ(0, ms);
    EXPECT_EQ(OPAL_OK, reader->DownloadNext(OPAL_PLAYRATE_TWOXFF));  // no trick track: nothing
    EXPECT_EQ(3U, server->Reads().size());
}

TEST_F(StreamingReaderTest, BufferDecidesBeforeAndAfterTheTransfer) {
    MakeOpen();
    const auto readInto = [&](size_t capacity) {
        const std::unique_ptr<IClusterBuffer> small(NewClusterBuffer(capacity));
        const std::unique_ptr<IStreamingReader> other(NewStreamingReader(
            kUrl, layout.headerSize, small.get(), &reports, OPAL_STREAM_VIDEO, 0));
        EXPECT_EQ(OPAL_OK, other->Open());
        server->ClearLog();
        const OPALError first = other->DownloadNext(OPAL_PLAYRATE_ONEX);
        return std::make_pair(first, other->DownloadNext(OPAL_PLAYRATE_ONEX));
    };
    EXPECT_EQ(OPAL_ERROR_NO_MEMORY, readInto(layout.clusters[0].size - 1).first);
    EXPECT_THAT(server->Reads(), IsEmpty());
    EXPECT_EQ(std::make_pair(OPAL_OK, OPAL_ERROR_NOT_YET), readInto(layout.clusters[1].size));
    EXPECT_EQ(1U, server->Reads().size());

    // A limit in time shows only after the transfer, each time anew.
    buffer->SetMaxDuration(2000);
    server->ClearLog();
    EXPECT_EQ(OPAL_OK, reader->DownloadNext(OPAL_PLAYRATE_ONEX));
    const size_t before = reports.Lines().size();
    EXPECT_EQ(OPAL_ERROR_BUFFER_FULL, reader->DownloadNext(OPAL_PLAYRATE_ONEX));
    EXPECT_EQ(OPAL_ERROR_BUFFER_FULL, reader->DownloadNext(OPAL_PLAYRATE_ONEX));
    const std::string second = RangeOf(layout.clusters[1]);
    EXPECT_THAT(server->Reads(), ElementsAre(RangeOf(layout.clusters[0]), second, second));
    EXPECT_EQ(before + 2, reports.Lines().size());
}

TEST_F(StreamingReaderTest, TrickPlayFetchesTheFramesThatWillBeShown) {
    MediaShape shape;
    shape.blocks = 6;
    shape.clusterMs = 6000;
    shape.clusters = 2;
    shape.trick = true;
    MakeOpen(shape, OPAL_STREAM_TRICK);
    const struct {
        OPALPlayRate rate;
        int64_t from;
        std::vector<size_t> frames;
    } kCases[] = {
        {OPAL_PLAYRATE_TWOXFF, 0, {0, 1, 2, 3, 4, 5}}, {OPAL_PLAYRATE_FOURXFF, 0, {0, 2, 4}},
        {OPAL_PLAYRATE_FOURXFF, 2500, {2, 4}},         {OPAL_PLAYRATE_EIGHTXFF, 1000, {1, 5}},
        {OPAL_PLAYRATE_THIRTYTWOXFF, 5999, {5}},       {OPAL_PLAYRATE_FOURXRW, 2500, {0, 2}},
        {OPAL_PLAYRATE_TWOXRW, 2500, {0, 1, 2, 3}},    {OPAL_PLAYRATE_TWOXRW, 0, {0}}};
    for (const auto& test : kCases) {
        int64_t ms = test.from;
        EXPECT_EQ(OPAL_OK, reader->Seek(ms));
        server->ClearLog();
        EXPECT_EQ(OPAL_OK, reader->DownloadNextTrick(test.rate));
        EXPECT_THAT(server->Reads(), ElementsAre(TrickRange(0, test.frames)))
            << GetRateName(test.rate) << " from " << test.from;
    }
    // Skip and trim are for the one cluster that was sought.
    int64_t ms = 2500;
    EXPECT_EQ(OPAL_OK, reader->Seek(ms));
    EXPECT_EQ(OPAL_OK, reader->DownloadNext(OPAL_PLAYRATE_FOURXFF));
    EXPECT_EQ(OPAL_OK, reader->DownloadNext(OPAL_PLAYRATE_FOURXFF));
    EXPECT_EQ(TrickRange(1, {0, 2, 4}), server->Reads().back());
    EXPECT_EQ(OPAL_ERROR_END_OF_DATA, reader->DownloadNext(OPAL_PLAYRATE_FOURXFF));

    ms = 0;
    EXPECT_EQ(OPAL_OK, reader->Seek(ms));
    EXPECT_EQ(OPAL_OK, reader->DownloadNext(OPAL_PLAYRATE_FOURXRW));
    EXPECT_EQ(STREAMING_READER_END, reader->GetState());
    EXPECT_EQ(OPAL_ERROR_END_OF_DATA, reader->DownloadNext(OPAL_PLAYRATE_FOURXRW));
    EXPECT_EQ(OPAL_OK, reader->GetPosition(ms));
    EXPECT_EQ(0, ms);

    shape.trick = false;  // an index without frames
    MakeOpen(shape, OPAL_STREAM_TRICK);
    EXPECT_EQ(OPAL_ERROR_NOT_READY, reader->DownloadNext(OPAL_PLAYRATE_FOURXFF));
}

TEST_F(StreamingReaderTest, IndexOutOfOrderIsRefusedBeforeARequest) {
    package::BuiltFile file = MakeMedia({});
    // The second cluster's position, 0: before the first one.
    auto at = file.bytes.begin() + static_cast<long>(file.layout.cuesOffset);
    for (int entry = 0; entry < 2; ++entry)
        at = std::find(at + 1, file.bytes.end(), 0xF1);
    ASSERT_LT(at + 9, file.bytes.end());
    std::fill_n(at + 2, at[1] & 0x0F, uint8_t{0});
    Make();
    server->AddFile(kUrl, std::string(file.bytes.begin(), file.bytes.end()));
    ASSERT_EQ(OPAL_OK, reader->Open());
    server->ClearLog();
    EXPECT_EQ(OPAL_ERROR_INVALID_ARGUMENT, reader->DownloadNext(OPAL_PLAYRATE_ONEX));
    EXPECT_THAT(server->Reads(), IsEmpty());
}

TEST_F(StreamingReaderTest, BytesAheadAreThoseOfTheNextClusters) {
    MakeOpen();
    int64_t position = 2000;
    EXPECT_EQ(OPAL_OK, reader->Seek(position));
    const std::pair<int64_t, size_t> kCases[] = {
        {-5, 0}, {0, 0}, {1, 1}, {2000, 1}, {2001, 2}, {std::numeric_limits<int64_t>::max(), 4}};
    size_t bytes = 99;
    for (const auto& [ms, clusters] : kCases) {
        size_t expected = 0;
        for (size_t i = 1; i <= clusters; ++i)
            expected += layout.clusters[i].size;
        EXPECT_EQ(OPAL_OK, reader->GetBytesAhead(ms, bytes));
        EXPECT_EQ(expected, bytes) << ms;
    }
    // Subtitles always count as their header.
    MakeOpen({package::TrackKind::Subtitle}, OPAL_STREAM_SUBTITLE);
    EXPECT_EQ(OPAL_OK, reader->GetBytesAhead(0, bytes));
    EXPECT_EQ(layout.headerSize, bytes);
    EXPECT_EQ(OPAL_OK, reader->GetBytesInFlight(bytes));
    EXPECT_EQ(layout.headerSize, bytes);
}

TEST_F(StreamingReaderTest, TransferIsObservedAndCancelledWithoutItsLock) {
    MakeOpen();
    FakeRule rule = FakeRule::Hold();
    rule.bytesFirst = 50;
    rule.count = 1;
    const uint64_t held = server->AddRule(rule);
    auto download =
        std::async(std::launch::async, [&] { return reader->DownloadNext(OPAL_PLAYRATE_ONEX); });
    ASSERT_TRUE(server->WaitForHeld(held, 1, 10000));
    auto observe = std::async(std::launch::async, [&] {
        size_t inFlight = 0;
        size_t ahead = 0;
        IClusterIndex* index = nullptr;
        EXPECT_EQ(OPAL_OK, reader->GetBytesInFlight(inFlight));
        EXPECT_EQ(50U, inFlight);
        EXPECT_EQ(OPAL_OK, reader->GetBytesAhead(1, ahead));
        EXPECT_EQ(OPAL_OK, reader->GetClusterIndex(index));
        EXPECT_EQ(STREAMING_READER_STOPPED, reader->GetState());
        EXPECT_FALSE(reader->HasError());
        EXPECT_EQ(OPAL_OK, reader->GetError());
        EXPECT_EQ(OPAL_OK, reader->CancelTransfers());
    });
    const auto observed = observe.wait_for(std::chrono::seconds(10));
    if (observed != std::future_status::ready)
        server->Release(held);  // so that the test ends
    EXPECT_EQ(std::future_status::ready, observed);
    EXPECT_EQ(OPAL_ERROR_CANCELLED, download.get());

    // The cancel holds until the reader is started or sought: no request meanwhile.
    const size_t requests = server->Reads().size();
    EXPECT_EQ(OPAL_ERROR_CANCELLED, reader->DownloadNext(OPAL_PLAYRATE_ONEX));
    EXPECT_EQ(requests, server->Reads().size());
    EXPECT_EQ(OPAL_OK, reader->Start());
    EXPECT_EQ(OPAL_OK, reader->DownloadNext(OPAL_PLAYRATE_ONEX));
    EXPECT_EQ(OPAL_OK, reader->CancelTransfers());
    int64_t ms = 0;
    EXPECT_EQ(OPAL_OK, reader->Seek(ms));
    EXPECT_EQ(OPAL_OK, reader->DownloadNext(OPAL_PLAYRATE_ONEX));
    EXPECT_THAT(reports.Lines().front(), testing::EndsWith(" 0"));
}

TEST_F(StreamingReaderTest, OpeningIsNotCancelledButAbandoned) {
    Make();
    for (const FakeRule::Kind kind : {FakeRule::Kind::Open, FakeRule::Kind::Read}) {
        FakeRule rule = FakeRule::Hold({}, kind);
        rule.skip = kind == FakeRule::Kind::Read ? 2 : 0;  // the index
        const uint64_t held = server->AddRule(rule);
        auto opening = std::async(std::launch::async, [&] { return reader->Open(); });
        ASSERT_TRUE(server->WaitForHeld(held, 1, 10000));
        EXPECT_EQ(STREAMING_READER_NOT_OPEN, reader->GetState());  // and not at its end
        EXPECT_EQ(OPAL_OK, reader->CancelTransfers());
        EXPECT_EQ(std::future_status::timeout, opening.wait_for(std::chrono::milliseconds(30)));
        reader->SetAbandoned(true);
        EXPECT_EQ(OPAL_ERROR_TERMINATED, opening.get());
        EXPECT_EQ(OPAL_ERROR_TERMINATED, reader->Open());
        EXPECT_EQ(STREAMING_READER_NOT_OPEN, reader->GetState());
        server->Release(held);
        EXPECT_EQ(OPAL_OK, reader->Finalize());
        EXPECT_EQ(OPAL_OK, reader->Open());
        EXPECT_EQ(OPAL_OK, reader->Finalize());
        EXPECT_EQ(0U, server->OpenFiles());
    }
}

TEST_F(StreamingReaderTest, StandAloneModeDownloadsOncePerWake) {
    MakeOpen();
    const auto clusters = [&] { return buffer->GetUsedBytes() / layout.clusters[0].size; };
    ASSERT_EQ(OPAL_OK, reader->StartThread());
    EXPECT_EQ(OPAL_ERROR_NOT_READY, reader->StartThread());
    EXPECT_EQ(OPAL_OK, reader->Start());
    EXPECT_TRUE(Eventually([&] { return clusters() == 1; }));
    EXPECT_EQ(OPAL_OK, reader->StartDelayed(1));
    EXPECT_TRUE(Eventually([&] { return clusters() == 2; }));
    server->AddRule(FakeRule::Fail(OPAL_ERROR_HTTP_CLIENT));
    EXPECT_EQ(OPAL_OK, reader->Start());
    EXPECT_TRUE(Eventually([&] { return reader->GetError() == OPAL_ERROR_HTTP_CLIENT; }));
    EXPECT_EQ(OPAL_OK, reader->Finalize());
    EXPECT_EQ(STREAMING_READER_NOT_OPEN, reader->GetState());
}

}  // namespace
}  // namespace opal::test
