#include "Wakeups.h"

#include <algorithm>
#include <chrono>

namespace tvset {

void Wakeups::Sleep(Sleeper who, opal::Mutex& mutex, int64_t deadline, uint64_t ticket) {
    {
        const opal::MutexLock guard(m_mutex);
        At(who).asleep = true;
        At(who).deadline = deadline;
        At(who).ticket = ticket;
    }
    m_changed.NotifyAll();
    const opal::MutexUnlock unlocked(mutex);
    m_clock->SleepUntil(deadline, ticket);
    const opal::MutexLock guard(m_mutex);
    At(who).asleep = false;
}

void Wakeups::Begin(Sleeper who) {
    const opal::MutexLock guard(m_mutex);
    At(who) = Place();
    At(who).active = true;
}

void Wakeups::End(Sleeper who) {
    {
        const opal::MutexLock guard(m_mutex);
        At(who).active = false;
    }
    m_changed.NotifyAll();
}

bool Wakeups::Idle() const {
    const uint64_t ticket = m_clock->Interrupts();
    const int64_t now = m_clock->NowMs();
    return std::all_of(m_places.begin(), m_places.end(), [&](const Place& place) {
        return !place.active || (place.asleep && place.ticket == ticket && place.deadline > now);
    });
}

bool Wakeups::WaitIdle(int timeoutMs) {
    opal::MutexLock lock(m_mutex);
    const auto end = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeoutMs);
    while (!Idle()) {
        if (!m_changed.WaitUntil(m_mutex, end))
            return Idle();
    }
    return true;
}

}  // namespace tvset
