#pragma once

#include <array>
#include <atomic>
#include <cstddef>
#include <cstdint>

/// What the HAB layers need of the verification of blocks against a golden file: the CRC of a block
/// and the counts of mismatches, which make the next flush report failure.
class GoldenFileParser;

namespace opal {

using CrcTable = std::array<uint32_t, 256>;

/// The table of CRC-32 (IEEE 802.3), most significant bit first.
void FillCrcTable(CrcTable& table);

/// CRC-32 (IEEE 802.3) of the bytes. The table is not a reflected one, so each byte and the result
/// are bit-reversed.
uint32_t CalculateCrc(const CrcTable& table, const uint8_t* data, size_t size);

/// Mismatches counted since the process started.
std::atomic<uint32_t>& VideoErrorCount();
std::atomic<uint32_t>& AudioErrorCount();

}  // namespace opal
