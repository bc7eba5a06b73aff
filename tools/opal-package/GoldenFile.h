#pragma once

#include <cstddef>
#include <cstdint>
#include <ostream>
#include <string>

#include "opal-package/MatroskaWriter.h"

namespace opal::package {

/// A golden file lies beside its media file, whose name it bears with this behind it.
constexpr const char* kGoldenEnding = ".golden";

/// CRC-32 of IEEE 802.3.
uint32_t BlockCrc(const uint8_t* data, size_t size);

/// Appends the record of a block: 40 bytes in words of little-endian order. At 8 the time's high
/// word and at 12 its low one, in units of 100 ns; at 28 the size; at 32 the CRC; the rest is zero.
void WriteGoldenRecord(std::ostream& out, const Block& block);

/// Prints a golden file, a line for each record. Returns Failure::Damaged for one that ends within
/// a record, else 0. Throws PackageError (InputOutput).
int DumpGolden(const std::string& path, std::ostream& out);

}  // namespace opal::package
