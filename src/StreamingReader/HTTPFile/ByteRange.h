#pragma once

#include <cstdint>

/// A range of bytes of a file.
struct ByteRange {
    int64_t offset = 0;
    int64_t length = 0;

    ByteRange() = default;
    ByteRange(int64_t rangeOffset, int64_t rangeLength)
        : offset(rangeOffset), length(rangeLength) {}
};
