#pragma once

#include <cstdint>
#include <string>
#include <utility>
#include <vector>

#include "opal-package/MatroskaWriter.h"

namespace opal::test {

/// What a test file shall hold: `clusters` clusters of `blocks` blocks each.
struct MediaShape {
    package::TrackKind kind = package::TrackKind::Video;
    int clusters = 5;
    int blocks = 4;
    size_t blockBytes = 100;
    int64_t clusterMs = 2000;
    bool trick = false;
};

inline package::BuiltFile MakeMedia(const MediaShape& shape) {
    package::TrackDescription track;
    track.kind = shape.kind;
    track.codecId = "test";
    if (shape.kind == package::TrackKind::Audio) {
        track.samplingFrequency = 44100;
        track.channels = 2;
    }
    if (shape.kind == package::TrackKind::Subtitle)
        track.attachment = package::Attachment{"font.ttf", "application/x-truetype-font", {7, 8}};
    const int64_t blockMs = shape.clusterMs / shape.blocks;
    if (shape.kind == package::TrackKind::Video)
        track.defaultDurationNs = static_cast<uint64_t>(blockMs) * 1000000;
    track.frameLists = shape.trick;
    std::vector<package::Cluster> clusters;
    for (int c = 0; c < shape.clusters; ++c) {
        package::Cluster cluster;
        cluster.timeMs = c * shape.clusterMs;
        for (int b = 0; b < shape.blocks; ++b)
            cluster.blocks.push_back(package::Block{
                cluster.timeMs + b * blockMs, blockMs, true,
                std::vector<uint8_t>(shape.blockBytes, static_cast<uint8_t>(c * 16 + b))});
        clusters.push_back(std::move(cluster));
    }
    return package::BuildFile(track, clusters, shape.clusters * shape.clusterMs);
}

/// "offset-last" of a cluster, as the server logs it.
inline std::string RangeOf(const package::ClusterLayout& cluster) {
    return std::to_string(cluster.offset) + "-" + std::to_string(cluster.offset + cluster.size - 1);
}

}  // namespace opal::test
