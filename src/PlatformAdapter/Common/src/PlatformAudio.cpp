#include "PlatformAdapter/Common/PlatformAudio.h"

#include <limits>

#include "Common/Assert.h"
#include "PlatformAdapter/Mstar/HABAudio.h"
#include "PlatformAdapter/Mstar/HABTimer.h"

namespace {

using Lock = boost::recursive_mutex::scoped_lock;

OPALError FromHAB(int result) {
    return result == HAB_OK ? OPAL_OK : OPAL_ERROR_GENERAL;
}

}  // namespace

PlatformAudio::PlatformAudio(HHABARCH hArch, HHABTIMER hTimer) : PlatformBase(hArch, hTimer) {}

PlatformAudio::~PlatformAudio() {
    (void)PlatformAudio::Finalize();
}

OPALError PlatformAudio::Initialize() {
    Lock lock(m_mutex);
    return m_hStream ? OPAL_OK : FromHAB(HABAudio_New(&m_hStream, m_hArch, m_hTimer));
}

OPALError PlatformAudio::Finalize() {
    Lock lock(m_mutex);
    if (m_hStream) {
        (void)HABAudio_Delete(m_hStream);
        m_hStream = nullptr;
    }
    m_configured = false;
    return OPAL_OK;
}

OPALError PlatformAudio::Configure(const std::string& codecId, uint32_t sampleRate,
                                   uint32_t channels, const uint8_t* codecPrivate,
                                   size_t codecPrivateSize, bool first) {
    Lock lock(m_mutex);
    const int result = HABAudio_Configure(m_hStream, codecId, sampleRate, channels, codecPrivate,
                                          codecPrivateSize, first);
    if (result == HAB_AUDIO_UNSUPPORTED)
        return OPAL_ERROR_AUDIO_UNSUPPORTED;
    if (result != HAB_OK)
        return OPAL_ERROR_GENERAL;
    m_configured = true;
    return OPAL_OK;
}

OPALError PlatformAudio::Start() {
    Lock lock(m_mutex);
    uint32_t state = 0;
    if (!m_configured || HABTimer_GetState(m_hTimer, &state) != HAB_OK)
        return OPAL_ERROR_GENERAL;
    if (state == kTimerStopped && HABTimer_Start(m_hTimer) != HAB_OK)
        return OPAL_ERROR_GENERAL;
    return FromHAB(HABAudio_Pause(m_hStream, false));
}

OPALError PlatformAudio::Queue(void* data, size_t size, int64_t msTimeStamp, int64_t msDuration) {
    Lock lock(m_mutex);
    if (!m_configured || size > std::numeric_limits<uint32_t>::max())
        return OPAL_ERROR_GENERAL;
    OPAL_ASSERT(msTimeStamp >= 0, "msTimeStamp >= 0");
    OPAL_ASSERT(msDuration >= 0, "msDuration >= 0");
    const int result =
        HABAudio_Queue(m_hStream, data, static_cast<uint32_t>(size),
                       static_cast<uint32_t>(msTimeStamp), static_cast<uint32_t>(msDuration));
    return result == HAB_AUDIO_FULL ? OPAL_ERROR_NOT_YET : FromHAB(result);
}

OPALError PlatformAudio::Flush() {
    Lock lock(m_mutex);
    return m_configured ? FromHAB(HABAudio_Flush(m_hStream)) : OPAL_ERROR_GENERAL;
}

OPALError PlatformAudio::Stop() {
    Lock lock(m_mutex);
    return OPAL_OK;
}

OPALError PlatformAudio::SetPaused(bool paused) {
    Lock lock(m_mutex);
    return m_configured ? FromHAB(HABAudio_Pause(m_hStream, paused)) : OPAL_ERROR_GENERAL;
}

OPALError PlatformAudio::GetBlockTrailerSize(size_t& size) {
    Lock lock(m_mutex);
    if (!m_configured)
        return OPAL_ERROR_GENERAL;
    size = 0;
    return OPAL_OK;
}

OPALError PlatformAudio::GetPosition(int64_t& ms) {
    Lock lock(m_mutex);
    ms = 0;
    return FromHAB(HABAudio_GetPosition(m_hStream, &ms));
}

OPALError PlatformAudio::GetBufferedDuration(int64_t& ms) {
    Lock lock(m_mutex);
    uint32_t duration = 0;
    const OPALError result = FromHAB(HABAudio_GetBufferedDuration(m_hStream, &duration));
    if (result == OPAL_OK)
        ms = duration;
    return result;
}

OPALError PlatformAudio::SetRate(OPALPlayRate /*rate*/) {
    Lock lock(m_mutex);
    return OPAL_OK;
}

OPALError PlatformAudio::SetClusterTime(int64_t /*ms*/) {
    return OPAL_OK;
}

OPALError PlatformAudio::Refresh() {
    return OPAL_OK;
}
