#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "opal-package/MatroskaWriter.h"

namespace opal::package {

struct SubtitleText {
    int64_t startMs = 0;
    int64_t endMs = 0;
    std::string text;
};

/// Reads a SubRip file's content: byte order mark, either kind of line end, formatting tags (left
/// out) and overlapping or unordered texts (sorted by start) are taken. Throws PackageError
/// (Refused) that names `fileName` and the line for content that is not UTF-8 or no SubRip, and for
/// a file without any text.
std::vector<SubtitleText> ParseSubRip(const std::string& content, const std::string& fileName);

/// Texts in clusters of kClusterMs from 0 to the end of the film, one for each stretch of time,
/// those without a text as well, so that the number of a cluster tells its time. Texts that start
/// behind the end are left out.
std::vector<Cluster> SubtitleClusters(const std::vector<SubtitleText>& texts, int64_t durationMs);

}  // namespace opal::package
