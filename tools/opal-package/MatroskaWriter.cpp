#include "opal-package/MatroskaWriter.h"

#include <cstring>
#include <limits>
#include <sstream>
#include <stdexcept>

namespace opal::package {
namespace {

using Bytes = std::vector<uint8_t>;

constexpr uint32_t kEbmlHeader = 0x1A45DFA3;
constexpr uint32_t kSegment = 0x18538067;
constexpr uint32_t kSeekHead = 0x114D9B74;
constexpr uint32_t kInfo = 0x1549A966;
constexpr uint32_t kTracks = 0x1654AE6B;
constexpr uint32_t kAttachments = 0x1941A469;
constexpr uint32_t kCluster = 0x1F43B675;
constexpr uint32_t kCues = 0x1C53BB6B;

constexpr uint64_t kTrackNumber = 1;
/// Identifier of four bytes and size of eight, so that the size can be filled in at the end.
constexpr uint64_t kSegmentHeaderSize = 12;

void Append(Bytes& to, const Bytes& from) {
    to.insert(to.end(), from.begin(), from.end());
}

void PutBigEndian(Bytes& to, uint64_t value, unsigned length) {
    for (unsigned i = length; i-- > 0;)
        to.push_back(static_cast<uint8_t>(value >> (8 * i)));
}

void PutId(Bytes& to, uint32_t id) {
    unsigned length = id > 0xFFFFFF ? 4 : id > 0xFFFF ? 3 : id > 0xFF ? 2 : 1;
    PutBigEndian(to, id, length);
}

void PutSize(Bytes& to, uint64_t size) {
    unsigned length = 1;
    // All ones means "unknown size", so the largest value of each length is left out.
    while (length < 8 && size >= (uint64_t{1} << (7 * length)) - 1)
        ++length;
    PutBigEndian(to, size | (uint64_t{1} << (7 * length)), length);
}

void PutBinary(Bytes& to, uint32_t id, const Bytes& payload) {
    PutId(to, id);
    PutSize(to, payload.size());
    Append(to, payload);
}

void PutString(Bytes& to, uint32_t id, const std::string& text) {
    PutBinary(to, id, Bytes(text.begin(), text.end()));
}

void PutUIntSized(Bytes& to, uint32_t id, uint64_t value, unsigned length) {
    PutId(to, id);
    PutSize(to, length);
    PutBigEndian(to, value, length);
}

void PutUInt(Bytes& to, uint32_t id, uint64_t value) {
    unsigned length = 1;
    while (length < 8 && (value >> (8 * length)) != 0)
        ++length;
    PutUIntSized(to, id, value, length);
}

/// Two's complement, as few bytes as keep the sign. Serves the durations as well: players are
/// found that read BlockDuration as signed, and for them a value must not begin with a set bit.
void PutInt(Bytes& to, uint32_t id, int64_t value) {
    unsigned length = 1;
    while (length < 8) {
        const int64_t limit = int64_t{1} << (8 * length - 1);
        if (value >= -limit && value < limit)
            break;
        ++length;
    }
    PutUIntSized(to, id, static_cast<uint64_t>(value), length);
}

void PutFloat(Bytes& to, uint32_t id, float value) {
    uint32_t bits = 0;
    static_assert(sizeof bits == sizeof value, "four-byte float");
    std::memcpy(&bits, &value, sizeof bits);
    PutUIntSized(to, id, bits, 4);
}

Bytes EbmlHeader() {
    Bytes payload;
    PutUInt(payload, 0x4286, 1);  // EBMLVersion
    PutUInt(payload, 0x42F7, 1);  // EBMLReadVersion
    PutUInt(payload, 0x42F2, 4);  // EBMLMaxIDLength
    PutUInt(payload, 0x42F3, 8);  // EBMLMaxSizeLength
    PutString(payload, 0x4282, "matroska");
    PutUInt(payload, 0x4287, 4);  // DocTypeVersion
    PutUInt(payload, 0x4285, 2);  // DocTypeReadVersion
    Bytes out;
    PutBinary(out, kEbmlHeader, payload);
    return out;
}

/// Info with a duration of 0; `durationOffset` is where its four bytes stand in the result.
Bytes InfoElement(uint64_t& durationOffset) {
    Bytes payload;
    PutUInt(payload, 0x2AD7B1, 1000000);  // TimecodeScale
    PutFloat(payload, 0x4489, 0);         // Duration
    const size_t durationInPayload = payload.size() - 4;
    PutString(payload, 0x4D80, "opal-package");  // MuxingApp
    PutString(payload, 0x5741, "opal-package");  // WritingApp
    Bytes out;
    PutBinary(out, kInfo, payload);
    durationOffset = out.size() - payload.size() + durationInPayload;
    return out;
}

Bytes ColourElement(const ColourCodes& colour) {
    Bytes payload;
    PutUInt(payload, 0x55B1, colour.matrix);
    PutUInt(payload, 0x55B9, colour.range);
    PutUInt(payload, 0x55BA, colour.transfer);
    PutUInt(payload, 0x55BB, colour.primaries);
    return payload;
}

Bytes TracksElement(const TrackDescription& track) {
    Bytes entry;
    PutUInt(entry, 0xD7, kTrackNumber);
    PutUInt(entry, 0x73C5, kTrackNumber);  // TrackUID
    PutUInt(entry, 0x83, static_cast<uint64_t>(track.kind));
    PutUInt(entry, 0x9C, 0);  // FlagLacing
    PutString(entry, 0x22B59C, track.language);
    PutString(entry, 0x86, track.codecId);
    if (!track.codecPrivate.empty())
        PutBinary(entry, 0x63A2, track.codecPrivate);
    if (track.defaultDurationNs > 0)
        PutUInt(entry, 0x23E383, track.defaultDurationNs);
    Bytes format;
    if (track.kind == TrackKind::Video) {
        PutUInt(format, 0xB0, track.width);
        PutUInt(format, 0xBA, track.height);
        if (track.displayWidth > 0) {
            PutUInt(format, 0x54B0, track.displayWidth);
            PutUInt(format, 0x54BA, track.displayHeight);
        }
        if (track.colour)
            PutBinary(format, 0x55B0, ColourElement(*track.colour));
        PutBinary(entry, 0xE0, format);
    } else if (track.kind == TrackKind::Audio) {
        PutFloat(format, 0xB5, track.samplingFrequency);
        PutUInt(format, 0x9F, track.channels);
        PutBinary(entry, 0xE1, format);
    }
    Bytes tracks;
    PutBinary(tracks, 0xAE, entry);
    Bytes out;
    PutBinary(out, kTracks, tracks);
    return out;
}

Bytes AttachmentsElement(const Attachment& attachment) {
    Bytes file;
    PutString(file, 0x466E, attachment.fileName);
    PutString(file, 0x4660, attachment.mimeType);
    PutUInt(file, 0x46AE, 1);  // FileUID
    PutBinary(file, 0x465C, attachment.data);
    Bytes payload;
    PutBinary(payload, 0x61A7, file);
    Bytes out;
    PutBinary(out, kAttachments, payload);
    return out;
}

/// Positions are eight bytes each, so that the length of the SeekHead does not depend on them.
Bytes SeekHeadElement(const std::vector<std::pair<uint32_t, uint64_t>>& targets) {
    Bytes payload;
    for (const auto& [id, position] : targets) {
        Bytes seek;
        PutUIntSized(seek, 0x53AB, id, 4);
        PutUIntSized(seek, 0x53AC, position, 8);
        PutBinary(payload, 0x4DBB, seek);
    }
    Bytes out;
    PutBinary(out, kSeekHead, payload);
    return out;
}

Bytes BlockGroupElement(const Block& block, int64_t clusterTimeMs, int64_t previousTimeMs) {
    const int64_t relative = block.timeMs - clusterTimeMs;
    if (relative < std::numeric_limits<int16_t>::min() ||
        relative > std::numeric_limits<int16_t>::max()) {
        throw std::invalid_argument("block at " + std::to_string(block.timeMs) +
                                    " ms is too far from its cluster at " +
                                    std::to_string(clusterTimeMs) + " ms");
    }
    if (block.data.empty())
        throw std::invalid_argument("block at " + std::to_string(block.timeMs) + " ms is empty");
    Bytes group;
    PutId(group, 0xA1);
    PutSize(group, block.data.size() + 4);
    PutSize(group, kTrackNumber);
    PutBigEndian(group, static_cast<uint16_t>(relative), 2);
    group.push_back(0);  // flags: visible, no lacing
    Append(group, block.data);
    if (block.durationMs > 0)
        PutInt(group, 0x9B, block.durationMs);
    if (!block.key)
        PutInt(group, 0xFB, previousTimeMs - block.timeMs);
    Bytes out;
    PutBinary(out, 0xA0, group);
    return out;
}

}  // namespace

MatroskaWriter::MatroskaWriter(std::ostream& out, const TrackDescription& track)
    : m_out(out), m_frameLists(track.frameLists) {
    const Bytes ebml = EbmlHeader();
    uint64_t durationInInfo = 0;
    const Bytes info = InfoElement(durationInInfo);
    const Bytes tracks = TracksElement(track);
    const Bytes attachments = track.attachment ? AttachmentsElement(*track.attachment) : Bytes();

    std::vector<std::pair<uint32_t, uint64_t>> targets = {{kInfo, 0}, {kTracks, 0}};
    if (track.attachment)
        targets.emplace_back(kAttachments, 0);
    targets.emplace_back(kCues, 0);
    const uint64_t seekSize = SeekHeadElement(targets).size();
    targets[0].second = seekSize;
    targets[1].second = seekSize + info.size();
    if (track.attachment)
        targets[2].second = seekSize + info.size() + tracks.size();

    m_segmentSizeOffset = ebml.size() + 4;
    m_layout.segmentDataOffset = ebml.size() + kSegmentHeaderSize;
    m_durationOffset = m_layout.segmentDataOffset + seekSize + durationInInfo;
    m_cuesPositionOffset = m_layout.segmentDataOffset + seekSize - 8;

    Bytes header = ebml;
    PutId(header, kSegment);
    PutBigEndian(header, uint64_t{1} << 56, 8);
    Append(header, SeekHeadElement(targets));
    Append(header, info);
    Append(header, tracks);
    Append(header, attachments);
    Put(header);
    m_layout.headerSize = m_position;
}

void MatroskaWriter::WriteCluster(const Cluster& cluster) {
    if (cluster.timeMs < 0 ||
        (!m_layout.clusters.empty() && cluster.timeMs <= m_layout.clusters.back().timeMs)) {
        throw std::invalid_argument("cluster at " + std::to_string(cluster.timeMs) +
                                    " ms is out of order");
    }
    Bytes payload;
    PutUInt(payload, 0xE7, static_cast<uint64_t>(cluster.timeMs));
    std::vector<uint64_t> places;
    std::vector<uint64_t> keyFrames;
    int64_t previous = cluster.timeMs;
    for (const Block& block : cluster.blocks) {
        places.push_back(payload.size());
        if (block.key)
            keyFrames.push_back(payload.size());
        Append(payload, BlockGroupElement(block, cluster.timeMs, previous));
        previous = block.timeMs;
    }
    Bytes out;
    PutBinary(out, kCluster, payload);
    const uint64_t headerSize = out.size() - payload.size();

    ClusterLayout layout;
    layout.timeMs = cluster.timeMs;
    layout.offset = m_position;
    layout.size = out.size();
    for (uint64_t place : places)
        layout.frameOffsets.push_back(m_position + headerSize + place);
    for (uint64_t& place : keyFrames)
        place += headerSize;
    m_layout.clusters.push_back(std::move(layout));
    m_keyFrames.push_back(std::move(keyFrames));
    Put(out);
}

FileLayout MatroskaWriter::Finish(int64_t durationMs) {
    Bytes points;
    for (size_t i = 0; i < m_layout.clusters.size(); ++i) {
        const ClusterLayout& cluster = m_layout.clusters[i];
        Bytes positions;
        PutUInt(positions, 0xF7, kTrackNumber);
        PutUInt(positions, 0xF1, cluster.offset - m_layout.segmentDataOffset);
        if (m_frameLists) {
            Bytes frames;
            for (uint64_t place : m_keyFrames[i])
                PutUInt(frames, 0xF9, place);
            PutBinary(positions, 0xF8, frames);
        }
        Bytes point;
        PutUInt(point, 0xB3, static_cast<uint64_t>(cluster.timeMs));
        PutBinary(point, 0xB7, positions);
        PutBinary(points, 0xBB, point);
    }
    Bytes cues;
    PutBinary(cues, kCues, points);
    m_layout.cuesOffset = m_position;
    m_layout.cuesSize = cues.size();
    Put(cues);
    m_layout.fileSize = m_position;

    Bytes segmentSize;
    PutBigEndian(segmentSize, (uint64_t{1} << 56) | (m_position - m_layout.segmentDataOffset), 8);
    Patch(m_segmentSizeOffset, segmentSize);
    Bytes duration;
    PutFloat(duration, 0x4489, static_cast<float>(durationMs));
    Patch(m_durationOffset, Bytes(duration.end() - 4, duration.end()));
    Bytes cuesPosition;
    PutBigEndian(cuesPosition, m_layout.cuesOffset - m_layout.segmentDataOffset, 8);
    Patch(m_cuesPositionOffset, cuesPosition);
    m_out.seekp(static_cast<std::streamoff>(m_position));
    m_out.flush();
    if (!m_out)
        throw std::runtime_error("the file could not be completed");
    return m_layout;
}

void MatroskaWriter::Put(const Bytes& bytes) {
    m_out.write(reinterpret_cast<const char*>(bytes.data()),
                static_cast<std::streamsize>(bytes.size()));
    if (!m_out)
        throw std::runtime_error("the file could not be written");
    m_position += bytes.size();
}

void MatroskaWriter::Patch(uint64_t offset, const Bytes& bytes) {
    m_out.seekp(static_cast<std::streamoff>(offset));
    m_out.write(reinterpret_cast<const char*>(bytes.data()),
                static_cast<std::streamsize>(bytes.size()));
}

BuiltFile BuildFile(const TrackDescription& track, const std::vector<Cluster>& clusters,
                    int64_t durationMs) {
    std::ostringstream out(std::ios::binary);
    MatroskaWriter writer(out, track);
    for (const Cluster& cluster : clusters)
        writer.WriteCluster(cluster);
    BuiltFile file;
    file.layout = writer.Finish(durationMs);
    const std::string text = out.str();
    file.bytes.assign(text.begin(), text.end());
    return file;
}

}  // namespace opal::package
