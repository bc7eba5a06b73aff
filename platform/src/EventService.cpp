#include "EventService.h"

#include <algorithm>
#include <chrono>

#include "Control.h"

namespace tvset {

void EventService::Start() {
    const opal::MutexLock lock(m_mutex);
    if (m_stop) {
        m_stop = false;
        m_wakeups.Begin(Sleeper::Events);
        m_thread = std::thread([this] { Loop(); });
        m_threadId = m_thread.get_id();
    }
}

void EventService::Stop() {
    std::thread ending;
    {
        const opal::MutexLock lock(m_mutex);
        m_stop = true;
        m_queue.clear();
        ending.swap(m_thread);
    }
    m_wakeups.Wake();
    if (ending.joinable()) {
        ending.join();
        const opal::MutexLock lock(m_mutex);
        m_threadId = std::thread::id();
    }
}

bool EventService::OnOwnThread() const {
    const opal::MutexLock lock(m_mutex);
    return std::this_thread::get_id() == m_threadId;
}

void EventService::Add(MSRV_MM_EVENT_RECIPIENT recipient) {
    const opal::MutexLock lock(m_mutex);
    m_recipients.push_back(recipient);
}

bool EventService::Remove(MSRV_MM_EVENT_RECIPIENT recipient) {
    opal::MutexLock lock(m_mutex);
    const auto end = std::remove(m_recipients.begin(), m_recipients.end(), recipient);
    const bool found = end != m_recipients.end();
    m_recipients.erase(end, m_recipients.end());
    while (std::this_thread::get_id() != m_threadId && m_running == recipient)
        m_delivered.Wait(m_mutex);
    return found;
}

void EventService::Post(EN_PLAYER_EVENT event, unsigned long item, int64_t delayMs) {
    {
        const opal::MutexLock lock(m_mutex);
        if (m_stop)
            return;
        m_queue.push_back({event, item, m_wakeups.NowMs() + delayMs});
    }
    m_wakeups.Wake();
}

void EventService::Purge(unsigned long item, uint32_t event) {
    const opal::MutexLock lock(m_mutex);
    m_queue.erase(std::remove_if(m_queue.begin(), m_queue.end(),
                                 [&](const Pending& pending) {
                                     return pending.item == item &&
                                            (event == 0 || pending.event == event);
                                 }),
                  m_queue.end());
}

void EventService::Drain() {
    opal::MutexLock lock(m_mutex);
    const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(2);
    while ((m_busy || HasDue()) && m_delivered.WaitUntil(m_mutex, end)) {
    }
}

bool EventService::HasDue() const {
    const int64_t now = m_wakeups.NowMs();
    return std::any_of(m_queue.begin(), m_queue.end(), [&](const Pending& pending) {
        return pending.dueMs <= now && !Control::Get().IsHeld(pending.event);
    });
}

bool EventService::TakeDue(Pending& pending, int64_t& nextMs) {
    nextMs = kNever;
    auto best = m_queue.end();
    for (auto it = m_queue.begin(); it != m_queue.end(); ++it) {
        if (!Control::Get().IsHeld(it->event) && (best == m_queue.end() || it->dueMs < best->dueMs))
            best = it;
    }
    if (best == m_queue.end())
        return false;
    if (best->dueMs > m_wakeups.NowMs()) {
        nextMs = best->dueMs;
        return false;
    }
    pending = *best;
    m_queue.erase(best);
    return true;
}

void EventService::Deliver(Pending pending) {
    m_busy = true;
    control::JournalEntry entry;
    entry.call = "event";
    entry.item = pending.item;
    entry.value = pending.event;
    Control::Get().Append(std::move(entry));
    const std::vector<MSRV_MM_EVENT_RECIPIENT> recipients = m_recipients;
    for (const MSRV_MM_EVENT_RECIPIENT recipient : recipients) {
        if (std::find(m_recipients.begin(), m_recipients.end(), recipient) == m_recipients.end()) {
            continue;  // removed meanwhile
        }
        m_running = recipient;
        {
            const opal::MutexUnlock unlocked(m_mutex);
            recipient(m_instance, reinterpret_cast<void*>(static_cast<uintptr_t>(pending.event)),
                      &pending.item);
        }
        m_running = nullptr;
        m_delivered.NotifyAll();
    }
    m_busy = false;
    m_delivered.NotifyAll();
}

void EventService::Loop() {
    opal::MutexLock lock(m_mutex);
    while (!m_stop) {
        const uint64_t ticket = m_wakeups.Ticket();
        Pending pending{};
        int64_t nextMs = kNever;
        if (!TakeDue(pending, nextMs)) {
            m_delivered.NotifyAll();
            m_wakeups.Sleep(Sleeper::Events, m_mutex, nextMs, ticket);
        } else if (!Control::Get().IsDropped(pending.event)) {
            Deliver(pending);
        }
    }
    lock.Unlock();
    m_wakeups.End(Sleeper::Events);
}

}  // namespace tvset
