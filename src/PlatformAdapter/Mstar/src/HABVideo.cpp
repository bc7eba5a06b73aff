#include "PlatformAdapter/Mstar/HABVideo.h"

#include <atomic>
#include <boost/shared_ptr.hpp>
#include <cstdio>
#include <vector>

#include "Common/Assert.h"
#include "Common/Clock.h"
#include "Common/CodecIDs.h"
#include "Common/Mutex.h"
#include "Common/StreamingTuning.h"
#include "PlatformAdapter/Mstar/HABArch.h"
#include "PlatformAdapter/Mstar/KMTPlayer.h"
#include "PlatformAdapter/Mstar/src/GoldenFileCheck.h"
#include "PlatformAdapter/Mstar/src/HABArchRecord.h"
#include "PlatformAdapter/Mstar/src/PushPayload.h"

struct HABVideo {
    HHABARCH hArch = nullptr;
    HHABTIMER hTimer = nullptr;
    opal::CrcTable crcTable = {};
    int64_t clusterTime = 0;
    std::atomic<uint8_t> paused{1};
    opal::GoldenFileList goldenFiles;
};

namespace {

constexpr int kAvcCodec = 7;
constexpr uint32_t kMaxAheadMs = StreamingTuning::GetVideoSinkAhead();
constexpr int kFlushMs = 1500;  // the player does not tell when a flush is over
constexpr uint32_t kNoAnchor = 0xFFFFFFFFu;
constexpr int32_t kUnknownSpeed = -1;
constexpr int32_t kPrefixSize = 4;

enum PtsMode : int32_t { kFlushed = 0, kNormal = 1, kForwardTrick = 2, kReverseTrick = 3 };

// The player is a singleton, and so is what this layer knows of it. Reset by HABVideo_Configure.
// Mostly under g_videoMutex, but positions are read without it: hence atomics.
std::atomic<HHABARCH> g_hArch{nullptr};
std::atomic<int32_t> g_playSpeed{1};
std::atomic<int32_t> g_ptsMode{kNormal};
std::atomic<uint32_t> g_ptsAnchor{kNoAnchor};
std::atomic<uint32_t> g_flushLevel{0};
std::atomic<uint8_t> g_itemCreated{0};
std::atomic<uint8_t> g_firstPtsSet{0};
std::atomic<uint64_t> g_position{0};
std::atomic<uint32_t> g_firstPts{0};
opal::RecursiveMutex g_videoMutex;

using Lock = opal::RecursiveLock;

int OnPlayerEvent(int event, uint32_t /*param*/) {
    if (HHABARCH arch = g_hArch) {
        if (event == KMTPLAYER_EVENT_INIT_OK)
            arch->itemReady = 1;
        else if (event == KMTPLAYER_EVENT_PLAYING_OK)
            arch->playing = 1;
    }
    return 1;
}

// Nothing is inserted and nothing validated: a prefix of zero or below ends the walk and stays.
void ConvertToStartCodes(uint8_t* data, int32_t size) {
    int64_t offset = 0;
    int64_t remaining = size;
    int64_t length = 0;
    do {
        uint8_t* prefix = data + offset;
        length = NALSize(prefix, static_cast<int32_t>(remaining));
        remaining -= kPrefixSize + length;
        if (length >= 1) {
            prefix[0] = 0;
            prefix[1] = 0;
            prefix[2] = 0;
            prefix[3] = 1;
        }
        offset += kPrefixSize + length;
    } while (remaining > 0 && length >= 1);
}

// The decoder's time of a block. It sees time run forward at normal speed from the anchor on.
// Unsigned 32-bit throughout, with its wrapping.
uint32_t MapToDecoder(HABArch& arch, uint32_t timestamp, int32_t speed) {
    uint32_t pts = 0;
    if (speed == 1) {
        g_ptsMode = kNormal;
        pts = timestamp;
    } else if (speed == kUnknownSpeed) {
        return 0;  // deliberately without a trace in lastPts
    } else {
        const bool forward = speed > 1;
        const int32_t mode = forward ? kForwardTrick : kReverseTrick;
        if (g_ptsMode != mode) {
            g_ptsMode = mode;
            g_ptsAnchor = timestamp;
            pts = timestamp;
        } else {
            const uint32_t anchor = g_ptsAnchor;
            const uint32_t distance = forward ? timestamp - anchor : anchor - timestamp;
            pts = distance / static_cast<uint32_t>(forward ? speed : -speed) + anchor;
        }
    }
    arch.lastPts = pts;
    return pts;
}

// The way back, for the picture at `pts` on the decoder's timeline. Where the mapping does not
// apply, the position stays.
uint64_t MapToMedia(uint32_t pts) {
    const uint32_t anchor = g_ptsAnchor;
    const uint32_t speed = static_cast<uint32_t>(g_playSpeed.load());
    const int32_t mode = g_ptsMode;
    if (mode == kNormal) {
        g_position = pts;
    } else if (mode == kForwardTrick && pts > anchor) {
        g_position = (pts - anchor) * speed + anchor;
    } else if (mode == kReverseTrick && pts > anchor) {
        // Keeps the position from falling below 0. The divisor is 0 at speed 1, for which a
        // reverse anchor says nothing.
        const uint32_t divisor = 1u - speed;
        if (divisor != 0 && anchor >= pts * (0u - speed) / divisor)
            g_position = anchor - speed * (anchor - pts);
    }
    return g_position;
}

// May the next block go in? Creates and starts the item on the way.
int MakeRoom(HABArch& arch) {
    if (arch.playing) {
        const bool ahead = arch.lastPts > KMTPlayer_GetPlayPosition() + kMaxAheadMs;
        // While the gauge stands where the flush left it, the decoder has taken nothing since, and
        // its clock says nothing of the new place.
        if (ahead && KMTPlayer_GetVideoBufferLevel() != g_flushLevel)
            return HAB_VIDEO_FULL;
        return HAB_OK;
    }
    if (!arch.audioConfigured)
        return HAB_VIDEO_FULL;
    if (!g_itemCreated) {
        (void)KMTPlayer_CreateMediaItem();  // not tried again: a failure shows as a full queue
        g_itemCreated = 1;
    }
    if (arch.itemReady && arch.held) {
        (void)KMTPlayer_Play();
        arch.held = 0;
    }
    return arch.lastPts > g_firstPts + kMaxAheadMs ? HAB_VIDEO_FULL : HAB_OK;
}

int FlushResult() {
    return opal::VerifiedFlushResult(OPAL_STREAM_VIDEO);
}

}  // namespace

bool CheckVideoBlock(HHABVIDEO hab, const BlockNode& block) {
    return hab && opal::CheckBlock(OPAL_STREAM_VIDEO, hab->goldenFiles, hab->crcTable, block);
}

int NALSize(const uint8_t* data, int32_t count) {
    OPAL_ASSERT(count > 0, "count > 0");
    if (count < kPrefixSize)
        return 0;
    const uint32_t size = (static_cast<uint32_t>(data[0]) << 24) |
                          (static_cast<uint32_t>(data[1]) << 16) |
                          (static_cast<uint32_t>(data[2]) << 8) | static_cast<uint32_t>(data[3]);
    return static_cast<int>(size);
}

int HABVideo_New(HABVideo** phHABVideo, HHABARCH hArch, HHABTIMER hTimer) {
    OPAL_ASSERT(phHABVideo != nullptr, "phHABVideo != __null");
    if (!hArch)
        return HAB_FAIL;
    HABVideo* pHABVideo = new HABVideo;  // throws where memory runs out: the session answers
    OPAL_ASSERT(pHABVideo != nullptr, "pHABVideo != __null");
    opal::FillCrcTable(pHABVideo->crcTable);
    pHABVideo->hArch = hArch;
    pHABVideo->hTimer = hTimer;
    *phHABVideo = pHABVideo;
    return HAB_OK;
}

int HABVideo_Delete(HHABVIDEO hHABVideo) {
    if (!hHABVideo)
        return HAB_OK;
    hHABVideo->hArch->closing = 1;
    (void)KMTPlayer_Stop();
    (void)KMTPlayer_DeleteMediaItem();
    (void)KMTPlayer_SetVideoBlackScreen(true);
    (void)KMTPlayer_Finalize();
    // No event comes any more; the record may go.
    HHABARCH mine = hHABVideo->hArch;
    g_hArch.compare_exchange_strong(mine, nullptr);
    delete hHABVideo;
    return HAB_OK;
}

int HABVideo_Configure(HHABVIDEO hHABVideo, const std::string& codecId, int /*width*/,
                       int /*height*/, int64_t /*bitrate*/, const void* /*codecPrivate*/,
                       size_t /*codecPrivateSize*/, bool /*first*/) {
    if (!hHABVideo) {
        std::printf("hHABVideo is NULL\n");
        return HAB_OK;
    }
    if (codecId == VIDEOCODECID_AVC)
        std::printf("codecID == VIDEOCODECID_AVC\n");
    (void)KMTPlayer_System_Initialize();
    (void)KMTPlayer_Initialize();
    KMTPlayerIoCallback callbacks[kIoCallbackCount] = {};
    callbacks[kEventCallbackIndex] = &OnPlayerEvent;
    (void)KMTPlayer_RegisterIoCallback(callbacks);
    (void)KMTPlayer_SetVideoCodec(kAvcCodec);

    HABArch& arch = *hHABVideo->hArch;
    g_hArch = &arch;
    arch.itemReady = 0;
    arch.lastPts = 0;
    arch.audioConfigured = 0;
    arch.held = 1;
    arch.closing = 0;
    arch.playing = 0;
    g_playSpeed = 1;
    g_ptsMode = kNormal;
    g_ptsAnchor = kNoAnchor;
    g_flushLevel = 0;
    g_itemCreated = 0;
    g_firstPtsSet = 0;
    g_position = 0;
    g_firstPts = 0;
    return HAB_OK;
}

int HABVideo_Queue(HHABVIDEO hHABVideo, void* pVideoData, int32_t dataSize, uint32_t timestamp) {
    if (!hHABVideo)
        return HAB_OK;
    Lock lock(g_videoMutex);
    HABArch& arch = *hHABVideo->hArch;
    if (const int full = MakeRoom(arch))
        return full;
    OPAL_ASSERT(pVideoData != nullptr, "pVideoData != __null");
    OPAL_ASSERT(dataSize != 0, "dataSize != 0");
    opal::VerifyBlock(OPAL_STREAM_VIDEO, hHABVideo, &CheckVideoBlock, pVideoData,
                      static_cast<size_t>(dataSize), timestamp);
    ConvertToStartCodes(static_cast<uint8_t*>(pVideoData), dataSize);

    const int32_t speed = g_playSpeed;
    const bool final = timestamp == 0 && speed < -1;
    if (final)
        std::printf("RW to Final Frame \n");
    KMTPLAYER_DATA_INFO info = {pVideoData, static_cast<uint32_t>(dataSize),
                                MapToDecoder(arch, timestamp, speed), kVideoPayload};
    if (!g_firstPtsSet) {
        g_firstPtsSet = 1;
        g_firstPts = arch.lastPts.load();
        std::printf("KMT Video firstpts=%ld \n", static_cast<long>(g_firstPts.load()));
    }
    if (!opal::PushUntilTaken(&arch, info))
        return HAB_OK;  // the session ends: nobody will miss it
    if (final) {
        // The decoder holds one picture back, and nothing follows that would release it.
        std::printf("Push Final data to ES ");
        (void)KMTPlayer_PushPayload(&info);
    }
    arch.lastTimestamp = timestamp;
    return HAB_OK;
}

int HABVideo_Flush(HHABVIDEO hHABVideo) {
    if (!hHABVideo)
        return HAB_OK;
    Lock lock(g_videoMutex);
    if (!hHABVideo->hArch->itemReady)
        return FlushResult();
    const uint32_t pts = KMTPlayer_GetPlayPosition();
    const uint64_t position = MapToMedia(pts);
    std::printf("[flush] pts update after flush = %lld \n", static_cast<long long>(position));
    std::printf("[flush] KMTPlayer_GetPlayPosition= %lu \n", static_cast<unsigned long>(pts));
    std::printf("------------------------V HABVideo_Flush!\n");
    (void)KMTPlayer_SetFlushData(EN_DATA_TYPE_VIDEO);
    (void)HABArch_SleepMs(hHABVideo->hArch, kFlushMs);
    std::printf("------------------------V HABVideo_Flush!OK!!\n");
    g_flushLevel = KMTPlayer_GetVideoBufferLevel();
    g_ptsMode = kFlushed;
    return FlushResult();
}

int HABVideo_Pause(HHABVIDEO hHABVideo, bool paused) {
    if (!hHABVideo)
        return HAB_OK;
    Lock lock(g_videoMutex);
    HABArch& arch = *hHABVideo->hArch;
    hHABVideo->paused = paused;
    if (paused) {
        if (arch.held != 1) {
            arch.held = 1;
            (void)KMTPlayer_Pause();
        }
    } else if (arch.itemReady && arch.held) {
        arch.held = 0;
        (void)KMTPlayer_Play();
    }
    return HAB_OK;
}

int HABVideo_SetRate(HHABVIDEO hHABVideo, OPALPlayRate rate) {
    if (!hHABVideo)
        return HAB_OK;
    const bool known = rate >= OPAL_PLAYRATE_ONEX && rate <= OPAL_PLAYRATE_THIRTYTWOXRW;
    const int32_t speed = known ? GetRateValue(rate) : kUnknownSpeed;
    g_playSpeed = speed;
    std::printf("HABVideo_SetRate playspeed %d\n", speed);
    return HAB_OK;
}

int HABVideo_GetPosition(HHABVIDEO hHABVideo, int64_t* ms) {
    if (!hHABVideo)
        return HAB_OK;
    if (hHABVideo->hArch->playing)
        *ms = static_cast<int64_t>(MapToMedia(KMTPlayer_GetPlayPosition()));
    else
        *ms = static_cast<int64_t>(g_position = 0);
    return HAB_OK;
}

int HABVideo_GetBufferedDuration(HHABVIDEO hHABVideo, uint32_t* ms) {
    if (!hHABVideo)
        return HAB_OK;
    const HABArch& arch = *hHABVideo->hArch;
    *ms = arch.lastPts - (arch.playing ? KMTPlayer_GetPlayPosition() : 0u);
    return HAB_OK;
}

int HABVideo_SetClusterTime(HHABVIDEO hHABVideo, int64_t ms) {
    if (!hHABVideo)
        return HAB_OK;
    hHABVideo->clusterTime = ms;
    return HAB_OK;
}
