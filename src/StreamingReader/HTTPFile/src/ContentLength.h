#pragma once

#include <cstddef>
#include <cstdint>

namespace opal {

/// Reads a line of a reply's header, which nothing terminates. Of a "Content-Length" `number` gets
/// the value; any other line leaves it. False for a length of 0 or less, or one that is no number.
bool ReadContentLength(const char* line, size_t size, int64_t& number);

}  // namespace opal
