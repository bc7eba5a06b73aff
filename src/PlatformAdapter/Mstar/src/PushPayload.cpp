#include "PlatformAdapter/Mstar/src/PushPayload.h"

#include "Common/Clock.h"
#include "PlatformAdapter/Mstar/src/HABArchRecord.h"

namespace opal {
namespace {

// One second in slices, so that a session that ends does not sit it out.
constexpr int kRetrySlices = 20;
constexpr int kRetrySliceMs = 50;

}  // namespace

bool PushUntilTaken(HHABARCH hArch, KMTPLAYER_DATA_INFO& info) {
    while (!KMTPlayer_PushPayload(&info)) {
        for (int slice = 0; slice < kRetrySlices; ++slice) {
            if (hArch->closing)
                return false;
            SleepMs(kRetrySliceMs);
        }
        if (hArch->closing)
            return false;
    }
    return true;
}

}  // namespace opal
