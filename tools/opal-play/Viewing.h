#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

#include "opal-play/Report.h"

namespace opal::play {

/// What was watched: the time at each level, and the time that playback stood still for want of
/// data. One thread.
class Viewing {
  public:
    enum class State { Other, Watching, Stalled };

    /// Counts the time since the last call to what is going on now. `level`: (size_t)-1 while it is
    /// not known; what was watched until then belongs to the first that is.
    void Account(int64_t nowMs, State state, size_t level);
    int64_t StalledMs() const { return m_stalledMs; }
    /// By level.
    const std::vector<int64_t>& WatchedMs() const { return m_watchedMs; }

  private:
    int64_t m_lastMs = -1;
    int64_t m_stalledMs = 0;
    int64_t m_pendingMs = 0;
    std::vector<int64_t> m_watchedMs;
};

}  // namespace opal::play
