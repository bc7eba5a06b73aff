#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

namespace opal::package {

using NalUnit = std::vector<uint8_t>;

/// What a decoder must know before the first picture.
struct ParameterSets {
    std::vector<NalUnit> sps;
    std::vector<NalUnit> pps;
};

/// Parts of an access unit between start codes; empty without any start code.
std::vector<NalUnit> SplitAnnexB(const uint8_t* data, size_t size);

/// Parts of an access unit whose units are preceded by their length in `lengthSize` bytes. False
/// when the lengths do not fit the data.
bool SplitLengthPrefixed(const uint8_t* data, size_t size, unsigned lengthSize,
                         std::vector<NalUnit>& units);

/// Parameter sets and length size of a decoder configuration record ("avcC"). False when it is
/// none.
bool ParseConfiguration(const uint8_t* data, size_t size, ParameterSets& sets,
                        unsigned& lengthSize);

/// The decoder configuration record, with lengths of four bytes, of a stream in 4:2:0 and 8 bits.
std::vector<uint8_t> MakeConfiguration(const ParameterSets& sets);

/// Takes over the parameter sets that stand in the units, where there are any.
void CollectParameterSets(const std::vector<NalUnit>& units, ParameterSets& sets);

/// One access unit with lengths of four bytes. Delimiters are left out; a key frame without
/// parameter sets of its own is preceded by `sets`.
std::vector<uint8_t> MakeAccessUnit(const std::vector<NalUnit>& units, bool key,
                                    const ParameterSets& sets);

}  // namespace opal::package
