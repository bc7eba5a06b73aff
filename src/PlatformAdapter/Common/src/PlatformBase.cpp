#include "PlatformAdapter/Common/PlatformBase.h"

#include "PlatformAdapter/Mstar/HABTimer.h"

PlatformBase::PlatformBase(HHABARCH hArch, HHABTIMER hTimer) : m_hTimer(hTimer), m_hArch(hArch) {}

OPALError PlatformBase::GetTime(uint32_t& ms) {
    return HABTimer_GetTime(m_hTimer, &ms) == HAB_OK ? OPAL_OK : OPAL_ERROR_GENERAL;
}
