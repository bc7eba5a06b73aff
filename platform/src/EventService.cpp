#include "EventService.h"

#include <algorithm>
#include <chrono>

#include "Control.h"

namespace tvset {

void EventService::Start() {
    const std::lock_guard<std::mutex> lock(m_mutex);
    if (m_stop) {
        m_stop = false;
        m_wakeups.Begin(Sleeper::Events);
        m_thread = std::thread([this] { Loop(); });
    }
}

void EventService::Stop() {
    {
        const std::lock_guard<std::mutex> lock(m_mutex);
        m_stop = true;
        m_queue.clear();
    }
    m_wakeups.Wake();
    if (m_thread.joinable()) {
        m_thread.join();
    }
}

bool EventService::OnOwnThread() const {
    const std::lock_guard<std::mutex> lock(m_mutex);
    return std::this_thread::get_id() == m_thread.get_id();
}

void EventService::Add(MSRV_MM_EVENT_RECIPIENT recipient) {
    const std::lock_guard<std::mutex> lock(m_mutex);
    m_recipients.push_back(recipient);
}

bool EventService::Remove(MSRV_MM_EVENT_RECIPIENT recipient) {
    std::unique_lock<std::mutex> lock(m_mutex);
    const auto end = std::remove(m_recipients.begin(), m_recipients.end(), recipient);
    const bool found = end != m_recipients.end();
    m_recipients.erase(end, m_recipients.end());
    if (std::this_thread::get_id() != m_thread.get_id()) {
        m_delivered.wait(lock, [&] { return m_running != recipient; });
    }
    return found;
}

void EventService::Post(EN_PLAYER_EVENT event, unsigned long item, int64_t delayMs) {
    {
        const std::lock_guard<std::mutex> lock(m_mutex);
        if (m_stop) {
            return;
        }
        m_queue.push_back({event, item, m_wakeups.NowMs() + delayMs});
    }
    m_wakeups.Wake();
}

void EventService::Purge(unsigned long item, uint32_t event) {
    const std::lock_guard<std::mutex> lock(m_mutex);
    m_queue.erase(std::remove_if(m_queue.begin(), m_queue.end(),
                                 [&](const Pending& pending) {
                                     return pending.item == item &&
                                            (event == 0 || pending.event == event);
                                 }),
                  m_queue.end());
}

void EventService::Drain() {
    std::unique_lock<std::mutex> lock(m_mutex);
    m_delivered.wait_for(lock, std::chrono::seconds(2), [&] {
        const int64_t now = m_wakeups.NowMs();
        return !m_busy && std::none_of(m_queue.begin(), m_queue.end(), [&](const Pending& pending) {
            return pending.dueMs <= now && !Control::Get().IsHeld(pending.event);
        });
    });
}

bool EventService::TakeDue(Pending& pending, int64_t& nextMs) {
    nextMs = kNever;
    auto best = m_queue.end();
    for (auto it = m_queue.begin(); it != m_queue.end(); ++it) {
        if (!Control::Get().IsHeld(it->event) &&
            (best == m_queue.end() || it->dueMs < best->dueMs)) {
            best = it;
        }
    }
    if (best == m_queue.end()) {
        return false;
    }
    if (best->dueMs > m_wakeups.NowMs()) {
        nextMs = best->dueMs;
        return false;
    }
    pending = *best;
    m_queue.erase(best);
    return true;
}

void EventService::Deliver(std::unique_lock<std::mutex>& lock, Pending pending) {
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
        lock.unlock();
        recipient(m_instance, reinterpret_cast<void*>(static_cast<uintptr_t>(pending.event)),
                  &pending.item);
        lock.lock();
        m_running = nullptr;
        m_delivered.notify_all();
    }
    m_busy = false;
    m_delivered.notify_all();
}

void EventService::Loop() {
    std::unique_lock<std::mutex> lock(m_mutex);
    while (!m_stop) {
        const uint64_t ticket = m_wakeups.Ticket();
        Pending pending{};
        int64_t nextMs = kNever;
        if (!TakeDue(pending, nextMs)) {
            m_delivered.notify_all();
            m_wakeups.Sleep(Sleeper::Events, lock, nextMs, ticket);
        } else if (!Control::Get().IsDropped(pending.event)) {
            Deliver(lock, pending);
        }
    }
    lock.unlock();
    m_wakeups.End(Sleeper::Events);
}

}  // namespace tvset
