#pragma once

#include <string>
#include <vector>

#include "opal-package/SubtitleText.h"

namespace opal::package {

/// Reads a SubRip file's content: byte order mark, either kind of line end, formatting tags (left
/// out) and overlapping or unordered texts (sorted by start) are taken. Throws PackageError
/// (Refused) that names `fileName` and the line for content that is not UTF-8 or no SubRip, and for
/// a file without any text.
std::vector<SubtitleText> ParseSubRip(const std::string& content, const std::string& fileName);

}  // namespace opal::package
