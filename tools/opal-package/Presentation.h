#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "opal-package/MatroskaWriter.h"

namespace opal::package {

/// Nominal lengths of the clusters of a normal stream and of a trick track.
constexpr int64_t kClusterMs = 2000;
constexpr int64_t kTrickClusterMs = 6000;

/// A player opens no subtitle file whose header is longer than this.
constexpr uint64_t kLongestSubtitleHeader = 2100000;

enum class EntryKind { Level, Trick, Audio, Subtitle };

/// One media file of a presentation as the manifest tells of it.
struct Entry {
    EntryKind kind = EntryKind::Level;
    std::string file;
    int bitrate = 0;
    int width = 0;
    int height = 0;
    int vbvBits = 0;
    uint64_t headerRequest = 0;
    std::string language;
    int reservedBandwidth = 0;
    int64_t assetId = 0;
    std::string mime;
    std::vector<int64_t> clusterTimesMs;
    std::vector<uint64_t> clusterSizes;
};

/// Everything that a presentation folder holds, beside the media itself. Levels stand in the order
/// of their rates.
struct Presentation {
    int64_t durationMs = 0;
    std::vector<Entry> entries;
};

/// Copies header size and clusters into the entry.
void Describe(Entry& entry, const FileLayout& layout);

/// The manifest. A player takes each "src" as it stands, so `baseUrl` must be the absolute URL of
/// the folder; a slash at its end makes no difference.
std::string ManifestText(const Presentation& presentation, const std::string& baseUrl);

/// The sidecar: the same facts with names relative to the folder, and the sizes of all clusters.
/// "segment_duration_ms", "bitrates_kbps" and "segment_sizes_bits" (a row for each cluster, a
/// column for each level) are laid out as ladder descriptions for simulations commonly are.
std::string SidecarText(const Presentation& presentation);

/// Throws PackageError (Refused) when the text is no sidecar of this program.
Presentation ParseSidecar(const std::string& text);

/// Names within a folder.
constexpr const char* kManifestName = "presentation.smil";
constexpr const char* kSidecarName = "presentation.json";

/// What a player takes as the beginning of a media file's URL; throws PackageError (Usage).
void CheckBaseUrl(const std::string& baseUrl);

/// Writes manifest and sidecar into the folder; throws PackageError (InputOutput).
void WritePresentation(const std::string& folder, const Presentation& presentation,
                       const std::string& baseUrl);

/// Writes only the manifest, from the folder's sidecar, when the files it names are there and
/// whole. Throws PackageError.
void RewriteManifest(const std::string& folder, const std::string& baseUrl);

}  // namespace opal::package
