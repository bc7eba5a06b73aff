#pragma once

#include <cstdint>
#include <string>

namespace opal::play {

struct NetworkFigures {
    uint64_t clusters = 0;          ///< cluster transfers; each is one request
    uint64_t bytes = 0;             ///< of clusters
    uint64_t unmeasured = 0;        ///< clusters that came in less than a millisecond
    int64_t linkBitsPerSecond = 0;  ///< the library's own estimate, 0 while it has none

    /// Downloads under a millisecond give the library no estimate.
    bool IsTooFast() const {
        constexpr uint64_t kTellingClusters = 8;
        return linkBitsPerSecond == 0 && clusters >= kTellingClusters && 2 * unmeasured > clusters;
    }
};

/// What a session's last events told, for the figures over the picture.
struct LiveFigures {
    int64_t videoMs = 0;
    int64_t audioMs = 0;
    int64_t requiredMs = 0;  ///< of video, to be there before playback starts
    int64_t linkBitsPerSecond = 0;
    int64_t lastBitsPerSecond = 0;  ///< of the last video cluster's transfer, waiting included
    int64_t lastWaitMs = 0;         ///< to its first byte
    uint64_t bytes = 0;             ///< of all transfers, cancelled ones included
    std::string rule;               ///< that made the last decision
    bool steady = false;
};

/// A media file that the library could not use.
struct MediaFailure {
    std::string url;
    int64_t code = 0;      ///< 0: none
    bool found = false;    ///< the file is there; its header or index is at fault, or ...
    int64_t cluster = -1;  ///< ... this cluster of it
};

}  // namespace opal::play
