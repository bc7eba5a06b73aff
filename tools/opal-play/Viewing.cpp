#include "opal-play/Viewing.h"

namespace opal::play {

void Viewing::Account(int64_t nowMs, State state, size_t level) {
    const int64_t passed = m_lastMs < 0 ? 0 : nowMs - m_lastMs;
    m_lastMs = nowMs;
    if (state == State::Stalled)
        m_stalledMs += passed;
    if (state != State::Watching)
        return;
    m_pendingMs += passed;
    if (level == static_cast<size_t>(-1))
        return;
    if (m_watchedMs.size() <= level)
        m_watchedMs.resize(level + 1);
    m_watchedMs[level] += m_pendingMs;
    m_pendingMs = 0;
}

}  // namespace opal::play
