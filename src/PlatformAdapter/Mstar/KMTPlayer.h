#pragma once

#include <cstdint>

#include "MSrv_MM_PlayerInterface.h"

/// The one place that talks to the television's player service: a process-wide player object with
/// at most one media item.
///
/// Threading: any thread. Item creation and payloads exclude each other by the bridge's mutex; the
/// other calls are ordered by the layers above. The player object is kept alive while any call is
/// inside it. The event callback comes on the service's own thread and must not block.
/// Ownership: the bridge owns the player object from KMTPlayer_Initialize to KMTPlayer_Finalize.
/// Units: milliseconds, Hz.
/// Errors: 1 for success and 0 for failure unless said otherwise; each failure is printed.

/// One access unit, handed on word by word.
struct KMTPLAYER_DATA_INFO {
    void* data;
    uint32_t size;
    uint32_t pts;
    uint32_t streamType;  ///< one of the two below
};
constexpr uint32_t kAudioPayload = 0;
constexpr uint32_t kVideoPayload = 1;

/// Events as the callback gets them.
enum KMTPlayerEvent : int {
    KMTPLAYER_EVENT_DECODE_ERROR = 2,
    KMTPLAYER_EVENT_DECODE_DONE = 3,
    KMTPLAYER_EVENT_INIT_OK = 4,
    KMTPLAYER_EVENT_INIT_FAIL = 5,
    KMTPLAYER_EVENT_INVALID_FILE = 6,
    KMTPLAYER_EVENT_THUMBNAIL_DONE = 7,
    KMTPLAYER_EVENT_THUMBNAIL_ERROR = 8,
    KMTPLAYER_EVENT_DECODE_FIRST_FRAME_DONE = 9,
    KMTPLAYER_EVENT_DECODE_BACKWARD_TO_FILE_START = 10,
    KMTPLAYER_EVENT_PLAYING_OK = 11
};

typedef int (*KMTPlayerIoCallback)(int event, uint32_t param);
constexpr int kIoCallbackCount = 6;
/// The entry that events go to; the service knows the others, this library leaves them null.
constexpr int kEventCallbackIndex = 4;

int KMTPlayer_System_Initialize();
/// 0 also when the player exists already, which then stays as it is.
int KMTPlayer_Initialize();
/// No event comes any more when it returns. A player that cannot be disconnected stays.
int KMTPlayer_Finalize();
/// Starts the item, or resumes it when it is paused.
int KMTPlayer_Play();
int KMTPlayer_Stop();
int KMTPlayer_Pause();
int KMTPlayer_RegisterIoCallback(const KMTPlayerIoCallback (&table)[kIoCallbackCount]);
int KMTPlayer_SetVideoCodec(int codec);
int KMTPlayer_SetAudioCodec(int codec);
/// Refuses a rate below 1 and keeps the former one.
int KMTPlayer_SetAudioSampleRate(int sampleRate);
/// 0 before a codec was chosen, and while there is an item.
int KMTPlayer_CreateMediaItem();
int KMTPlayer_DeleteMediaItem();
/// 1: taken, the bytes are copied. Without an item the player still decides.
int KMTPlayer_PushPayload(KMTPLAYER_DATA_INFO* info);
/// The decoder's PTS; 0 without a player.
uint32_t KMTPlayer_GetPlayPosition();
int KMTPlayer_SetFlushData(EN_DATA_TYPE type);
int KMTPlayer_DemuxReset();
/// A gauge that moves when the decoder takes data; 0 without a player.
uint32_t KMTPlayer_GetVideoBufferLevel();
int KMTPlayer_SetVideoBlackScreen(bool on);
int KMTPlayer_SetAudioVolume(uint8_t volume);
int KMTPlayer_SwitchAudioTrack(int codec, uint32_t sampleRate, uint32_t channels);

/// The subtitle window, of which there is one at a time; none of these takes a lock of the
/// player's. 0 from KMTPlayer_Subtitle_Initialize also when there is one already.
int KMTPlayer_Subtitle_Initialize();
/// Clears the window first.
int KMTPlayer_Subtitle_Finalize();
/// 0 without a window object. A display that has no place for subtitles answers 1.
int KMTPlayer_Subtitle_Clear();
/// One alpha a pixel, 1280 x 720.
int KMTPlayer_Subtitle_DrawImage(const uint8_t* image);
int KMTPlayer_Subtitle_DrawText(const char* text, long size);
