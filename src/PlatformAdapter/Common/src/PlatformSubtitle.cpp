#include "PlatformAdapter/Common/PlatformSubtitle.h"

#include <limits>

#include "PlatformAdapter/Common/IPlatformSubtitleNotify.h"
#include "PlatformAdapter/Mstar/HABSubtitle.h"
#include "PlatformAdapter/Mstar/HABTimer.h"

PlatformSubtitle::~PlatformSubtitle() {
    (void)PlatformSubtitle::Finalize();
}

OPALError PlatformSubtitle::Initialize() {
    return m_hStream ? OPAL_OK : FromHAB(HABSubtitle_New(&m_hStream, m_hArch, m_hTimer));
}

OPALError PlatformSubtitle::Finalize() {
    if (m_hStream)
        (void)HABSubtitle_Delete(m_hStream);
    m_hStream = nullptr;
    m_configured = false;
    return OPAL_OK;
}

OPALError PlatformSubtitle::Start() {
    uint32_t state = 0;
    if (!m_configured || HABTimer_GetState(m_hTimer, &state) != HAB_OK)
        return OPAL_ERROR_GENERAL;
    if (state == kTimerStopped && HABTimer_Start(m_hTimer) != HAB_OK)
        return OPAL_ERROR_GENERAL;
    return FromHAB(HABSubtitle_Pause(m_hStream, 0));
}

OPALError PlatformSubtitle::Queue(void* data, size_t size, int64_t msTimeStamp,
                                  int64_t msDuration) {
    if (!m_configured)
        return OPAL_ERROR_GENERAL;
    const OPALError error =
        FromHAB(HABSubtitle_Queue(m_hStream, data, size, static_cast<uint32_t>(msTimeStamp),
                                  static_cast<uint64_t>(msDuration)));
    if (error != OPAL_OK)
        return error;
    if (IPlatformSubtitleNotify* notify = m_pNotify) {
        constexpr int64_t kLatest = std::numeric_limits<int64_t>::max();
        const int64_t end = msTimeStamp > 0 && msDuration > kLatest - msTimeStamp
                                ? kLatest
                                : msTimeStamp + msDuration;
        notify->OnSubtitle(msTimeStamp, end, std::string(static_cast<const char*>(data), size));
    }
    return OPAL_OK;
}

OPALError PlatformSubtitle::Flush() {
    return m_configured ? FromHAB(HABSubtitle_Flush(m_hStream)) : OPAL_ERROR_GENERAL;
}

OPALError PlatformSubtitle::Stop() {
    return m_configured ? OPAL_OK : OPAL_ERROR_GENERAL;
}

OPALError PlatformSubtitle::SetPaused(bool paused) {
    return m_configured ? FromHAB(HABSubtitle_Pause(m_hStream, paused)) : OPAL_ERROR_GENERAL;
}

OPALError PlatformSubtitle::GetBlockTrailerSize(size_t& size) {
    Lock lock(m_mutex);
    if (!m_configured)
        return OPAL_ERROR_GENERAL;
    size = 0;
    return OPAL_OK;
}

OPALError PlatformSubtitle::GetPosition(int64_t& ms) {
    ms = 1;
    return OPAL_OK;
}

OPALError PlatformSubtitle::GetBufferedDuration(int64_t& /*ms*/) {
    return OPAL_OK;
}

OPALError PlatformSubtitle::SetRate(OPALPlayRate /*rate*/) {
    return OPAL_OK;
}

OPALError PlatformSubtitle::SetClusterTime(int64_t /*ms*/) {
    return OPAL_OK;
}

OPALError PlatformSubtitle::Refresh() {
    return FromHAB(HABSubtitle_Refresh(m_hStream));
}

OPALError PlatformSubtitle::Configure(const std::string& codecId, int width, int height,
                                      const void* font, size_t fontSize) {
    const OPALError error =
        FromHAB(HABSubtitle_Configure(m_hStream, codecId, width, height, font, fontSize));
    if (error == OPAL_OK)
        m_configured = true;
    return error == OPAL_OK ? OPAL_OK : OPAL_ERROR_GENERAL;
}

void PlatformSubtitle::SetNotify(IPlatformSubtitleNotify* notify) {
    m_pNotify = notify;
}
