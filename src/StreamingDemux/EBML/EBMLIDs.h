#pragma once

#include <cstdint>

/// Identifiers of the elements that the client reads, length marker included.
namespace opal::ebml {

constexpr uint64_t kHeader = 0x1A45DFA3;
constexpr uint64_t kSegment = 0x18538067;

constexpr uint64_t kSeekHead = 0x114D9B74;
constexpr uint64_t kSeek = 0x4DBB;
constexpr uint64_t kSeekID = 0x53AB;
constexpr uint64_t kSeekPosition = 0x53AC;

constexpr uint64_t kInfo = 0x1549A966;
constexpr uint64_t kTimecodeScale = 0x2AD7B1;
constexpr uint64_t kDuration = 0x4489;

constexpr uint64_t kTracks = 0x1654AE6B;
constexpr uint64_t kTrackEntry = 0xAE;
constexpr uint64_t kTrackType = 0x83;
constexpr uint64_t kDefaultDuration = 0x23E383;
constexpr uint64_t kCodecID = 0x86;
constexpr uint64_t kCodecPrivate = 0x63A2;
constexpr uint64_t kAudio = 0xE1;
constexpr uint64_t kOutputSamplingFrequency = 0x78B5;
constexpr uint64_t kSamplingFrequency = 0xB5;
constexpr uint64_t kChannels = 0x9F;

constexpr uint64_t kAttachments = 0x1941A469;
constexpr uint64_t kAttachedFile = 0x61A7;
constexpr uint64_t kFileMimeType = 0x4660;
constexpr uint64_t kFileName = 0x466E;
constexpr uint64_t kFileData = 0x465C;

constexpr uint64_t kCluster = 0x1F43B675;
constexpr uint64_t kTimecode = 0xE7;
constexpr uint64_t kBlockGroup = 0xA0;
constexpr uint64_t kBlock = 0xA1;
constexpr uint64_t kBlockDuration = 0x9B;
constexpr uint64_t kReferenceBlock = 0xFB;

constexpr uint64_t kCues = 0x1C53BB6B;
constexpr uint64_t kCuePoint = 0xBB;
constexpr uint64_t kCueTime = 0xB3;
constexpr uint64_t kCueTrackPositions = 0xB7;
constexpr uint64_t kCueClusterPosition = 0xF1;
constexpr uint64_t kCueFrameList = 0xF8;      ///< this client's own: the key frames of the cluster
constexpr uint64_t kCueFramePosition = 0xF9;  ///< this client's own: offset from the cluster

}  // namespace opal::ebml
