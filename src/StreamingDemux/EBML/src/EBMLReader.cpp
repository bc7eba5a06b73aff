#include "StreamingDemux/EBML/EBMLReader.h"

#include <cstring>

uint64_t ReadUInt(const uint8_t* address, uint64_t length) {
    if (length > 8)
        return 0;
    uint64_t value = 0;
    for (uint64_t i = 0; i < length; ++i)
        value = (value << 8) | address[i];
    return value;
}

int64_t ReadInt(const uint8_t* address, uint64_t length) {
    uint64_t value = ReadUInt(address, length);
    if (length >= 1 && length < 8 && (address[0] & 0x80) != 0)
        value |= ~uint64_t{0} << (8 * length);
    return static_cast<int64_t>(value);
}

float ReadFloat(const uint8_t* address, uint64_t length) {
    if (length != 4)
        return 0;
    const auto bits = static_cast<uint32_t>(ReadUInt(address, 4));
    const int exponent = static_cast<int>((bits >> 23) & 0xFF) - 127;
    if (exponent < -31 || exponent > 31)
        return 0;
    float value = 0;
    std::memcpy(&value, &bits, sizeof(value));
    return value;
}
