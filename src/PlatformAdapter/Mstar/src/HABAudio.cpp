#include "PlatformAdapter/Mstar/HABAudio.h"

#include <atomic>
#include <boost/shared_ptr.hpp>
#include <cstdio>
#include <vector>

#include "Common/Assert.h"
#include "Common/CodecIDs.h"
#include "Common/Mutex.h"
#include "Common/StreamingTuning.h"
#include "PlatformAdapter/Mstar/KMTPlayer.h"
#include "PlatformAdapter/Mstar/src/GoldenFileCheck.h"
#include "PlatformAdapter/Mstar/src/HABArchRecord.h"
#include "PlatformAdapter/Mstar/src/PushPayload.h"

struct HABAudio {
    HHABARCH hArch = nullptr;
    uint32_t spare = 0;
    opal::CrcTable crcTable = {};
    uint32_t frameCount = 0;
    std::atomic<uint8_t> paused{0};
    opal::GoldenFileList goldenFiles;
};

namespace {

constexpr int kAacCodec = 6;
constexpr uint32_t kMaxAheadMs = StreamingTuning::GetAudioSinkAhead();
constexpr uint32_t kExplicitRateIndex = 15;
constexpr uint32_t kDefaultRate = 48000;
constexpr size_t kConfigSize = 2;
constexpr size_t kExplicitConfigSize = 5;

// By sampling frequency index; 13 and 14 are reserved.
constexpr uint32_t kSampleRates[kExplicitRateIndex] = {
    96000, 88200, 64000, 48000, 44100, 32000, 24000, 22050, 16000, 12000, 11025, 8000, 7350, 0, 0};

std::atomic<uint8_t> g_audioStarted{0};
std::atomic<uint32_t> g_newestTimestamp{0};
opal::RecursiveMutex g_audioMutex;

struct StreamFormat {
    uint32_t frequencyIndex = 0;
    uint32_t sampleRate = 0;
    uint32_t channels = 0;
};

// The readers assert their lengths; private data comes from the media file, so one that is too
// short must not reach them.
bool IsWholeConfig(const uint8_t* data, size_t size) {
    if (!data || size < kConfigSize)
        return false;
    return GetSampleFrequency(data, size) != kExplicitRateIndex || size >= kExplicitConfigSize;
}

StreamFormat ReadConfig(const uint8_t* data, size_t size) {
    StreamFormat format;
    format.frequencyIndex = GetSampleFrequency(data, size);
    format.sampleRate = GetSampleRate(data, size, format.frequencyIndex);
    format.channels = GetChannelCount(data, size, format.frequencyIndex);
    std::printf("Set sampleFrequency %d & sampleRate %d & channelCount %d\n",
                static_cast<int>(format.frequencyIndex), static_cast<int>(format.sampleRate),
                static_cast<int>(format.channels));
    return format;
}

void PrintConfig(const uint8_t* data, size_t size) {
    std::printf("dataSize = %d > 0\n", static_cast<int>(size));
    for (size_t i = 0; i < size; ++i)
        std::printf("0x%x \n", static_cast<unsigned>(data[i]));
}

// Also said of private data that is too short to be read.
void PrintNoConfig(size_t size) {
    std::printf("dataSize = %d <= 0\n", static_cast<int>(size));
}

void ConfigureFirst(const std::string& codecId, uint32_t sampleRate, const uint8_t* config,
                    size_t configSize) {
    if (codecId != AUDIOCODECID_AAC) {
        std::printf("codecID xxx -- no implement\n");
        return;
    }
    if (IsWholeConfig(config, configSize)) {
        const StreamFormat format = ReadConfig(config, configSize);
        (void)KMTPlayer_SetAudioSampleRate(static_cast<int>(format.sampleRate));
        (void)KMTPlayer_SetAudioCodec(kAacCodec);
        PrintConfig(config, configSize);
    } else {
        PrintNoConfig(configSize);
        (void)KMTPlayer_SetAudioCodec(kAacCodec);
        std::printf("Set sampleRate %d!\n", static_cast<int>(sampleRate));
        (void)KMTPlayer_SetAudioSampleRate(static_cast<int>(sampleRate));
    }
}

void ChangeTrack(const std::string& codecId, uint32_t sampleRate, uint32_t channels,
                 const uint8_t* config, size_t configSize) {
    std::printf("switch audio track -- no implement\n");  // deliberate: it is switched below
    if (codecId != AUDIOCODECID_AAC) {
        std::printf("codecID xxx -- no implement\n");
        return;
    }
    if (IsWholeConfig(config, configSize)) {
        const StreamFormat format = ReadConfig(config, configSize);
        (void)KMTPlayer_SwitchAudioTrack(kAacCodec, format.sampleRate, format.channels);
        PrintConfig(config, configSize);
    } else {
        PrintNoConfig(configSize);
        (void)KMTPlayer_SwitchAudioTrack(kAacCodec, sampleRate, channels);
    }
}

// False for a frame that is not newer than the newest; true makes this one the newest.
bool IsNew(uint32_t timestamp) {
    if (g_audioStarted == 1) {
        const uint32_t newest = g_newestTimestamp;
        if (timestamp <= newest) {
            std::printf("[SKIP]Old Audio timestamp = %ld [Newest = %ld]\n",
                        static_cast<long>(timestamp), static_cast<long>(newest));
            return false;
        }
    } else {
        std::printf("First Audio Time= % ld \n", static_cast<long>(timestamp));
        g_audioStarted = 1;
    }
    g_newestTimestamp = timestamp;
    return true;
}

}  // namespace

bool CheckAudioBlock(HHABAUDIO hab, const BlockNode& block) {
    return hab && opal::CheckBlock(OPAL_STREAM_AUDIO, hab->goldenFiles, hab->crcTable, block);
}

uint32_t GetObjectID(const uint8_t* data, size_t dataSize) {
    OPAL_ASSERT(dataSize >= 1, "dataSize >= 1");
    return data[0] >> 3;
}

uint32_t GetSampleFrequency(const uint8_t* data, size_t dataSize) {
    OPAL_ASSERT(dataSize >= 2, "dataSize >= 2");
    return (data[0] & 7u) * 2u + (data[1] >> 7);
}

uint32_t GetSampleRate(const uint8_t* data, size_t dataSize, uint32_t sampleFrequency) {
    if (sampleFrequency == kExplicitRateIndex) {
        OPAL_ASSERT(dataSize >= 5, "dataSize >= 5");
        return ((data[1] & 127u) << 17) + (static_cast<uint32_t>(data[2]) << 9) + data[3] * 2u +
               (data[4] >> 7);
    }
    return sampleFrequency < kExplicitRateIndex ? kSampleRates[sampleFrequency] : kDefaultRate;
}

uint32_t GetChannelCount(const uint8_t* data, size_t dataSize, uint32_t sampleFrequency) {
    if (sampleFrequency == kExplicitRateIndex) {
        OPAL_ASSERT(dataSize >= 5, "dataSize >= 5");
        return (data[4] & 120u) >> 3;
    }
    OPAL_ASSERT(dataSize >= 2, "dataSize >= 2");
    return (data[1] & 120u) >> 3;
}

int HABAudio_New(HABAudio** phHABAudio, HHABARCH hArch, HHABTIMER /*hTimer*/) {
    OPAL_ASSERT(phHABAudio != nullptr, "phHABAudio != __null");
    if (!hArch)
        return HAB_FAIL;
    HABAudio* pHABAudio = new HABAudio;  // throws where memory runs out: the session answers
    OPAL_ASSERT(pHABAudio != nullptr, "pHABAudio != __null");
    opal::FillCrcTable(pHABAudio->crcTable);
    pHABAudio->hArch = hArch;
    *phHABAudio = pHABAudio;
    return HAB_OK;
}

int HABAudio_Delete(HHABAUDIO hHABAudio) {
    delete hHABAudio;
    return HAB_OK;
}

int HABAudio_Configure(HHABAUDIO hHABAudio, const std::string& codecId, uint32_t sampleRate,
                       uint32_t channels, const uint8_t* codecPrivate, size_t codecPrivateSize,
                       bool /*first*/) {
    if (!hHABAudio)
        return HAB_OK;
    g_audioStarted = 0;
    g_newestTimestamp = 0;
    if (hHABAudio->hArch->itemReady) {
        ChangeTrack(codecId, sampleRate, channels, codecPrivate, codecPrivateSize);
    } else {
        ConfigureFirst(codecId, sampleRate, codecPrivate, codecPrivateSize);
        hHABAudio->hArch->audioConfigured = 1;
    }
    return HAB_OK;
}

int HABAudio_Queue(HHABAUDIO hHABAudio, const void* pAudioPacket, uint32_t dataSize,
                   uint32_t timestamp, uint32_t /*duration*/) {
    if (!hHABAudio)
        return HAB_OK;
    if (hHABAudio->hArch->lastTimestamp + kMaxAheadMs < timestamp)
        return HAB_AUDIO_FULL;
    if (!IsNew(timestamp))
        return HAB_OK;
    ++hHABAudio->frameCount;
    OPAL_ASSERT(pAudioPacket != nullptr, "pAudioPacket != __null");
    OPAL_ASSERT(dataSize != 0, "dataSize != 0");
    opal::VerifyBlock(OPAL_STREAM_AUDIO, hHABAudio, &CheckAudioBlock, pAudioPacket, dataSize,
                      timestamp);
    // The player copies the bytes and changes none.
    KMTPLAYER_DATA_INFO info = {const_cast<void*>(pAudioPacket), dataSize, timestamp,
                                kAudioPayload};
    (void)opal::PushUntilTaken(hHABAudio->hArch, info);
    return HAB_OK;
}

int HABAudio_Flush(HHABAUDIO hHABAudio) {
    if (!hHABAudio)
        return HAB_OK;
    opal::RecursiveLock lock(g_audioMutex);
    if (hHABAudio->hArch->itemReady) {
        std::printf("------------------------A HABAudio_Flush ---!\n");
        g_audioStarted = 0;
    }
    return opal::VerifiedFlushResult(OPAL_STREAM_AUDIO);
}

int HABAudio_Pause(HHABAUDIO hHABAudio, bool paused) {
    if (hHABAudio)
        hHABAudio->paused = paused;
    return HAB_OK;
}

int HABAudio_GetPosition(HHABAUDIO hHABAudio, int64_t* ms) {
    if (hHABAudio)
        *ms = hHABAudio->hArch->playing ? KMTPlayer_GetPlayPosition() : 0u;
    return HAB_OK;
}

int HABAudio_GetBufferedDuration(HHABAUDIO hHABAudio, uint32_t* ms) {
    if (!hHABAudio)
        return HAB_OK;
    const HABArch& arch = *hHABAudio->hArch;
    *ms = arch.lastPts - (arch.playing ? KMTPlayer_GetPlayPosition() : 0u);
    return HAB_OK;
}
