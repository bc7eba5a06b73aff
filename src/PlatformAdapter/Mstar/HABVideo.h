#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

#include "Common/OPALPlayRate.h"
#include "PlatformAdapter/Mstar/HABTypes.h"

/// The road of AVC access units to the television's player: creates and starts the player's media
/// item, keeps data at most 2 s ahead of the picture, and maps media time to the decoder's timeline
/// and back. The decoder sees time run forward at normal speed whatever the play rate is; a trick
/// rate exists only in that mapping and in which frames are queued.
///
/// Threading: any thread; Queue, Flush and Pause exclude each other by one process-wide mutex.
/// Queue blocks for as long as the player refuses the payload, one try a second, until
/// the session ends; Flush blocks for 1.5 s, or until then. Position and buffered duration read
/// what Queue and Flush write: their caller keeps them apart by its own lock. Ownership: the caller
/// of HABVideo_New deletes the object; arch and timer are not owned and outlive it. The player is a
/// singleton, so one object at a time is of use in a process. Units: milliseconds. Errors: HAB
/// results. HAB_VIDEO_FULL from Queue: nothing was taken. HAB_FAIL from Flush: a block check has
/// counted errors. A null handle is answered with 0 and no action.

/// Throws std::bad_alloc.
int HABVideo_New(HABVideo** phHABVideo, HHABARCH hArch, HHABTIMER hTimer);
/// Also stops the player and lets go of it.
int HABVideo_Delete(HHABVIDEO hHABVideo);
/// Readies the player. Size, bit rate and private data are not looked at: parameter sets come in
/// band. Any codec is taken for AVC.
int HABVideo_Configure(HHABVIDEO hHABVideo, const std::string& codecId, int width, int height,
                       int64_t bitrate, const void* codecPrivate, size_t codecPrivateSize,
                       bool first);
/// One access unit with length-prefixed NAL units, changed in place to start codes once it is
/// certain to be taken. Nothing goes in before the audio side is configured.
int HABVideo_Queue(HHABVIDEO hHABVideo, void* pVideoData, int32_t dataSize, uint32_t timestamp);
int HABVideo_Flush(HHABVIDEO hHABVideo);
int HABVideo_Pause(HHABVIDEO hHABVideo, bool paused);
/// The player is not told. At an unknown rate every block gets the decoder time 0.
int HABVideo_SetRate(HHABVIDEO hHABVideo, OPALPlayRate rate);
/// Media time of the picture on the screen, 0 before the decoder plays.
int HABVideo_GetPosition(HHABVIDEO hHABVideo, int64_t* ms);
/// On the decoder's timeline: at 8x, 1 s is 8 s of media.
int HABVideo_GetBufferedDuration(HHABVIDEO hHABVideo, uint32_t* ms);
/// Stored only.
int HABVideo_SetClusterTime(HHABVIDEO hHABVideo, int64_t ms);

/// The length prefix at `data`, big-endian and signed; 0 when fewer than 4 of `count` bytes remain.
int NALSize(const uint8_t* data, int32_t count);
