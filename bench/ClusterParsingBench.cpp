// What it costs to cut a file's clusters into blocks with their payloads copied, against
// libavformat reading packets from the same bytes in memory. CPU time, medians of interleaved runs.
//
//   bench_cluster_parsing [FILE]   without FILE: a video and an audio file made on the spot
//
// libavformat runs as av_read_frame comes, with its header parsers; what it takes without them is
// printed beside. It is opened before the clock starts, and the clusters are in buffers then, as a
// download leaves them.
// Exit code: 0, 1 if a ratio is above the limit, 2 if the two do not yield the same.

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <fstream>
#include <iterator>
#include <memory>
#include <random>
#include <stdexcept>
#include <string>
#include <vector>

#include "StreamingDemux/EBML/IClusterIndex.h"
#include "StreamingDemux/EBML/IClusterParser.h"
#include "StreamingDemux/EBML/StreamHeaderParser.h"
#include "bench/Figures.h"
#include "opal-package/Av.h"
#include "opal-package/AvcStream.h"
#include "opal-package/MatroskaWriter.h"
#include "opal-package/VideoEncoder.h"

namespace {

constexpr int kRuns = 15;
constexpr double kLimit = 0.6;
constexpr int64_t kClusterMs = 2000;

using Bytes = std::vector<uint8_t>;
using ClusterData = qutl::MemoryBuffer<unsigned char>;

/// What a run has seen, so that both sides are known to do the same work.
struct Tally {
    size_t blocks = 0;
    uint64_t bytes = 0;
    int64_t times = 0;
    bool operator==(const Tally& other) const {
        return blocks == other.blocks && bytes == other.bytes && times == other.times;
    }
};

double CpuMs() {
    timespec now{};
    clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &now);
    return static_cast<double>(now.tv_sec) * 1e3 + static_cast<double>(now.tv_nsec) / 1e6;
}

/// The file's clusters, found the way a reader finds them.
std::vector<Bytes> SplitClusters(const Bytes& file) {
    StreamHeaderParser header;
    int64_t cuesOffset = 0, segmentOffset = 0;
    const auto size = static_cast<int64_t>(file.size());
    if (header.Parse(file.data(), size) != OPAL_OK ||
        header.FindCuesPosition(cuesOffset) != OPAL_OK ||
        header.GetSegmentDataOffset(segmentOffset) != OPAL_OK || cuesOffset <= 0 ||
        cuesOffset >= size)
        throw std::runtime_error("no media file of a presentation");
    const std::unique_ptr<IClusterIndex> index(NewClusterIndex(cuesOffset, segmentOffset));
    if (index->Parse(file.data() + cuesOffset, size - cuesOffset) != OPAL_OK)
        throw std::runtime_error("no index");
    std::vector<Bytes> clusters;
    for (size_t i = 0; i < index->GetCount(); ++i) {
        const int64_t offset = index->GetOffset(i), length = index->GetSize(i);
        if (offset < 0 || length <= 0 || offset > size || length > size - offset)
            throw std::runtime_error("an index that does not fit the file");
        clusters.emplace_back(file.begin() + offset, file.begin() + offset + length);
    }
    return clusters;
}

double RunParser(const std::vector<Bytes>& clusters, Tally& tally) {
    std::vector<ClusterData> buffers(clusters.size());
    for (size_t i = 0; i < clusters.size(); ++i)
        buffers[i].Assign(clusters[i].data(), clusters[i].size(), 0, false);
    const std::unique_ptr<IClusterParser> parser(NewClusterParser());
    BlockNode block;
    tally = Tally();
    const double start = CpuMs();
    for (ClusterData& buffer : buffers) {
        if (parser->SetCluster(buffer, 0) != OPAL_OK)
            throw std::runtime_error("a cluster is not accepted");
        while (parser->GetNextBlock(block, 0) == OPAL_OK) {
            ++tally.blocks;
            tally.bytes += block.data.GetSize();
            tally.times += block.timecode;
        }
    }
    return CpuMs() - start;
}

/// libavformat's input: the file in memory.
struct MemoryInput {
    const Bytes* file;
    int64_t position = 0;

    static int Read(void* opaque, uint8_t* buffer, int size) {
        auto& self = *static_cast<MemoryInput*>(opaque);
        const int64_t left = static_cast<int64_t>(self.file->size()) - self.position;
        const int64_t count = std::min<int64_t>(size, left);
        if (count <= 0)
            return AVERROR_EOF;
        std::memcpy(buffer, self.file->data() + self.position, static_cast<size_t>(count));
        self.position += count;
        return static_cast<int>(count);
    }
    static int64_t Seek(void* opaque, int64_t offset, int whence) {
        auto& self = *static_cast<MemoryInput*>(opaque);
        const auto size = static_cast<int64_t>(self.file->size());
        if (whence == AVSEEK_SIZE)
            return size;
        self.position = whence == SEEK_CUR   ? self.position + offset
                        : whence == SEEK_END ? size + offset
                                             : offset;
        return self.position;
    }
};

double RunLibavformat(const Bytes& file, bool withParsers, Tally& tally) {
    constexpr int kBufferSize = 32768;
    MemoryInput input{&file};
    AVIOContext* io =
        avio_alloc_context(static_cast<unsigned char*>(av_malloc(kBufferSize)), kBufferSize, 0,
                           &input, &MemoryInput::Read, nullptr, &MemoryInput::Seek);
    AVFormatContext* format = avformat_alloc_context();
    format->pb = io;
    if (!withParsers)
        format->flags |= AVFMT_FLAG_NOPARSE | AVFMT_FLAG_NOFILLIN;
    if (avformat_open_input(&format, nullptr, nullptr, nullptr) < 0)
        throw std::runtime_error("libavformat does not open the file");
    AVPacket* packet = av_packet_alloc();
    tally = Tally();
    const double start = CpuMs();
    while (av_read_frame(format, packet) >= 0) {
        ++tally.blocks;
        tally.bytes += static_cast<uint64_t>(packet->size);
        tally.times += packet->pts;
        av_packet_unref(packet);
    }
    const double duration = CpuMs() - start;
    av_packet_free(&packet);
    avformat_close_input(&format);
    av_freep(&io->buffer);
    avio_context_free(&io);
    return duration;
}

int Compare(const char* name, const Bytes& file) {
    const std::vector<Bytes> clusters = SplitClusters(file);
    std::vector<double> ours, theirs, theirsBare;
    Tally ourTally, theirTally, bareTally;
    for (int i = -1; i < kRuns; ++i) {
        const double our = RunParser(clusters, ourTally);
        const double their = RunLibavformat(file, true, theirTally);
        const double bare = RunLibavformat(file, false, bareTally);
        if (!(ourTally == theirTally) || !(ourTally == bareTally)) {
            std::fprintf(stderr, "%s: %zu blocks of %llu bytes, libavformat %zu of %llu\n", name,
                         ourTally.blocks, static_cast<unsigned long long>(ourTally.bytes),
                         theirTally.blocks, static_cast<unsigned long long>(theirTally.bytes));
            return 2;
        }
        if (i >= 0) {  // the first round warms up
            ours.push_back(our);
            theirs.push_back(their);
            theirsBare.push_back(bare);
        }
    }
    using opal::bench::Figure;
    const double our = opal::bench::Median(ours);
    const bool holds =
        opal::bench::Print({std::string("parsing, ") + name, our, "libavformat",
                            opal::bench::Median(theirs), "ms", Figure::Bound::AtMost, kLimit});
    opal::bench::Print(
        {"  without its header parsers", our, "libavformat", opal::bench::Median(theirsBare)});
    return holds ? 0 : 1;
}

Bytes MakeFile(const opal::package::TrackDescription& track,
               std::vector<opal::package::Block> blocks) {
    std::vector<opal::package::Cluster> clusters;
    for (opal::package::Block& block : blocks) {
        if (clusters.empty() || block.timeMs >= clusters.back().timeMs + kClusterMs) {
            clusters.emplace_back();
            clusters.back().timeMs = block.timeMs;
        }
        clusters.back().blocks.push_back(std::move(block));
    }
    return opal::package::BuildFile(track, clusters, clusters.back().timeMs + kClusterMs).bytes;
}

/// Noise at 6 Mbit/s, twenty seconds of it.
Bytes MakeVideo() {
    opal::package::VideoEncoderOptions options;
    options.width = 640;
    options.height = 360;
    options.bitrate = 6000000;
    options.preset = "ultrafast";
    std::vector<opal::package::Block> blocks;
    opal::package::VideoEncoder encoder(
        options, [&](opal::package::Block block) { blocks.push_back(std::move(block)); });
    std::mt19937 random(1);
    constexpr int kFrameMs = 40;
    for (int64_t time = 0; time < 20000; time += kFrameMs) {
        const auto picture = opal::package::NewPicture(options.width, options.height);
        if (!picture)
            throw std::runtime_error("no memory for a picture");
        for (int y = 0; y < options.height; ++y) {
            uint8_t* line = picture->data[0] + y * picture->linesize[0];
            std::generate_n(line, options.width, [&] { return static_cast<uint8_t>(random()); });
            for (const int plane : {1, 2})
                std::memset(picture->data[plane] + y / 2 * picture->linesize[plane], 128,
                            static_cast<size_t>(options.width / 2));
        }
        encoder.Encode(*picture, time, time % kClusterMs == 0);
    }
    encoder.Drain();
    opal::package::TrackDescription track;
    track.codecId = "V_MPEG4/ISO/AVC";
    track.codecPrivate = opal::package::MakeConfiguration(encoder.Sets());
    track.defaultDurationNs = kFrameMs * 1000000;
    track.width = static_cast<uint32_t>(options.width);
    track.height = static_cast<uint32_t>(options.height);
    return MakeFile(track, std::move(blocks));
}

/// Blocks as large as those of AAC at 128 kbit/s, ten minutes of them.
Bytes MakeAudio() {
    std::mt19937 random(1);
    std::vector<opal::package::Block> blocks(28125);
    for (size_t i = 0; i < blocks.size(); ++i) {
        blocks[i].timeMs = static_cast<int64_t>(i) * 1024 / 48;
        blocks[i].data.assign(170 + random() % 340, static_cast<uint8_t>(i));
    }
    opal::package::TrackDescription track;
    track.kind = opal::package::TrackKind::Audio;
    track.codecId = "A_AAC";
    track.samplingFrequency = 48000;
    track.channels = 2;
    return MakeFile(track, std::move(blocks));
}

}  // namespace

int main(int argc, char** argv) {
    av_log_set_level(AV_LOG_ERROR);
    try {
        if (argc < 2) {
            const int videoResult = Compare("video", MakeVideo());
            const int audioResult = Compare("audio", MakeAudio());
            return std::max(videoResult, audioResult);
        }
        std::ifstream in(argv[1], std::ios::binary);
        const Bytes file{std::istreambuf_iterator<char>(in), {}};
        return Compare(argv[1], file);
    } catch (const std::exception& error) {
        std::fprintf(stderr, "bench_cluster_parsing: %s\n", error.what());
        return 2;
    }
}
