#pragma once

#include <array>
#include <atomic>
#include <boost/shared_ptr.hpp>
#include <cstddef>
#include <cstdint>
#include <vector>

#include "Common/OPALStreamType.h"
#include "PlatformAdapter/Mstar/GoldenFiles.h"
#include "PlatformAdapter/Mstar/HABTypes.h"
#include "StreamingDemux/EBML/BlockNode.h"

// The verification of blocks against golden files, as the HAB layers use it. A mismatch is printed
// and counted, and the count makes the next flush report failure.

/// True if the block fits one of the object's golden files, or it has none; false without an
/// object. The caller keeps calls for one object apart.
bool CheckVideoBlock(HHABVIDEO hab, const BlockNode& block);
bool CheckAudioBlock(HHABAUDIO hab, const BlockNode& block);
bool CheckSubtitleBlock(HHABSUBTITLE hab, const BlockNode& block);

namespace opal {

using CrcTable = std::array<uint32_t, 256>;
using GoldenFileList = std::vector<boost::shared_ptr<GoldenFileParser>>;

/// The table of CRC-32 (IEEE 802.3), most significant bit first.
void FillCrcTable(CrcTable& table);

/// CRC-32 (IEEE 802.3) of the bytes. The table is not a reflected one, so each byte and the result
/// are bit-reversed.
uint32_t CalculateCrc(const CrcTable& table, const uint8_t* data, size_t size);

/// Mismatches counted since the process started, or GoldenFiles_DetachAll.
std::atomic<uint32_t>& VideoErrorCount();
std::atomic<uint32_t>& AudioErrorCount();
std::atomic<uint32_t>& SubtitleErrorCount();

/// The check behind the three above.
bool CheckBlock(OPALStreamType type, const GoldenFileList& files, const CrcTable& table,
                const BlockNode& block);

/// Whether files have been attached for blocks of this kind: all that is asked in a session that is
/// not verified.
bool IsVerified(OPALStreamType type);
/// Brings `files` up to date with what has been attached.
void UpdateGoldenFiles(OPALStreamType type, GoldenFileList& files);
/// What a verified session counts beside the errors.
void NoteVerified(OPALStreamType type, const BlockNode& block, bool passed);
/// HAB_FAIL, and noted, while blocks of this kind have failed.
int VerifiedFlushResult(OPALStreamType type);

/// Verifies a block that the HAB layer has taken, before anything changes its bytes.
template <typename Hab>
void VerifyBlock(OPALStreamType type, Hab* hab, bool (*check)(Hab*, const BlockNode&),
                 const void* data, size_t size, int64_t timestamp) {
    if (!IsVerified(type))
        return;
    UpdateGoldenFiles(type, hab->goldenFiles);
    BlockNode block;
    block.data.Assign(static_cast<const unsigned char*>(data), size, 0, false);
    block.timecode = timestamp;
    NoteVerified(type, block, check(hab, block));
}

}  // namespace opal
