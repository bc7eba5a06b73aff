#include "opal-play/Pace.h"

namespace opal::play {

void Pace::Report(int64_t positionMs, int64_t nowMs) {
    if (m_running) {
        m_mediaMs += positionMs - m_positionMs;
        m_realMs += nowMs - m_atMs;
    }
    m_running = true;
    m_positionMs = positionMs;
    m_atMs = nowMs;
}

double Pace::Value() const {
    constexpr int64_t kLeastMs = 2000;
    return m_realMs < kLeastMs ? 0.0
                               : static_cast<double>(m_mediaMs) / static_cast<double>(m_realMs);
}

}  // namespace opal::play
