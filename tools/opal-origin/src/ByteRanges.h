#pragma once

#include <cstdint>
#include <string_view>
#include <vector>

#include "opal-origin/Origin.h"

namespace opal::origin {

/// A part of a file.
struct Span {
    int64_t offset;
    int64_t length;
};

/// The ranges of a Range header's value; empty if it is not a valid list of byte ranges, and then
/// the header does not count. Numbers beyond 63 bits stand as the largest one.
std::vector<ByteRange> ParseRanges(std::string_view value);

/// What the ranges mean for a file of this size, in their order; those beyond its end are left out.
std::vector<Span> ResolveRanges(const std::vector<ByteRange>& ranges, int64_t size);

}  // namespace opal::origin
