#include "PlatformAdapter/Common/PlatformVideo.h"

#include <limits>

#include "Common/Assert.h"
#include "PlatformAdapter/Mstar/HABTimer.h"
#include "PlatformAdapter/Mstar/HABVideo.h"

OPALError PlatformVideo::Configure(const std::string& codecId, int width, int height,
                                   int64_t bitrate, const void* codecPrivate,
                                   size_t codecPrivateSize, bool first) {
    Lock lock(m_mutex);
    const OPALError error = FromHAB(HABVideo_Configure(m_hStream, codecId, width, height, bitrate,
                                                       codecPrivate, codecPrivateSize, first));
    if (error == OPAL_OK)
        m_configured = true;
    return error;
}

OPALError PlatformVideo::Queue(void* data, size_t size, int64_t msTimeStamp,
                               int64_t /*msDuration*/) {
    Lock lock(m_mutex);
    if (!m_configured || size > static_cast<size_t>(std::numeric_limits<int32_t>::max()))
        return OPAL_ERROR_GENERAL;
    OPAL_ASSERT(msTimeStamp >= 0, "msTimeStamp >= 0");
    return FromHAB(HABVideo_Queue(m_hStream, data, static_cast<int32_t>(size),
                                  static_cast<uint32_t>(msTimeStamp)));
}

OPALError PlatformVideo::SetPaused(bool paused) {
    Lock lock(m_mutex);
    uint32_t state = 0;
    if (PlatformStream::SetPaused(paused) != OPAL_OK ||
        HABTimer_GetState(m_hTimer, &state) != HAB_OK)
        return OPAL_ERROR_GENERAL;
    if (paused && state == kTimerRunning)
        return FromHAB(HABTimer_Stop(m_hTimer));
    if (!paused && state == kTimerStopped)
        return FromHAB(HABTimer_Start(m_hTimer));
    return OPAL_OK;
}

OPALError PlatformVideo::SetRate(OPALPlayRate rate) {
    Lock lock(m_mutex);
    return FromHAB(HABVideo_SetRate(m_hStream, rate));
}

OPALError PlatformVideo::SetClusterTime(int64_t ms) {
    Lock lock(m_mutex);
    return m_configured ? FromHAB(HABVideo_SetClusterTime(m_hStream, ms)) : OPAL_ERROR_GENERAL;
}
