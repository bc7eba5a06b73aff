#pragma once

#include <cstdint>
#include <string>

namespace opal::play {

struct NetworkFigures {
    uint64_t clusters = 0;          ///< cluster transfers; each is one request
    uint64_t bytes = 0;             ///< of clusters
    int64_t linkBitsPerSecond = 0;  ///< the library's own estimate, 0 while it has none
};

/// A media file that the library could not use.
struct MediaFailure {
    std::string url;
    int64_t code = 0;    ///< 0: none
    bool found = false;  ///< the file is there; its header or index is at fault
};

}  // namespace opal::play
