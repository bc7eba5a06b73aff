#include "PlatformAdapter/Mstar/src/GoldenFileCheck.h"

namespace opal {
namespace {

constexpr uint32_t kPolynomial = 0x04C11DB7u;
constexpr uint32_t kTopBit = 0x80000000u;

uint32_t ReverseBits(uint32_t value, int bits) {
    uint32_t reversed = 0;
    for (int i = 0; i < bits; ++i) {
        reversed = (reversed << 1) | (value & 1u);
        value >>= 1;
    }
    return reversed;
}

}  // namespace

void FillCrcTable(CrcTable& table) {
    for (uint32_t i = 0; i < table.size(); ++i) {
        uint32_t remainder = i << 24;
        for (int bit = 0; bit < 8; ++bit)
            remainder = (remainder << 1) ^ ((remainder & kTopBit) ? kPolynomial : 0u);
        table[i] = remainder;
    }
}

uint32_t CalculateCrc(const CrcTable& table, const uint8_t* data, size_t size) {
    uint32_t crc = 0xFFFFFFFFu;
    for (size_t i = 0; i < size; ++i) {
        const uint32_t index = (crc >> 24) ^ ReverseBits(data[i], 8);
        crc = (crc << 8) ^ table[index];
    }
    return ~ReverseBits(crc, 32);
}

std::atomic<uint32_t>& VideoErrorCount() {
    static std::atomic<uint32_t> count{0};
    return count;
}

std::atomic<uint32_t>& AudioErrorCount() {
    static std::atomic<uint32_t> count{0};
    return count;
}

}  // namespace opal
