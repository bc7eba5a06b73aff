#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "opal-package/MatroskaWriter.h"

namespace opal::package {

struct SubtitleText {
    int64_t startMs = 0;
    int64_t endMs = 0;
    /// UTF-8, lines parted by line feeds, no markup.
    std::string text;
};

/// Reads a file of texts: SubRip (by its ending), else whatever text format libavformat knows, such
/// as WebVTT. Throws PackageError: InputOutput for a file that cannot be read, Refused for one that
/// holds no text or is not UTF-8.
std::vector<SubtitleText> ReadSubtitleFile(const std::string& path);

/// Brings texts into the order of their times. Texts of one start become one, line below line: a
/// television shows one text at a time.
void Arrange(std::vector<SubtitleText>& texts);

/// Arranged texts in clusters of kClusterMs from 0 to the end of the film, one for each stretch of
/// time, those without a text as well, so that the number of a cluster tells its time. Texts that
/// start behind the end are left out.
std::vector<Cluster> SubtitleClusters(const std::vector<SubtitleText>& texts, int64_t durationMs);

}  // namespace opal::package
