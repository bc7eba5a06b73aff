#include "PlatformAdapter/Mstar/src/MSrv_Kmtplayer.h"

#include <atomic>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <new>

#include "Common/Mutex.h"
#include "MSystem.h"
#include "PlatformAdapter/Mstar/KMTPlayer.h"
#include "PlatformAdapter/Mstar/src/MSrv_Kmtplayer_Subtitle.h"

namespace {

// Held shared by every call into the player, and whole by what makes, changes or destroys player,
// item, g_mutex and formats, so that no call meets a player that is being destroyed. The event
// thread does not take it, since it is waited for with the lock held. Taken before g_mutex.
opal::SharedMutex g_playerMutex;
using UseLock = opal::SharedLock;
using ChangeLock = opal::ExclusiveLock;

MSrv_MM_PlayerInterface* _pMMInterface OPAL_GUARDED_BY(g_playerMutex) = nullptr;
unsigned long _u32Item OPAL_GUARDED_BY(g_playerMutex) = 0;
constexpr ST_TRICK_INFO g_trickInfo = {0, 1};
std::atomic<bool> g_paused{false};  // set with the lock held shared
bool g_systemReady OPAL_GUARDED_BY(g_playerMutex) = false;
ST_RECT g_displayRect OPAL_GUARDED_BY(g_playerMutex) = {};
// Nothing here sets it, deliberately: the picture fills the screen. A television that wants another
// rectangle begins here.
bool g_displayRectSet OPAL_GUARDED_BY(g_playerMutex) = false;
bool g_mutexReady OPAL_GUARDED_BY(g_playerMutex) = false;
pthread_mutex_t g_mutex;
int g_videoCodec OPAL_GUARDED_BY(g_playerMutex) = -1;
int g_audioCodec OPAL_GUARDED_BY(g_playerMutex) = -1;
int g_audioSampleRate OPAL_GUARDED_BY(g_playerMutex) = 0;
bool g_videoCodecSet OPAL_GUARDED_BY(g_playerMutex) = false;
bool g_audioCodecSet OPAL_GUARDED_BY(g_playerMutex) = false;
std::atomic<KMTPlayerIoCallback> g_ioCallbacks[kIoCallbackCount] = {};

// Held as g_playerMutex is, for the subtitle window, and never together with it: the window may ask
// the player.
opal::SharedMutex g_subtitleMutex;
bool g_subtitleReady OPAL_GUARDED_BY(g_subtitleMutex) = false;
MSrv_Kmtplayer_Subtitle* g_pSubtitle OPAL_GUARDED_BY(g_subtitleMutex) = nullptr;

// The player's own record of who creates an item or pushes.
class PayloadLock {
  public:
    PayloadLock(const char* function, int line) OPAL_REQUIRES_SHARED(g_playerMutex)
        : m_locked(g_mutexReady) {
        if (m_locked)
            pthread_mutex_lock_tracker(&g_mutex, function, line);
    }
    ~PayloadLock() {
        if (m_locked)
            pthread_mutex_unlock_tracker(&g_mutex);
    }
    PayloadLock(const PayloadLock&) = delete;
    PayloadLock& operator=(const PayloadLock&) = delete;

  private:
    const bool m_locked;
};

// One call to printf a message, so that messages of several threads do not mix.
__attribute__((format(printf, 3, 4))) void Print(const char* function, int line, const char* format,
                                                 ...) {
    char message[256];
    va_list arguments;
    va_start(arguments, format);
    std::vsnprintf(message, sizeof message, format, arguments);
    va_end(arguments);
    std::printf("\033[0;33m###### [%s - %s][%06d]%s ######\033[0m\n \n", __FILE__, function, line,
                message);
}
#define KMT_PRINT(...) Print(__func__, __LINE__, __VA_ARGS__)

// The records' words are little-endian whatever the host is.
void Put(unsigned char* bytes, size_t offset, size_t width, uint64_t value) {
    for (size_t i = 0; i < width; ++i)
        bytes[offset + i] = static_cast<unsigned char>(value >> (8 * i));
}

constexpr uint64_t kUnknownLength = ~uint64_t{0};  // a live stream
constexpr int kMediaType = 2;
constexpr int kMediaFileType = 3;
constexpr int kAppType = 0;

ST_MEDIA_INFO DescribeItem() OPAL_REQUIRES(g_playerMutex) {
    ST_MEDIA_INFO info = {};
    Put(info.bytes, 16, 4, 1);
    Put(info.bytes, 32, 8, kUnknownLength);
    Put(info.bytes, 40, 4, kMediaType);
    Put(info.bytes, 44, 4, kMediaFileType);
    Put(info.bytes, 72, 4, 2);
    Put(info.bytes, 80, 4, static_cast<uint32_t>(g_videoCodec));
    Put(info.bytes, 98, 1, 1);
    Put(info.bytes, 124, 4, static_cast<uint32_t>(g_audioSampleRate));
    Put(info.bytes, 160, 4, static_cast<uint32_t>(g_audioCodec));
    Put(info.bytes, 164, 4, kAppType);
    return info;
}

struct EventRow {
    EN_PLAYER_EVENT code;
    KMTPlayerEvent passedOn;
    const char* name;
};

constexpr EventRow kEvents[] = {
    {E_EVENT_INIT_OK, KMTPLAYER_EVENT_INIT_OK, "E_EVENT_INIT_OK"},
    {E_EVENT_INIT_FAIL, KMTPLAYER_EVENT_INIT_FAIL, "E_EVENT_INIT_FAIL"},
    {E_EVENT_INVALID_FILE, KMTPLAYER_EVENT_INVALID_FILE, "E_EVENT_INVALID_FILE"},
    {E_EVENT_THUMBNAIL_DONE, KMTPLAYER_EVENT_THUMBNAIL_DONE, "E_EVENT_THUMBNAIL_DONE"},
    {E_EVENT_THUMBNAIL_ERROR, KMTPLAYER_EVENT_THUMBNAIL_ERROR, "E_EVENT_THUMBNAIL_ERROR"},
    {E_EVENT_DECODE_ERROR, KMTPLAYER_EVENT_DECODE_ERROR, "E_EVENT_DECODE_ERROR"},
    {E_EVENT_DECODE_DONE, KMTPLAYER_EVENT_DECODE_DONE, "E_EVENT_DECODE_DONE"},
    {E_EVENT_DECODE_FIRST_FRAME_DONE, KMTPLAYER_EVENT_DECODE_FIRST_FRAME_DONE,
     "E_EVENT_DECODE_FIRST_FRAME_DONE"},
    {E_EVENT_DECODE_BACKWARD_TO_FILE_START, KMTPLAYER_EVENT_DECODE_BACKWARD_TO_FILE_START,
     "E_EVENT_DECODE_BACKWARD_TO_FILE_START"},
    {E_EVENT_PLAYING_OK, KMTPLAYER_EVENT_PLAYING_OK, "E_EVENT_PLAYING_OK"},
};

void ForgetFormats() OPAL_REQUIRES(g_playerMutex) {
    g_videoCodec = -1;
    g_audioCodec = -1;
    g_audioSampleRate = 0;
    g_videoCodecSet = false;
    g_audioCodecSet = false;
}

void InitializeSystemOnce() OPAL_REQUIRES(g_playerMutex) {
    if (g_systemReady)
        return;
    MSystem::bEnableInitialResLoading = 0;
    MSystem::Initialize(0, nullptr, 0);
    MSystem::InitializeDFBLayer();
    KMT_PRINT("MSystem INIT!!!");
    g_systemReady = true;
}

}  // namespace

unsigned char IO_Callback(void* /*instance*/, void* event, void* item) {
    unsigned long handle = 0;
    if (item)
        std::memcpy(&handle, item, sizeof handle);
    if (handle == 0)
        return 0;
    const uintptr_t code = reinterpret_cast<uintptr_t>(event);  // a number, not an address
    for (const EventRow& row : kEvents) {
        if (row.code != code)
            continue;
        KMT_PRINT("Get %s event.", row.name);
        if (const KMTPlayerIoCallback callback = g_ioCallbacks[kEventCallbackIndex])
            callback(row.passedOn, 0);
    }
    return 0;
}

int SubtitleCallback(void* /*owner*/, int request, uint16_t* a, uint16_t* b) {
    UseLock lock(g_playerMutex);
    if (!_pMMInterface)
        return 1;
    if (request == 0 && a) {
        unsigned long position = 0;
        if (_pMMInterface->MM_GetPlayPosition(_u32Item, &position) == 0) {
            const uint32_t ms = static_cast<uint32_t>(position);
            std::memcpy(a, &ms, sizeof ms);
        }
    } else if (request == 1 && a && b) {
        _pMMInterface->MM_GetMetaData(_u32Item, EN_PLAYER_METADATA_WIDTH,
                                      reinterpret_cast<unsigned char*>(a), sizeof *a);
        _pMMInterface->MM_GetMetaData(_u32Item, EN_PLAYER_METADATA_HEIGHT,
                                      reinterpret_cast<unsigned char*>(b), sizeof *b);
    }
    return 1;
}

int KMTPlayer_System_Initialize() {
    KMT_PRINT("KMTPlayer_System_Initialize!!!");
    return 1;
}

int KMTPlayer_Initialize() {
    ChangeLock lock(g_playerMutex);
    KMT_PRINT("KMTPlayer_Initialize!!!");
    InitializeSystemOnce();
    if (_pMMInterface) {
        KMT_PRINT("KMTPlayer_Initialize Already Init!!!");
        return 0;
    }
    _pMMInterface = new (std::nothrow) MSrv_MM_PlayerInterface;
    if (!_pMMInterface)
        return 0;
    if (!g_mutexReady)
        g_mutexReady = pthread_mutex_init(&g_mutex, nullptr) == 0;
    if (_pMMInterface->MM_Initialize() != 0)
        return 0;
    _pMMInterface->AddEventRecipient(&IO_Callback);
    ForgetFormats();
    KMT_PRINT("KMTPlayer_Initialize OK!!!");
    return 1;
}

int KMTPlayer_Finalize() {
    ChangeLock lock(g_playerMutex);
    KMT_PRINT("KMTPlayer_Finalize!!!");
    if (!_pMMInterface) {
        KMT_PRINT("KMTPlayer_Finalize Error!!!");
        return 0;
    }
    int result = 0;
    _pMMInterface->RemoveEventRecipient(&IO_Callback);
    if (_pMMInterface->MM_Finalize() == 0) {
        KMT_PRINT("KMTPlayer_Finalize OK!!!!!");
        g_displayRectSet = false;
        delete _pMMInterface;
        _pMMInterface = nullptr;
        _u32Item = 0;  // an item that could not be deleted is gone with its player
        result = 1;
    }
    if (g_mutexReady) {
        pthread_mutex_destroy(&g_mutex);
        g_mutexReady = false;
    }
    return result;
}

int KMTPlayer_Play() {
    UseLock lock(g_playerMutex);
    if (!_pMMInterface) {
        KMT_PRINT("Error: KMTPlayer_Play => _pMMInterface == NULL !!!");
        return 0;
    }
    if (g_paused) {
        if (_pMMInterface->MM_SetTrickMode(_u32Item, g_trickInfo) != 0) {
            KMT_PRINT("Error: Resume fail!!!");
            return 0;
        }
        KMT_PRINT("Resume OK!!!");
        g_paused = false;
        return 1;
    }
    if (g_displayRectSet)
        _pMMInterface->MM_SetDisplayRectangle(_u32Item, g_displayRect);
    const bool done = _pMMInterface->MM_Play(_u32Item) == 0;
    KMT_PRINT("%s", done ? "KMTPlayer_Play OK!!!" : "Error: KMTPlayer_Play failed!!!");
    return done;
}

int KMTPlayer_Stop() {
    UseLock lock(g_playerMutex);
    if (!_pMMInterface) {
        KMT_PRINT("Error: KMTPlayer_Stop => _pMMInterface == NULL !!!");
        return 0;
    }
    const bool done = _pMMInterface->MM_Stop(_u32Item) == 0;
    KMT_PRINT("%s", done ? "KMTPlayer_Stop OK!!!" : "Error: KMTPlayer_Stop failed!!!");
    return done;
}

int KMTPlayer_Pause() {
    UseLock lock(g_playerMutex);
    if (!_pMMInterface) {
        KMT_PRINT("Error: KMTPlayer_Pause => _pMMInterface == NULL !!!");
        return 0;
    }
    const bool done = _pMMInterface->MM_SetTrickMode(_u32Item, {1, 1}) == 0;
    if (done)
        g_paused = true;
    KMT_PRINT("%s", done ? "KMTPlayer_Pause OK!!!" : "Error: KMTPlayer_Pause failed!!!");
    return done;
}

int KMTPlayer_RegisterIoCallback(const KMTPlayerIoCallback (&table)[kIoCallbackCount]) {
    for (int i = 0; i < kIoCallbackCount; ++i)
        g_ioCallbacks[i] = table[i];
    return 1;
}

int KMTPlayer_SetVideoCodec(int codec) {
    ChangeLock lock(g_playerMutex);
    g_videoCodec = codec;
    g_videoCodecSet = true;
    return 1;
}

int KMTPlayer_SetAudioCodec(int codec) {
    ChangeLock lock(g_playerMutex);
    g_audioCodec = codec;
    g_audioCodecSet = true;
    return 1;
}

int KMTPlayer_SetAudioSampleRate(int sampleRate) {
    ChangeLock lock(g_playerMutex);
    KMT_PRINT("#### Sample rate : %u ####\n", static_cast<unsigned>(sampleRate));
    if (sampleRate < 1)
        return 0;
    g_audioSampleRate = sampleRate;
    return 1;
}

int KMTPlayer_CreateMediaItem() {
    ChangeLock lock(g_playerMutex);
    PayloadLock payloads(__func__, __LINE__);
    if (!g_videoCodecSet && !g_audioCodecSet)
        return 0;
    KMT_PRINT("KMT...MM_CreateMediaItem...");
    if (!_pMMInterface || _u32Item != 0) {
        KMT_PRINT("Error: _pMMInterface == NULL or already create media item!!!");
        return 0;
    }
    const ST_MEDIA_INFO info = DescribeItem();
    KMT_PRINT("KMTPlayer_CreateMediaItem: MediaType = %d", kMediaType);
    KMT_PRINT("KMTPlayer_CreateMediaItem: MediaFileType = %d", kMediaFileType);
    KMT_PRINT("KMTPlayer_CreateMediaItem: u64FileLength = %lld",
              static_cast<long long>(kUnknownLength));
    KMT_PRINT("KMTPlayer_CreateMediaItem: AppType = %d", kAppType);
    g_paused = false;
    if (_pMMInterface->MM_CreateMediaItem(info, &_u32Item) != 0) {
        _u32Item = 0;
        KMT_PRINT("Error: create media item failed!!!");
        return 0;
    }
    KMT_PRINT("KMTPlayer_CreateMediaItem stMedia.eMediaType:%d _u32Item:%ld", kMediaType,
              static_cast<long>(_u32Item));
    return 1;
}

int KMTPlayer_DeleteMediaItem() {
    ChangeLock lock(g_playerMutex);
    g_displayRect = {};
    if (!_pMMInterface || _u32Item == 0) {
        KMT_PRINT("Error: KMTPlayer_DeleteMediaItem => _pMMInterface == NULL !!!");
        return 0;
    }
    if (_pMMInterface->MM_DeleteMediaItem(_u32Item) != 0) {
        KMT_PRINT("Error: KMTPlayer_DeleteMediaItem failed!!!");
        return 0;
    }
    KMT_PRINT("KMTPlayer_DeleteMediaItem OK!!!");
    _u32Item = 0;
    return 1;
}

int KMTPlayer_PushPayload(KMTPLAYER_DATA_INFO* info) {
    UseLock lock(g_playerMutex);
    PayloadLock payloads(__func__, __LINE__);
    if (!_pMMInterface || !info)
        return 0;
    ST_MMPLAYER_DATA_INFO copy = {info->data, info->size, info->pts, info->streamType};
    return _pMMInterface->MM_PushPayload(_u32Item, &copy) == 0;
}

uint32_t KMTPlayer_GetPlayPosition() {
    UseLock lock(g_playerMutex);
    return _pMMInterface ? _pMMInterface->MM_GetVideoPTS() : 0;
}

int KMTPlayer_SetFlushData(EN_DATA_TYPE type) {
    UseLock lock(g_playerMutex);
    return _pMMInterface && _pMMInterface->MM_SetFlushData(_u32Item, type) == 0;
}

int KMTPlayer_DemuxReset() {
    UseLock lock(g_playerMutex);
    return _pMMInterface && _pMMInterface->MM_DemuxReset(0) == 0;
}

uint32_t KMTPlayer_GetVideoBufferLevel() {
    UseLock lock(g_playerMutex);
    unsigned long value = 0;
    if (_pMMInterface)
        _pMMInterface->MM_GetVideoDataBufferInfo(_u32Item, EN_PLAYER_VIDEO_BUFFER_LEVEL, &value);
    return static_cast<uint32_t>(value);
}

int KMTPlayer_SetVideoBlackScreen(bool on) {
    UseLock lock(g_playerMutex);
    return _pMMInterface && _pMMInterface->MM_SetVideoBlackScreen(on) == 0;
}

int KMTPlayer_SetAudioVolume(uint8_t volume) {
    UseLock lock(g_playerMutex);
    return _pMMInterface && _pMMInterface->MM_SetAudioVolume(volume) == 0;
}

int KMTPlayer_SwitchAudioTrack(int codec, uint32_t sampleRate, uint32_t channels) {
    UseLock lock(g_playerMutex);
    if (!_pMMInterface)
        return 0;
    ST_PLAYER_AUDIO_PARAM param = {};
    Put(param.bytes, 16, 4, channels);
    Put(param.bytes, 20, 4, sampleRate);
    Put(param.bytes, 56, 4, static_cast<uint32_t>(codec));
    return _pMMInterface->MM_SwitchAudioTrack(_u32Item, param) == 0;
}

int KMTPlayer_Subtitle_Initialize() {
    ChangeLock lock(g_subtitleMutex);
    if (g_subtitleReady) {
        std::printf("Subtitle is already initialized ...\n");
        return 0;
    }
    if (!g_pSubtitle) {
        g_pSubtitle = new (std::nothrow) MSrv_Kmtplayer_Subtitle;
        if (g_pSubtitle) {
            g_pSubtitle->SetCallback(nullptr, &SubtitleCallback);
            (void)g_pSubtitle->Open();
        } else {
            std::printf(
                "\033[0;33;41m###### ERROR!![%s - %s][%06d]KMTPlayer_Initialize fail!!!!! "
                "######\033[0m\n \n",
                __FILE__, __func__, __LINE__);
        }
    }
    g_subtitleReady = g_pSubtitle != nullptr;
    return g_subtitleReady;
}

int KMTPlayer_Subtitle_Finalize() {
    ChangeLock lock(g_subtitleMutex);
    if (!g_pSubtitle)
        return 0;
    g_pSubtitle->Clear();
    (void)g_pSubtitle->Close();
    delete g_pSubtitle;
    g_pSubtitle = nullptr;
    g_subtitleReady = false;
    return 1;
}

int KMTPlayer_Subtitle_Clear() {
    UseLock lock(g_subtitleMutex);
    if (g_pSubtitle)
        g_pSubtitle->Clear();
    return g_pSubtitle != nullptr;
}

int KMTPlayer_Subtitle_DrawImage(const uint8_t* image) {
    UseLock lock(g_subtitleMutex);
    if (g_pSubtitle && image)
        g_pSubtitle->DrawImage(image);
    return g_pSubtitle != nullptr;
}

int KMTPlayer_Subtitle_DrawText(const char* text, long size) {
    UseLock lock(g_subtitleMutex);
    if (g_pSubtitle && text)
        g_pSubtitle->DrawText(text, size);
    return g_pSubtitle != nullptr;
}
