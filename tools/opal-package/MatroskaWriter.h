#pragma once

#include <cstdint>
#include <optional>
#include <ostream>
#include <string>
#include <vector>

namespace opal::package {

enum class TrackKind { Video = 1, Audio = 2, Subtitle = 17 };

/// A font that a subtitle file carries in its header.
struct Attachment {
    std::string fileName;
    std::string mimeType = "application/x-truetype-font";
    std::vector<uint8_t> data;
};

/// Codes of ISO/IEC 23091-2; the range is 1 for limited and 2 for full, 0 for unknown.
struct ColourCodes {
    uint32_t primaries = 2;
    uint32_t transfer = 2;
    uint32_t matrix = 2;
    uint32_t range = 0;
};

/// What the header of a media file says of its one track. Fields that are zero or empty are left
/// out of the file.
struct TrackDescription {
    TrackKind kind = TrackKind::Video;
    std::string codecId;
    std::vector<uint8_t> codecPrivate;
    std::string language = "und";
    uint64_t defaultDurationNs = 0;
    uint32_t width = 0;
    uint32_t height = 0;
    /// Size in square pixels, where it is another than that of the coded picture.
    uint32_t displayWidth = 0;
    uint32_t displayHeight = 0;
    std::optional<ColourCodes> colour;
    float samplingFrequency = 0;
    uint32_t channels = 0;
    std::optional<Attachment> attachment;
    /// Lists the place of every key frame in the index, as trick play needs it.
    bool frameLists = false;
};

/// One access unit, audio frame or text. Blocks stand in decode order; the time is that of
/// presentation.
struct Block {
    int64_t timeMs = 0;
    /// Written when above zero.
    int64_t durationMs = 0;
    bool key = true;
    std::vector<uint8_t> data;
};

struct Cluster {
    int64_t timeMs = 0;
    std::vector<Block> blocks;
};

/// Where things lie in a finished file; every offset counts from the file's first byte.
struct ClusterLayout {
    int64_t timeMs = 0;
    uint64_t offset = 0;
    uint64_t size = 0;
    /// First byte of each block's BlockGroup.
    std::vector<uint64_t> frameOffsets;
};

struct FileLayout {
    /// Bytes up to the first cluster, which is what a manifest's "header-request" gives.
    uint64_t headerSize = 0;
    /// First byte of the Segment's payload.
    uint64_t segmentDataOffset = 0;
    uint64_t cuesOffset = 0;
    uint64_t cuesSize = 0;
    uint64_t fileSize = 0;
    std::vector<ClusterLayout> clusters;
};

/// Writes one media file: EBML header, Segment of known size with SeekHead, Info, Tracks and
/// Attachments, then clusters of BlockGroups without lacing, then the Cues. One track a file.
///
/// Threading: none; one thread at a time.
/// Ownership: the stream is the caller's, must be seekable (sizes and duration are filled in at
/// the end) and must outlive the writer. The file begins at the stream's position 0.
/// Units: milliseconds; the file's TimecodeScale is 1 ms.
/// Errors: std::invalid_argument for what the format cannot hold (an empty block, a block more than
/// 32767 ms from its cluster's time, clusters out of order), std::runtime_error when the stream
/// does not take the bytes.
class MatroskaWriter {
  public:
    /// Writes the header at once.
    MatroskaWriter(std::ostream& out, const TrackDescription& track);

    void WriteCluster(const Cluster& cluster);

    /// Writes the index, fills in sizes and duration. To be called once, after the last cluster.
    FileLayout Finish(int64_t durationMs);

    /// Bytes before the first cluster.
    uint64_t HeaderSize() const { return m_layout.headerSize; }

  private:
    void Put(const std::vector<uint8_t>& bytes);
    void Patch(uint64_t offset, const std::vector<uint8_t>& bytes);

    std::ostream& m_out;
    bool m_frameLists;
    uint64_t m_position = 0;
    uint64_t m_segmentSizeOffset = 0;
    uint64_t m_durationOffset = 0;
    uint64_t m_cuesPositionOffset = 0;
    /// Places in the cluster of the key frames that the index lists, a vector for each cluster.
    std::vector<std::vector<uint64_t>> m_keyFrames;
    FileLayout m_layout;
};

/// A whole file in memory, without any encoding; for tests and tools that need exact content.
struct BuiltFile {
    std::vector<uint8_t> bytes;
    FileLayout layout;
};
BuiltFile BuildFile(const TrackDescription& track, const std::vector<Cluster>& clusters,
                    int64_t durationMs);

}  // namespace opal::package
