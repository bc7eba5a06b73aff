#pragma once

#include <array>
#include <cstdint>
#include <memory>

#include "Common/Mutex.h"
#include "TvSet.h"

namespace tvset {

constexpr int64_t kNever = INT64_MAX;

/// The television's threads; each sleeps in its own place.
enum class Sleeper { Events, Decode, Display, Audio, Count };

/// How the television's threads sleep on its clock, and the view of all of them that tells a test
/// whether the television has come to rest.
///
/// Threading: any thread. A leaf: it calls nothing but the clock.
class Wakeups {
  public:
    explicit Wakeups(std::shared_ptr<Clock> clock) : m_clock(std::move(clock)) {}

    int64_t NowMs() const { return m_clock->NowMs(); }
    /// To be read under the lock that guards the work, before the work is looked at.
    uint64_t Ticket() const { return m_clock->Interrupts(); }
    /// After work was added, with or without its lock.
    void Wake() const { m_clock->Interrupt(); }
    /// Gives up `mutex` until `deadline` or until work was added after `ticket` was read.
    void Sleep(Sleeper who, opal::Mutex& mutex, int64_t deadline, uint64_t ticket)
        OPAL_REQUIRES(mutex);

    void Begin(Sleeper who);
    void End(Sleeper who);
    bool WaitIdle(int timeoutMs);

  private:
    struct Place {
        bool active = false;
        bool asleep = false;
        int64_t deadline = 0;
        uint64_t ticket = 0;
    };
    Place& At(Sleeper who) OPAL_REQUIRES(m_mutex) { return m_places[static_cast<size_t>(who)]; }
    bool Idle() const OPAL_REQUIRES(m_mutex);

    const std::shared_ptr<Clock> m_clock;
    opal::Mutex m_mutex;
    opal::CondVar m_changed;
    std::array<Place, static_cast<size_t>(Sleeper::Count)> m_places OPAL_GUARDED_BY(m_mutex);
};

}  // namespace tvset
