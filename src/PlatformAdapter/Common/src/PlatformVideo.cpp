#include "PlatformAdapter/Common/PlatformVideo.h"

#include <limits>

#include "Common/Assert.h"
#include "PlatformAdapter/Mstar/HABTimer.h"
#include "PlatformAdapter/Mstar/HABVideo.h"

namespace {

using Lock = boost::recursive_mutex::scoped_lock;

OPALError FromHAB(int result) {
    return result == HAB_OK ? OPAL_OK : OPAL_ERROR_GENERAL;
}

}  // namespace

PlatformVideo::PlatformVideo(HHABARCH hArch, HHABTIMER hTimer) : PlatformBase(hArch, hTimer) {}

PlatformVideo::~PlatformVideo() {
    (void)PlatformVideo::Finalize();
}

OPALError PlatformVideo::Initialize() {
    Lock lock(m_mutex);
    return m_hStream ? OPAL_OK : FromHAB(HABVideo_New(&m_hStream, m_hArch, m_hTimer));
}

OPALError PlatformVideo::Finalize() {
    Lock lock(m_mutex);
    if (m_hStream) {
        (void)HABVideo_Delete(m_hStream);
        m_hStream = nullptr;
    }
    m_configured = false;
    return OPAL_OK;
}

OPALError PlatformVideo::Configure(const std::string& codecId, int width, int height,
                                   int64_t bitrate, const void* codecPrivate,
                                   size_t codecPrivateSize, bool first) {
    Lock lock(m_mutex);
    const int result = HABVideo_Configure(m_hStream, codecId, width, height, bitrate, codecPrivate,
                                          codecPrivateSize, first);
    if (result != HAB_OK)
        return OPAL_ERROR_GENERAL;
    m_configured = true;
    return OPAL_OK;
}

OPALError PlatformVideo::Start() {
    Lock lock(m_mutex);
    uint32_t state = 0;
    if (!m_configured || HABTimer_GetState(m_hTimer, &state) != HAB_OK)
        return OPAL_ERROR_GENERAL;
    if (state == kTimerStopped && HABTimer_Start(m_hTimer) != HAB_OK)
        return OPAL_ERROR_GENERAL;
    return FromHAB(HABVideo_Pause(m_hStream, false));
}

OPALError PlatformVideo::Queue(void* data, size_t size, int64_t msTimeStamp,
                               int64_t /*msDuration*/) {
    Lock lock(m_mutex);
    if (!m_configured || size > static_cast<size_t>(std::numeric_limits<int32_t>::max()))
        return OPAL_ERROR_GENERAL;
    OPAL_ASSERT(msTimeStamp >= 0, "msTimeStamp >= 0");
    const int result = HABVideo_Queue(m_hStream, data, static_cast<int32_t>(size),
                                      static_cast<uint32_t>(msTimeStamp));
    return result == HAB_VIDEO_FULL ? OPAL_ERROR_NOT_YET : FromHAB(result);
}

OPALError PlatformVideo::Flush() {
    Lock lock(m_mutex);
    return m_configured ? FromHAB(HABVideo_Flush(m_hStream)) : OPAL_ERROR_GENERAL;
}

OPALError PlatformVideo::Stop() {
    Lock lock(m_mutex);
    return m_configured ? OPAL_OK : OPAL_ERROR_GENERAL;
}

OPALError PlatformVideo::SetPaused(bool paused) {
    Lock lock(m_mutex);
    uint32_t state = 0;
    if (!m_configured || HABVideo_Pause(m_hStream, paused) != HAB_OK ||
        HABTimer_GetState(m_hTimer, &state) != HAB_OK)
        return OPAL_ERROR_GENERAL;
    if (paused && state == kTimerRunning)
        return FromHAB(HABTimer_Stop(m_hTimer));
    if (!paused && state == kTimerStopped)
        return FromHAB(HABTimer_Start(m_hTimer));
    return OPAL_OK;
}

OPALError PlatformVideo::GetBlockTrailerSize(size_t& size) {
    Lock lock(m_mutex);
    if (!m_configured)
        return OPAL_ERROR_GENERAL;
    size = 0;
    return OPAL_OK;
}

OPALError PlatformVideo::GetPosition(int64_t& ms) {
    Lock lock(m_mutex);
    ms = 0;
    return FromHAB(HABVideo_GetPosition(m_hStream, &ms));
}

OPALError PlatformVideo::GetBufferedDuration(int64_t& ms) {
    Lock lock(m_mutex);
    uint32_t duration = 0;
    const OPALError result = FromHAB(HABVideo_GetBufferedDuration(m_hStream, &duration));
    if (result == OPAL_OK)
        ms = duration;
    return result;
}

OPALError PlatformVideo::SetRate(OPALPlayRate rate) {
    Lock lock(m_mutex);
    return FromHAB(HABVideo_SetRate(m_hStream, rate));
}

OPALError PlatformVideo::SetClusterTime(int64_t ms) {
    Lock lock(m_mutex);
    return m_configured ? FromHAB(HABVideo_SetClusterTime(m_hStream, ms)) : OPAL_ERROR_GENERAL;
}

OPALError PlatformVideo::Refresh() {
    return OPAL_OK;
}
