#pragma once

#include <boost/scoped_ptr.hpp>
#include <cstdint>
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
#include "opal-package/Error.h"
#include "opal-package/MatroskaWriter.h"

namespace opal::package {

/// What both readers see of a block; libavformat makes up a duration where there is none.
inline bool operator==(const Block& a, const Block& b) {
    return std::tie(a.timeMs, a.key, a.data) == std::tie(b.timeMs, b.key, b.data);
}

}  // namespace opal::package

namespace opal::test {

/// The failure that the work ends with; its text in `text`.
template <typename Work>
package::Failure FailureOf(Work work, std::string& text) {
    try {
        work();
    } catch (const package::PackageError& error) {
        text = error.what();
        return error.GetFailure();
    }
    throw std::runtime_error("not refused");
}

/// Everything that the library makes of a media file, read in the way it opens a stream: header
/// request, index, cluster after cluster.
struct LibraryView {
    LibraryView(std::vector<uint8_t> file, uint64_t headerSize) : bytes(std::move(file)) {
        const auto at = [this](int64_t offset) { return bytes.data() + offset; };
        Expect(header.Parse(bytes.data(), static_cast<int64_t>(headerSize)));
        int64_t segmentOffset = 0;
        int64_t cuesOffset = 0;
        uint64_t id = 0;
        uint64_t cuesSize = 0;
        Expect(header.GetSegmentDataOffset(segmentOffset));
        Expect(header.FindCuesPosition(cuesOffset));
        Expect(StreamHeaderParser::ReadElementHeader(at(cuesOffset), id, cuesSize));
        index.reset(NewClusterIndex(cuesOffset, segmentOffset));
        Expect(index->Parse(at(cuesOffset), static_cast<int64_t>(cuesSize)));
        boost::scoped_ptr<IClusterParser> parser(NewClusterParser());
        for (size_t i = 0; i < index->GetCount(); ++i) {
            qutl::MemoryBuffer<unsigned char> cluster;
            cluster.Assign(at(index->GetOffset(i)), static_cast<size_t>(index->GetSize(i)), 0,
                           false);
            Expect(parser->SetCluster(cluster, 0));
            clusters.push_back({index->GetTime(i), {}});
            BlockNode node;
            while (parser->GetNextBlock(node, 0) == OPAL_OK) {
                const unsigned char* data = node.data.GetData();
                clusters.back().blocks.push_back({node.timecode,
                                                  node.duration,
                                                  node.flags == BlockNode::kKeyFrame,
                                                  {data, data + node.data.GetSize()}});
                blocks.push_back(clusters.back().blocks.back());
            }
        }
    }

    std::vector<uint8_t> bytes;
    StreamHeaderParser header;  // points into the bytes
    boost::scoped_ptr<IClusterIndex> index;
    std::vector<package::Cluster> clusters;
    std::vector<package::Block> blocks;  // of all clusters

  private:
    static void Expect(OPALError error) {
        if (error != OPAL_OK)
            throw std::runtime_error("the library refuses the file: " + std::to_string(error));
    }
};

/// A media file as libavformat reads it.
struct LibavView {
    explicit LibavView(const std::string& path) {
        AVFormatContext* opened = nullptr;
        if (avformat_open_input(&opened, path.c_str(), nullptr, nullptr) < 0)
            throw std::runtime_error("libavformat does not open " + path);
        context.reset(opened);
        parameters = opened->streams[0]->codecpar;
        package::AvPtr<AVPacket> packet(av_packet_alloc());
        while (av_read_frame(opened, packet.get()) >= 0) {
            blocks.push_back({packet->pts,
                              packet->duration,
                              (packet->flags & AV_PKT_FLAG_KEY) != 0,
                              {packet->data, packet->data + packet->size}});
            av_packet_unref(packet.get());
        }
    }

    /// The decoded pictures or pieces of sound of the blocks, with their times.
    template <typename Take>
    void Decode(Take take) const {
        const AVCodec* codec = avcodec_find_decoder(parameters->codec_id);
        package::AvPtr<AVCodecContext> decoder(avcodec_alloc_context3(codec));
        package::AvPtr<AVFrame> frame(av_frame_alloc());
        package::AvPtr<AVPacket> packet(av_packet_alloc());
        if (avcodec_parameters_to_context(decoder.get(), parameters) < 0 ||
            avcodec_open2(decoder.get(), codec, nullptr) < 0)
            throw std::runtime_error("no decoder");
        for (size_t i = 0; i <= blocks.size(); ++i) {
            if (i < blocks.size()) {
                av_new_packet(packet.get(), static_cast<int>(blocks[i].data.size()));
                std::copy(blocks[i].data.begin(), blocks[i].data.end(), packet->data);
                packet->pts = blocks[i].timeMs;
            }
            avcodec_send_packet(decoder.get(), i < blocks.size() ? packet.get() : nullptr);
            av_packet_unref(packet.get());
            while (avcodec_receive_frame(decoder.get(), frame.get()) >= 0)
                take(*frame);
        }
    }

    package::AvPtr<AVFormatContext> context;
    const AVCodecParameters* parameters = nullptr;
    std::vector<package::Block> blocks;
};

}  // namespace opal::test
