#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

#include "PlatformAdapter/Mstar/HABTypes.h"

/// The road of AAC frames into the media item that the video side creates. It has no clock: it
/// stays at most 1 s ahead of the video last pushed, takes its position from the video decoder, and
/// drops frames that are not newer than the newest one delivered, as they come when a track is read
/// again.
///
/// Threading: any thread, but no two calls for one object at a time: the sink's lock sees to that.
/// Queue blocks for as long as the player refuses the payload, one try a second, until
/// the session ends.
/// Ownership: the caller of HABAudio_New deletes the object; arch is not owned and outlives it.
/// Units: milliseconds, Hz.
/// Errors: HAB results. HAB_AUDIO_FULL from Queue: nothing was taken. HAB_FAIL from Flush: a block
/// check has counted errors. A null handle is answered with 0 and no action.

/// Throws std::bad_alloc.
int HABAudio_New(HABAudio** phHABAudio, HHABARCH hArch, HHABTIMER hTimer);
int HABAudio_Delete(HHABAUDIO hHABAudio);
/// The first configuration lets video start. Once the player has its media item, a track change.
/// Rate and channels come from the AudioSpecificConfig in `codecPrivate` where it is whole, else
/// from the arguments. The player is told of no codec but AAC; others are not refused,
/// deliberately.
int HABAudio_Configure(HHABAUDIO hHABAudio, const std::string& codecId, uint32_t sampleRate,
                       uint32_t channels, const uint8_t* codecPrivate, size_t codecPrivateSize,
                       bool first);
int HABAudio_Queue(HHABAUDIO hHABAudio, const void* pAudioPacket, uint32_t dataSize,
                   uint32_t timestamp, uint32_t duration);
/// The next frame is taken whatever its time. The video side's flush is what empties the player.
int HABAudio_Flush(HHABAUDIO hHABAudio);
/// Stored only: the player is paused through the video side.
int HABAudio_Pause(HHABAUDIO hHABAudio, bool paused);
int HABAudio_GetPosition(HHABAUDIO hHABAudio, int64_t* ms);
int HABAudio_GetBufferedDuration(HHABAUDIO hHABAudio, uint32_t* ms);

/// Readers of an AudioSpecificConfig. Too few bytes fail an assertion: 1, 2, and 5 for what lies
/// behind the explicit rate of index 15.
uint32_t GetObjectID(const uint8_t* data, size_t dataSize);
uint32_t GetSampleFrequency(const uint8_t* data, size_t dataSize);
/// `sampleFrequency` is the index that GetSampleFrequency gave. 0 for the reserved ones.
uint32_t GetSampleRate(const uint8_t* data, size_t dataSize, uint32_t sampleFrequency);
uint32_t GetChannelCount(const uint8_t* data, size_t dataSize, uint32_t sampleFrequency);
