#include "Wakeups.h"

#include <algorithm>
#include <chrono>

namespace tvset {

void Wakeups::Sleep(Sleeper who, std::unique_lock<std::mutex>& lock, int64_t deadline,
                    uint64_t ticket) {
    {
        const std::lock_guard<std::mutex> guard(m_mutex);
        At(who).asleep = true;
        At(who).deadline = deadline;
        At(who).ticket = ticket;
    }
    m_changed.notify_all();
    lock.unlock();
    m_clock->SleepUntil(deadline, ticket);
    {
        const std::lock_guard<std::mutex> guard(m_mutex);
        At(who).asleep = false;
    }
    lock.lock();
}

void Wakeups::Begin(Sleeper who) {
    const std::lock_guard<std::mutex> guard(m_mutex);
    At(who) = Place();
    At(who).active = true;
}

void Wakeups::End(Sleeper who) {
    {
        const std::lock_guard<std::mutex> guard(m_mutex);
        At(who).active = false;
    }
    m_changed.notify_all();
}

bool Wakeups::Idle() const {
    const uint64_t ticket = m_clock->Interrupts();
    const int64_t now = m_clock->NowMs();
    return std::all_of(m_places.begin(), m_places.end(), [&](const Place& place) {
        return !place.active || (place.asleep && place.ticket == ticket && place.deadline > now);
    });
}

bool Wakeups::WaitIdle(int timeoutMs) {
    std::unique_lock<std::mutex> lock(m_mutex);
    return m_changed.wait_for(lock, std::chrono::milliseconds(timeoutMs), [&] { return Idle(); });
}

}  // namespace tvset
