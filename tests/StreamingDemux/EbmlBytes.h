#pragma once

#include <boost/algorithm/hex.hpp>
#include <cstdint>
#include <string>
#include <vector>

#include "Common/MemoryBuffer.h"

namespace opal::test {

/// Bytes of a file; in a string, for its operators.
using Bytes = std::string;

inline Bytes Hex(const std::string& digits) {
    return boost::algorithm::unhex(digits);
}

inline std::string ToHex(const qutl::MemoryBuffer<unsigned char>& buffer) {
    return boost::algorithm::hex_lower(
        Bytes(buffer.GetData(), buffer.GetData() + buffer.GetSize()));
}

/// Bytes in a block of exactly their size, so that the address sanitizer sees any read beyond them.
struct ExactBytes : std::vector<uint8_t> {
    explicit ExactBytes(const Bytes& bytes) : vector(bytes.begin(), bytes.end()) {}
    int64_t Size() const { return static_cast<int64_t>(size()); }
};

/// One element: identifier, a two-byte size field, and its payload.
inline Bytes Element(uint64_t id, const Bytes& payload) {
    Bytes header;
    for (; id != 0; id >>= 8)
        header.insert(header.begin(), static_cast<char>(id));
    header += static_cast<char>(0x40 | (payload.size() >> 8));
    header += static_cast<char>(payload.size());
    return header + payload;
}

}  // namespace opal::test
