#pragma once

#include <algorithm>
#include <atomic>
#include <cstdint>

#include "Common/Clock.h"

namespace opal {

/// Tells everything that may wait (for the network, the player or time) that what it waits for is
/// not wanted any more. A session has one, which Finalize raises; a part of a session that may end
/// before the session has one of its own, with the session's as its parent.
///
/// Threading: any operation from any thread, without a lock. Whoever waits looks at the signal at
/// least every kSliceMs, or as often as the library that waits for it allows.
/// Ownership: whoever is given a signal keeps a plain pointer; the signal outlives the waiting. The
/// parent outlives the child.
class StopSignal {
  public:
    static constexpr int64_t kSliceMs = 50;

    explicit StopSignal(const StopSignal* parent = nullptr) : m_pParent(parent) {}
    StopSignal(const StopSignal&) = delete;
    StopSignal& operator=(const StopSignal&) = delete;

    void Raise() { m_raised = true; }
    /// For the next session; nothing may be waiting then. The parent stays as it is.
    void Lower() { m_raised = false; }
    /// True also while the parent is raised.
    bool IsRaised() const { return m_raised || (m_pParent && m_pParent->IsRaised()); }

    /// Sleeps by the library's clock. False as soon as the signal is raised.
    [[nodiscard]] bool SleepMs(int64_t ms) const {
        for (; ms > 0 && !IsRaised(); ms -= kSliceMs)
            opal::SleepMs(std::min(ms, kSliceMs));
        return !IsRaised();
    }

  private:
    const StopSignal* const m_pParent;
    std::atomic<bool> m_raised{false};
};

/// For operations that take a signal that may be null: null is never raised.
inline bool IsRaised(const StopSignal* signal) {
    return signal && signal->IsRaised();
}

}  // namespace opal
