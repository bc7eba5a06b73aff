#include "PlatformAdapter/Common/PlatformAudio.h"

#include <limits>

#include "Common/Assert.h"
#include "PlatformAdapter/Mstar/HABAudio.h"

OPALError PlatformAudio::Configure(const std::string& codecId, uint32_t sampleRate,
                                   uint32_t channels, const uint8_t* codecPrivate,
                                   size_t codecPrivateSize, bool first) {
    Lock lock(m_mutex);
    const OPALError error = FromHAB(HABAudio_Configure(m_hStream, codecId, sampleRate, channels,
                                                       codecPrivate, codecPrivateSize, first));
    if (error == OPAL_OK)
        m_configured = true;
    return error;
}

OPALError PlatformAudio::Queue(void* data, size_t size, int64_t msTimeStamp, int64_t msDuration) {
    Lock lock(m_mutex);
    if (!m_configured || size > std::numeric_limits<uint32_t>::max())
        return OPAL_ERROR_GENERAL;
    OPAL_ASSERT(msTimeStamp >= 0, "msTimeStamp >= 0");
    OPAL_ASSERT(msDuration >= 0, "msDuration >= 0");
    return FromHAB(HABAudio_Queue(m_hStream, data, static_cast<uint32_t>(size),
                                  static_cast<uint32_t>(msTimeStamp),
                                  static_cast<uint32_t>(msDuration)));
}

OPALError PlatformAudio::Stop() {
    Lock lock(m_mutex);
    return OPAL_OK;
}

OPALError PlatformAudio::SetRate(OPALPlayRate /*rate*/) {
    Lock lock(m_mutex);
    return OPAL_OK;
}

OPALError PlatformAudio::SetClusterTime(int64_t /*ms*/) {
    return OPAL_OK;
}
