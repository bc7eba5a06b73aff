#pragma once

#include <cstddef>
#include <cstdint>

#pragma GCC visibility push(default)

/// The television's media player service, under the chip vendor's names. libOPAL's player bridge is
/// the only user. A television's maker puts the vendor's library in the place of the software that
/// is built here; the records therefore keep the vendor's shapes, spare bytes included.

/// Describes a media item to create. 192 bytes of which only some have a known meaning; the bridge
/// writes them by offset. Offset 32: file length (64 bit, all ones for a live stream); 40: media
/// type; 44: media file type; 80: video codec; 124: audio sample rate, Hz; 160: audio codec;
/// 164: application type. All 32 bit little-endian words but the first.
struct ST_MEDIA_INFO {
    unsigned char bytes[192];
};

/// One access unit for the decoder. `u32StreamType`: 1 video, 0 audio. `u32Pts` in milliseconds.
struct ST_MMPLAYER_DATA_INFO {
    void* pData;
    uint32_t u32Size;
    uint32_t u32Pts;
    uint32_t u32StreamType;
};

/// {1, 1} pauses, {0, 1} resumes at normal speed.
struct ST_TRICK_INFO {
    uint32_t u32Mode;
    uint32_t u32Speed;
};

/// A rectangle on the panel, pixels.
struct ST_RECT {
    uint16_t u16X;
    uint16_t u16Y;
    uint16_t u16Width;
    uint16_t u16Height;
};

/// Parameters of an audio track change, 60 bytes. Offset 16: channel count; 20: sample rate, Hz;
/// 56: codec number; 32 bits each.
struct ST_PLAYER_AUDIO_PARAM {
    unsigned char bytes[60];
};

enum EN_DATA_TYPE : uint32_t { EN_DATA_TYPE_VIDEO = 2 };
enum EN_PLAYER_VIDEO_BUFFER_INFO : uint32_t { EN_PLAYER_VIDEO_BUFFER_LEVEL = 7 };
enum EN_PLAYER_METADATA : uint32_t {
    EN_PLAYER_METADATA_WIDTH = 11,
    EN_PLAYER_METADATA_HEIGHT = 12
};

/// Events the service delivers on a thread of its own.
enum EN_PLAYER_EVENT : uint32_t {
    E_EVENT_INIT_OK = 3,
    E_EVENT_INIT_FAIL = 4,
    E_EVENT_INVALID_FILE = 5,
    E_EVENT_THUMBNAIL_DONE = 6,
    E_EVENT_THUMBNAIL_ERROR = 7,
    E_EVENT_DECODE_ERROR = 8,
    E_EVENT_DECODE_DONE = 9,
    E_EVENT_DECODE_FIRST_FRAME_DONE = 10,
    E_EVENT_DECODE_BACKWARD_TO_FILE_START = 11,
    E_EVENT_PLAYING_OK = 19
};

/// `instance`: the player; `event`: the event's number in the pointer itself; `item`: points to an
/// `unsigned long` with the item's handle. The result is not looked at.
typedef unsigned char (*MSRV_MM_EVENT_RECIPIENT)(void* instance, void* event, void* item);

/// The player. One at a time exists in a process. Operations that return a number return 0 for
/// success unless said otherwise.
///
/// Threading: any thread may call any operation; none of them calls an event recipient
/// synchronously. Events come one at a time from the service's own thread with no lock held.
class MSrv_MM_PlayerInterface {
  public:
    MSrv_MM_PlayerInterface();
    virtual ~MSrv_MM_PlayerInterface();

    MSrv_MM_PlayerInterface(const MSrv_MM_PlayerInterface&) = delete;
    MSrv_MM_PlayerInterface& operator=(const MSrv_MM_PlayerInterface&) = delete;

    virtual int MM_Initialize();
    virtual int MM_Finalize();

    virtual int AddEventRecipient(MSRV_MM_EVENT_RECIPIENT recipient);
    /// Returns only when a running delivery to `recipient` is over.
    virtual int RemoveEventRecipient(MSRV_MM_EVENT_RECIPIENT recipient);

    /// Makes an item for pushed data and writes its handle (never 0) before E_EVENT_INIT_OK or
    /// E_EVENT_INIT_FAIL is queued.
    virtual int MM_CreateMediaItem(const ST_MEDIA_INFO& info, unsigned long* item);
    virtual int MM_DeleteMediaItem(unsigned long item);
    /// Starts decoding; E_EVENT_PLAYING_OK follows, whether or not data is there.
    virtual int MM_Play(unsigned long item);
    virtual int MM_Stop(unsigned long item);
    virtual int MM_SetTrickMode(unsigned long item, const ST_TRICK_INFO& info);
    virtual int MM_SetDisplayRectangle(unsigned long item, const ST_RECT& rect);
    /// Takes one access unit, copying it before it returns. Non-zero means full: nothing was taken.
    /// Item 0 stages the data for the next item that is created. The first data of an item returns
    /// when its E_EVENT_INIT_... has been delivered, or two seconds later.
    virtual int MM_PushPayload(unsigned long item, ST_MMPLAYER_DATA_INFO* data);
    /// PTS of the picture on the screen, milliseconds; 0 before the first picture.
    virtual uint32_t MM_GetVideoPTS();
    /// Drops queued data of the item; over within 1.5 s.
    virtual int MM_SetFlushData(unsigned long item, EN_DATA_TYPE type);
    virtual int MM_DemuxReset(unsigned char flag);
    /// The gauge `EN_PLAYER_VIDEO_BUFFER_LEVEL`: a figure that changes whenever the decoder takes
    /// data and never when data is pushed.
    virtual int MM_GetVideoDataBufferInfo(unsigned long item, EN_PLAYER_VIDEO_BUFFER_INFO what,
                                          unsigned long* value);
    virtual int MM_SwitchAudioTrack(unsigned long item, const ST_PLAYER_AUDIO_PARAM& param);
    virtual int MM_GetMetaData(unsigned long item, EN_PLAYER_METADATA what, unsigned char* value,
                               unsigned long size);
    virtual int MM_GetPlayPosition(unsigned long item, unsigned long* ms);
    virtual int MM_SetAudioVolume(unsigned char volume);
    virtual int MM_SetVideoBlackScreen(unsigned char on);
};

#pragma GCC visibility pop
