#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace opal::simulate {

/// What a session plays: a ladder of levels and the size of each of their clusters.
struct Film {
    static constexpr int64_t kClusterMs = 2000;

    struct Level {
        int bitrate = 0;                    ///< bits per second
        int vbv = 0;                        ///< bits
        std::vector<int64_t> clusterSizes;  ///< bytes
    };

    std::vector<Level> levels;  ///< by ascending bitrate
    int audioBitrate = 0;       ///< bits per second; 0: no audio track

    size_t ClusterCount() const { return levels.empty() ? 0 : levels.front().clusterSizes.size(); }
    int64_t DurationMs() const { return static_cast<int64_t>(ClusterCount()) * kClusterMs; }
};

/// Reads a description: {"segment_duration_ms", "bitrates_kbps": [...], "segment_sizes_bits":
/// [[one size a level] a segment]}, which is also what opal-package leaves beside a presentation.
/// Segments of another duration are cut anew into clusters of two seconds, bits spread evenly over
/// a segment. The VBV size is two seconds of the level's rate. Throws std::runtime_error that names
/// the file and what is wrong.
Film ReadFilm(const std::string& path);

}  // namespace opal::simulate
