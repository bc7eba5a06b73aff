#pragma once

#include <cstdint>
#include <string>

#include "recording/SessionRecords.h"

/// Writes recordings: one JSON object a line (docs/RECORDING.md), without the line's end.
namespace opal::recording {

std::string ToLine(const Header& header);
/// Of a record whose time is absolute. `startUs`: the header's.
std::string ToLine(const Record& record, int64_t startUs);

}  // namespace opal::recording
