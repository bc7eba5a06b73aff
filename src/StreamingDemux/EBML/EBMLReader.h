#pragma once

#include <cstddef>
#include <cstdint>

/// Reading of EBML's primitive values, and of an element's header, from plain memory.
///
/// Threading: pure functions. Errors: 0, or a null address; nothing reads beyond `available` or
/// `length` bytes.

/// A variable-length integer: the encoded length, 1 to 8 bytes, or 0 with `value` 0 for none. With
/// `mask` the length marker is removed (sizes, track numbers), without it stays (identifiers).
inline size_t ReadVInt(const uint8_t* address, int64_t available, bool mask, uint64_t& value) {
    value = 0;
    if (!address || available < 1 || *address == 0)
        return 0;
    const auto length = static_cast<size_t>(__builtin_clz(*address) - 23);
    if (available < static_cast<int64_t>(length))
        return 0;
    uint64_t result = mask ? *address & (0xFFu >> length) : *address;
    for (size_t i = 1; i < length; ++i)
        result = (result << 8) | address[i];
    value = result;
    return length;
}

/// A big-endian unsigned value; 0 when `length` is 0 or above 8.
uint64_t ReadUInt(const uint8_t* address, uint64_t length);

/// A big-endian two's-complement value, sign-extended; 0 when `length` is 0 or above 8.
int64_t ReadInt(const uint8_t* address, uint64_t length);

/// A 4-byte big-endian IEEE 754 value. Any other length reads as 0, deliberately 8 too; so do
/// infinity, not-a-number and magnitudes outside 2^-31 to below 2^32.
float ReadFloat(const uint8_t* address, uint64_t length);

namespace opal {

/// Identifier, payload size and payload address of an element. What the bytes do not cover is 0 or
/// null; the payload itself may reach beyond them.
struct ElementHeader {
    uint64_t id = 0;
    uint64_t size = 0;
    const uint8_t* data = nullptr;
};

inline ElementHeader ReadHeader(const uint8_t* start, int64_t available) {
    ElementHeader header;
    const size_t idLength = ReadVInt(start, available, false, header.id);
    if (idLength == 0)
        return header;
    const uint8_t* sizeField = start + idLength;
    const size_t sizeLength =
        ReadVInt(sizeField, available - static_cast<int64_t>(idLength), true, header.size);
    if (sizeLength != 0)
        header.data = sizeField + sizeLength;
    return header;
}

}  // namespace opal
