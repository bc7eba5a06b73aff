// The private data of an audio track, as a first track and as one that is changed to.

#include <memory>
#include <string>

#include "Common/Assert.h"
#include "Common/CodecIDs.h"
#include "PlatformAdapter/Mstar/HABAudio.h"
#include "PlatformAdapter/Mstar/src/HABArchRecord.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    static HABArch* const arch = new HABArch;  // for the life of the process
    static const HHABAUDIO audio = [] {
        HHABAUDIO made = nullptr;
        OPAL_ASSERT(HABAudio_New(&made, arch, nullptr) == HAB_OK, "an audio object");
        return made;
    }();
    for (const bool itemReady : {false, true}) {
        arch->itemReady = itemReady;
        OPAL_ASSERT(
            HABAudio_Configure(audio, AUDIOCODECID_AAC, 48000, 2, data, size, false) == HAB_OK,
            "configured whatever the data");
    }
    if (size >= 5) {
        const uint32_t frequency = GetSampleFrequency(data, size);
        OPAL_ASSERT(GetObjectID(data, size) < 32 && frequency < 16, "bits of their fields");
        OPAL_ASSERT(GetChannelCount(data, size, frequency) < 16, "bits of their field");
        OPAL_ASSERT(GetSampleRate(data, size, frequency) < 1u << 24, "bits of their field");
    }
    return 0;
}
