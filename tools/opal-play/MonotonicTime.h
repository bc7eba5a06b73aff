#pragma once

#include <chrono>
#include <cstdint>

namespace opal::play {

/// Milliseconds of the machine's monotonic clock, the one the television shows pictures by.
inline int64_t MonotonicMs() {
    return std::chrono::duration_cast<std::chrono::milliseconds>(
               std::chrono::steady_clock::now().time_since_epoch())
        .count();
}

}  // namespace opal::play
