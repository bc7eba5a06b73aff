#include "PlatformAdapter/Mstar/HABArch.h"

#include <algorithm>

#include "Common/Assert.h"
#include "Common/Clock.h"
#include "PlatformAdapter/Mstar/src/HABArchRecord.h"

int HABArch_New(HABArch** phHABArch) {
    OPAL_ASSERT(phHABArch != nullptr, "phHABArch != __null");
    HABArch* pHABArch = new HABArch;  // throws where memory runs out: the session answers
    OPAL_ASSERT(pHABArch != nullptr, "pHABArch != __null");
    *phHABArch = pHABArch;
    return HAB_OK;
}

int HABArch_Delete(HHABARCH hHABArch) {
    OPAL_ASSERT(hHABArch != nullptr, "hHABArch != __null");
    delete hHABArch;
    return HAB_OK;
}

int HABArch_suspendExecution(HHABARCH hHABArch, uint32_t /*ms*/) {
    OPAL_ASSERT(hHABArch != nullptr, "hHABArch != __null");
    return HAB_OK;
}

int HABArch_GetPreferences(HHABARCH /*hHABArch*/, HABPreferences& prefs) {
    prefs.flag1 = true;
    prefs.flag2 = false;
    prefs.flag3 = true;
    prefs.subtitleLanguage = "french";
    prefs.subtitleFlag = true;
    prefs.audioLanguage = "english";
    prefs.audioFlag = true;
    prefs.audioCodec = "A_AC3";
    return HAB_OK;
}

void HABArch_SetStopSignal(HHABARCH hHABArch, const opal::StopSignal* signal) {
    if (hHABArch)
        hHABArch->stop = signal;
}

bool HABArch_IsClosing(HHABARCH hHABArch) {
    OPAL_ASSERT(hHABArch != nullptr, "hHABArch != __null");
    return hHABArch->closing || opal::IsRaised(hHABArch->stop);
}

bool HABArch_SleepMs(HHABARCH hHABArch, int64_t ms) {
    constexpr int64_t kSliceMs = opal::StopSignal::kSliceMs;
    for (; ms > 0 && !HABArch_IsClosing(hHABArch); ms -= kSliceMs)
        opal::SleepMs(std::min(ms, kSliceMs));
    return !HABArch_IsClosing(hHABArch);
}
