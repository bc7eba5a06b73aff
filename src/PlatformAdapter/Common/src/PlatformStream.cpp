#include "PlatformAdapter/Common/PlatformStream.h"

#include "PlatformAdapter/Mstar/HABAudio.h"
#include "PlatformAdapter/Mstar/HABTimer.h"
#include "PlatformAdapter/Mstar/HABVideo.h"

namespace opal {
namespace {

template <typename Handle>
struct HAB;

template <>
struct HAB<HHABVIDEO> {
    static constexpr auto New = &HABVideo_New;
    static constexpr auto Delete = &HABVideo_Delete;
    static constexpr auto Flush = &HABVideo_Flush;
    static constexpr auto Pause = &HABVideo_Pause;
    static constexpr auto GetPosition = &HABVideo_GetPosition;
    static constexpr auto GetBufferedDuration = &HABVideo_GetBufferedDuration;
};

template <>
struct HAB<HHABAUDIO> {
    static constexpr auto New = &HABAudio_New;
    static constexpr auto Delete = &HABAudio_Delete;
    static constexpr auto Flush = &HABAudio_Flush;
    static constexpr auto Pause = &HABAudio_Pause;
    static constexpr auto GetPosition = &HABAudio_GetPosition;
    static constexpr auto GetBufferedDuration = &HABAudio_GetBufferedDuration;
};

}  // namespace

template <typename Handle>
PlatformStream<Handle>::~PlatformStream() {
    (void)PlatformStream::Finalize();
}

template <typename Handle>
OPALError PlatformStream<Handle>::Initialize() {
    Lock lock(m_mutex);
    return m_hStream ? OPAL_OK : FromHAB(HAB<Handle>::New(&m_hStream, m_hArch, m_hTimer));
}

template <typename Handle>
OPALError PlatformStream<Handle>::Finalize() {
    Lock lock(m_mutex);
    (void)HAB<Handle>::Delete(m_hStream);
    m_hStream = nullptr;
    m_configured = false;
    return OPAL_OK;
}

template <typename Handle>
OPALError PlatformStream<Handle>::Start() {
    Lock lock(m_mutex);
    uint32_t state = 0;
    if (!m_configured || HABTimer_GetState(m_hTimer, &state) != HAB_OK)
        return OPAL_ERROR_GENERAL;
    if (state == kTimerStopped && HABTimer_Start(m_hTimer) != HAB_OK)
        return OPAL_ERROR_GENERAL;
    return FromHAB(HAB<Handle>::Pause(m_hStream, false));
}

template <typename Handle>
OPALError PlatformStream<Handle>::Flush() {
    Lock lock(m_mutex);
    return m_configured ? FromHAB(HAB<Handle>::Flush(m_hStream)) : OPAL_ERROR_GENERAL;
}

template <typename Handle>
OPALError PlatformStream<Handle>::Stop() {
    Lock lock(m_mutex);
    return m_configured ? OPAL_OK : OPAL_ERROR_GENERAL;
}

template <typename Handle>
OPALError PlatformStream<Handle>::SetPaused(bool paused) {
    Lock lock(m_mutex);
    return m_configured ? FromHAB(HAB<Handle>::Pause(m_hStream, paused)) : OPAL_ERROR_GENERAL;
}

template <typename Handle>
OPALError PlatformStream<Handle>::GetBlockTrailerSize(size_t& size) {
    Lock lock(m_mutex);
    if (!m_configured)
        return OPAL_ERROR_GENERAL;
    size = 0;
    return OPAL_OK;
}

template <typename Handle>
OPALError PlatformStream<Handle>::GetPosition(int64_t& ms) {
    Lock lock(m_mutex);
    ms = 0;
    return FromHAB(HAB<Handle>::GetPosition(m_hStream, &ms));
}

template <typename Handle>
OPALError PlatformStream<Handle>::GetBufferedDuration(int64_t& ms) {
    Lock lock(m_mutex);
    uint32_t duration = 0;
    const OPALError result = FromHAB(HAB<Handle>::GetBufferedDuration(m_hStream, &duration));
    if (result == OPAL_OK)
        ms = duration;
    return result;
}

template <typename Handle>
OPALError PlatformStream<Handle>::Refresh() {
    return OPAL_OK;
}

template class PlatformStream<HHABVIDEO>;
template class PlatformStream<HHABAUDIO>;

}  // namespace opal
