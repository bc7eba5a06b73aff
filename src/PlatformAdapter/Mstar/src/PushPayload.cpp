#include "PlatformAdapter/Mstar/src/PushPayload.h"

#include "PlatformAdapter/Mstar/HABArch.h"

namespace opal {
namespace {

constexpr int64_t kRetryMs = 1000;

}  // namespace

bool PushUntilTaken(HHABARCH hArch, KMTPLAYER_DATA_INFO& info) {
    while (!KMTPlayer_PushPayload(&info)) {
        if (!HABArch_SleepMs(hArch, kRetryMs))
            return false;
    }
    return true;
}

}  // namespace opal
