#pragma once

#include <boost/scoped_ptr.hpp>
#include <cstdint>
#include <fstream>
#include <sstream>
#include <stdexcept>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

#include "Common/MemoryBuffer.h"
#include "StreamingDemux/EBML/BlockNode.h"
#include "StreamingDemux/EBML/IClusterIndex.h"
#include "StreamingDemux/EBML/IClusterParser.h"
#include "StreamingDemux/EBML/StreamHeaderParser.h"
#include "opal-package/Av.h"

namespace opal::test {

inline std::vector<uint8_t> ReadBytes(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    std::ostringstream content;
    content << in.rdbuf();
    const std::string text = content.str();
    return {text.begin(), text.end()};
}

/// A block as either reader sees it.
struct SeenBlock {
    int64_t timeMs = 0;
    bool key = false;
    int64_t durationMs = 0;
    std::vector<uint8_t> data;
};

inline bool operator==(const SeenBlock& a, const SeenBlock& b) {
    return std::tie(a.timeMs, a.key, a.data) == std::tie(b.timeMs, b.key, b.data);
}

/// Everything that the library makes of a media file, read in the way it opens a stream: header
/// request, index, cluster after cluster.
struct LibraryView {
    LibraryView(std::vector<uint8_t> file, uint64_t headerSize) : bytes(std::move(file)) {
        const auto at = [this](int64_t offset) { return bytes.data() + offset; };
        Expect(header.Parse(bytes.data(), static_cast<int64_t>(headerSize)), "header");
        Expect(header.GetSegmentDataOffset(segmentOffset), "Segment");
        Expect(header.FindCuesPosition(cuesOffset), "Cues position");
        uint64_t id = 0;
        uint64_t cuesSize = 0;
        Expect(StreamHeaderParser::ReadElementHeader(at(cuesOffset), id, cuesSize), "Cues header");
        index.reset(NewClusterIndex(cuesOffset, segmentOffset));
        Expect(index->Parse(at(cuesOffset), static_cast<int64_t>(cuesSize)), "Cues");
        endsWithCues = static_cast<uint64_t>(cuesOffset) + cuesSize == bytes.size();
        boost::scoped_ptr<IClusterParser> parser(NewClusterParser());
        for (size_t i = 0; i < index->GetCount(); ++i) {
            qutl::MemoryBuffer<unsigned char> cluster;
            cluster.Assign(at(index->GetOffset(i)), static_cast<size_t>(index->GetSize(i)), 0,
                           false);
            Expect(parser->SetCluster(cluster, 0), "cluster");
            clusters.emplace_back();
            BlockNode node;
            while (parser->GetNextBlock(node, 0) == OPAL_OK) {
                const unsigned char* data = node.data.GetData();
                clusters.back().push_back({node.timecode,
                                           node.flags == BlockNode::kKeyFrame,
                                           node.duration,
                                           {data, data + node.data.GetSize()}});
            }
        }
    }

    std::vector<SeenBlock> Blocks() const {
        std::vector<SeenBlock> all;
        for (const auto& cluster : clusters) {
            all.insert(all.end(), cluster.begin(), cluster.end());
        }
        return all;
    }

    std::vector<uint8_t> bytes;
    StreamHeaderParser header;  // points into the bytes
    int64_t segmentOffset = 0;
    int64_t cuesOffset = 0;
    bool endsWithCues = false;
    boost::scoped_ptr<IClusterIndex> index;
    std::vector<std::vector<SeenBlock>> clusters;

  private:
    static void Expect(OPALError error, const char* what) {
        if (error != OPAL_OK) {
            throw std::runtime_error(std::string(what) + ": " + std::to_string(error));
        }
    }
};

/// A media file as libavformat reads it.
struct LibavView {
    explicit LibavView(const std::string& path) {
        AVFormatContext* opened = nullptr;
        if (avformat_open_input(&opened, path.c_str(), nullptr, nullptr) < 0) {
            throw std::runtime_error("libavformat does not open " + path);
        }
        context.reset(opened);
        package::AvPtr<AVPacket> packet(av_packet_alloc());
        while (av_read_frame(opened, packet.get()) >= 0) {
            blocks.push_back({packet->pts,
                              (packet->flags & AV_PKT_FLAG_KEY) != 0,
                              packet->duration,
                              {packet->data, packet->data + packet->size}});
            av_packet_unref(packet.get());
        }
    }

    /// The decoded pictures or pieces of sound of the file, with their times.
    template <typename Take>
    void Decode(Take take) const {
        const AVCodecParameters& parameters = *context->streams[0]->codecpar;
        const AVCodec* codec = avcodec_find_decoder(parameters.codec_id);
        package::AvPtr<AVCodecContext> decoder(avcodec_alloc_context3(codec));
        package::AvPtr<AVFrame> frame(av_frame_alloc());
        package::AvPtr<AVPacket> packet(av_packet_alloc());
        if (avcodec_parameters_to_context(decoder.get(), &parameters) < 0 ||
            avcodec_open2(decoder.get(), codec, nullptr) < 0) {
            throw std::runtime_error("no decoder");
        }
        for (size_t i = 0; i <= blocks.size(); ++i) {
            if (i < blocks.size()) {
                av_new_packet(packet.get(), static_cast<int>(blocks[i].data.size()));
                std::copy(blocks[i].data.begin(), blocks[i].data.end(), packet->data);
                packet->pts = blocks[i].timeMs;
            }
            avcodec_send_packet(decoder.get(), i < blocks.size() ? packet.get() : nullptr);
            av_packet_unref(packet.get());
            while (avcodec_receive_frame(decoder.get(), frame.get()) >= 0) {
                take(*frame);
            }
        }
    }

    package::AvPtr<AVFormatContext> context;
    std::vector<SeenBlock> blocks;
};

}  // namespace opal::test
