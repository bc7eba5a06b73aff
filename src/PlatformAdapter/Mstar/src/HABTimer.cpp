#include "PlatformAdapter/Mstar/HABTimer.h"

#include <atomic>

struct HABTimer {
    std::atomic<uint32_t> time{0};
};

int HABTimer_New(HHABTIMER* out, HHABARCH /*hHABArch*/, int /*kind*/) {
    *out = new HABTimer;
    return HAB_OK;
}

int HABTimer_Delete(HHABTIMER hHABTimer) {
    delete hHABTimer;
    return HAB_OK;
}

int HABTimer_SetTime(HHABTIMER hHABTimer, uint32_t ms) {
    if (!hHABTimer)
        return HAB_FAIL;
    hHABTimer->time = ms;
    return HAB_OK;
}

int HABTimer_GetTime(HHABTIMER hHABTimer, uint32_t* ms) {
    if (!hHABTimer)
        return HAB_FAIL;
    *ms = hHABTimer->time;
    return HAB_OK;
}

int HABTimer_Start(HHABTIMER /*hHABTimer*/) {
    return HAB_OK;
}

int HABTimer_Stop(HHABTIMER /*hHABTimer*/) {
    return HAB_OK;
}

int HABTimer_GetState(HHABTIMER /*hHABTimer*/, uint32_t* /*state*/) {
    return HAB_OK;
}
