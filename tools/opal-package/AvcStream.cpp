#include "opal-package/AvcStream.h"

#include <algorithm>

namespace opal::package {
namespace {

constexpr unsigned kSps = 7;
constexpr unsigned kPps = 8;
constexpr unsigned kDelimiter = 9;

/// What the fields of a decoder configuration record hold.
constexpr size_t kLargestSet = 0xFFFF;
constexpr size_t kMostSps = 31;
constexpr size_t kMostPps = 255;

unsigned TypeOf(const NalUnit& unit) {
    return unit.empty() ? 0 : unit[0] & 0x1F;
}

/// First byte of the next 00 00 01 at or behind `from`, or `size`.
size_t FindStartCode(const uint8_t* data, size_t size, size_t from) {
    for (size_t i = from; i + 3 <= size; ++i) {
        if (data[i] == 0 && data[i + 1] == 0 && data[i + 2] == 1)
            return i;
    }
    return size;
}

void PutUnit(std::vector<uint8_t>& out, const NalUnit& unit) {
    for (unsigned shift = 32; shift > 0;) {
        shift -= 8;
        out.push_back(static_cast<uint8_t>(unit.size() >> shift));
    }
    out.insert(out.end(), unit.begin(), unit.end());
}

/// A list of parameter sets as the configuration record has it: each behind two bytes of length.
void PutSets(std::vector<uint8_t>& out, const std::vector<NalUnit>& sets) {
    for (const NalUnit& set : sets) {
        out.push_back(static_cast<uint8_t>(set.size() >> 8));
        out.push_back(static_cast<uint8_t>(set.size()));
        out.insert(out.end(), set.begin(), set.end());
    }
}

bool TakeSets(const uint8_t* data, size_t size, size_t& at, size_t count,
              std::vector<NalUnit>& sets) {
    for (size_t i = 0; i < count; ++i) {
        if (size - at < 2)
            return false;
        const size_t length = size_t{data[at]} << 8 | data[at + 1];
        at += 2;
        if (length == 0 || size - at < length)
            return false;
        sets.emplace_back(data + at, data + at + length);
        at += length;
    }
    return true;
}

}  // namespace

std::vector<NalUnit> SplitAnnexB(const uint8_t* data, size_t size) {
    std::vector<NalUnit> units;
    size_t code = FindStartCode(data, size, 0);
    while (code < size) {
        const size_t begin = code + 3;
        code = FindStartCode(data, size, begin);
        size_t end = code;
        while (end > begin && data[end - 1] == 0) {
            --end;  // the zero byte of a long start code, or padding behind the unit
        }
        if (end > begin)
            units.emplace_back(data + begin, data + end);
    }
    return units;
}

bool SplitLengthPrefixed(const uint8_t* data, size_t size, unsigned lengthSize,
                         std::vector<NalUnit>& units) {
    units.clear();
    size_t at = 0;
    while (at < size) {
        if (size - at < lengthSize)
            return false;
        size_t length = 0;
        for (unsigned i = 0; i < lengthSize; ++i)
            length = length << 8 | data[at + i];
        at += lengthSize;
        if (size - at < length)
            return false;
        if (length > 0)
            units.emplace_back(data + at, data + at + length);
        at += length;
    }
    return !units.empty();
}

bool ParseConfiguration(const uint8_t* data, size_t size, ParameterSets& sets,
                        unsigned& lengthSize) {
    if (size < 7 || data[0] != 1)
        return false;
    lengthSize = (data[4] & 3u) + 1;
    size_t at = 6;
    if (!TakeSets(data, size, at, data[5] & 0x1F, sets.sps) || at >= size)
        return false;
    const size_t ppsCount = data[at++];
    return TakeSets(data, size, at, ppsCount, sets.pps) && !sets.sps.empty() && !sets.pps.empty();
}

std::vector<uint8_t> MakeConfiguration(const ParameterSets& sets) {
    if (sets.sps.empty() || sets.sps[0].size() < 4)
        return {};
    const NalUnit& sps = sets.sps[0];
    std::vector<uint8_t> out = {1, sps[1], sps[2], sps[3], 0xFF};
    out.push_back(static_cast<uint8_t>(0xE0 | sets.sps.size()));
    PutSets(out, sets.sps);
    out.push_back(static_cast<uint8_t>(sets.pps.size()));
    PutSets(out, sets.pps);
    if (sps[1] >= 100) {
        // High profile and above: 4:2:0, eight bits of luma and of chroma, no extension sets.
        const uint8_t trailer[] = {0xFD, 0xF8, 0xF8, 0};
        out.insert(out.end(), std::begin(trailer), std::end(trailer));
    }
    return out;
}

void CollectParameterSets(const std::vector<NalUnit>& units, ParameterSets& sets) {
    ParameterSets found;
    for (const NalUnit& unit : units) {
        if (unit.size() > kLargestSet)
            continue;
        if (TypeOf(unit) == kSps && found.sps.size() < kMostSps)
            found.sps.push_back(unit);
        else if (TypeOf(unit) == kPps && found.pps.size() < kMostPps)
            found.pps.push_back(unit);
    }
    if (!found.sps.empty() && !found.pps.empty())
        sets = std::move(found);
}

std::vector<uint8_t> MakeAccessUnit(const std::vector<NalUnit>& units, bool key,
                                    const ParameterSets& sets) {
    const auto holds = [&units](unsigned type) {
        return std::any_of(units.begin(), units.end(),
                           [type](const NalUnit& unit) { return TypeOf(unit) == type; });
    };
    std::vector<uint8_t> out;
    if (key && !(holds(kSps) && holds(kPps))) {
        for (const auto* list : {&sets.sps, &sets.pps}) {
            for (const NalUnit& set : *list)
                PutUnit(out, set);
        }
    }
    for (const NalUnit& unit : units) {
        if (TypeOf(unit) != kDelimiter)
            PutUnit(out, unit);
    }
    return out;
}

}  // namespace opal::package
