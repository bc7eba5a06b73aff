#include "PlatformAdapter/Common/PlatformBase.h"

#include "PlatformAdapter/Mstar/HABTimer.h"

PlatformBase::PlatformBase(HHABARCH hArch, HHABTIMER hTimer) : m_hTimer(hTimer), m_hArch(hArch) {}

OPALError PlatformBase::GetTime(uint32_t& ms) {
    return FromHAB(HABTimer_GetTime(m_hTimer, &ms));
}

OPALError PlatformBase::FromHAB(int result) {
    switch (result) {
        case HAB_OK:
            return OPAL_OK;
        case HAB_AUDIO_FULL:
        case HAB_VIDEO_FULL:
            return OPAL_ERROR_NOT_YET;
        case HAB_AUDIO_UNSUPPORTED:
            return OPAL_ERROR_AUDIO_UNSUPPORTED;
        default:
            return OPAL_ERROR_GENERAL;
    }
}
