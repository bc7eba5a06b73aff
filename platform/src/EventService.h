#pragma once

#include <cstdint>
#include <deque>
#include <thread>
#include <vector>

#include "Common/Mutex.h"
#include "MSrv_MM_PlayerInterface.h"
#include "Wakeups.h"

namespace tvset {

/// Delivers the player's events, in the order of their due times, from a thread of its own.
///
/// Threading: any thread may call; recipients are called with no lock held. `Remove` waits for a
/// running delivery, except on the event thread itself.
/// Ownership: `wakeups` outlives this object.
class EventService {
  public:
    EventService(Wakeups& wakeups, void* instance) : m_wakeups(wakeups), m_instance(instance) {}
    ~EventService() { Stop(); }

    EventService(const EventService&) = delete;
    EventService& operator=(const EventService&) = delete;

    void Start();
    /// Joins the thread and forgets what is queued. Not from a recipient.
    void Stop();
    /// Whether a recipient is asking.
    bool OnOwnThread() const;

    void Add(MSRV_MM_EVENT_RECIPIENT recipient);
    bool Remove(MSRV_MM_EVENT_RECIPIENT recipient);

    void Post(EN_PLAYER_EVENT event, unsigned long item, int64_t delayMs);
    /// Forgets queued events of `item`; of one number only, unless `event` is 0.
    void Purge(unsigned long item, uint32_t event = 0);
    /// Waits until everything that is due has been delivered, two seconds at most.
    void Drain();

  private:
    struct Pending {
        uint32_t event;
        unsigned long item;
        int64_t dueMs;
    };

    void Loop();
    bool TakeDue(Pending& pending, int64_t& nextMs) OPAL_REQUIRES(m_mutex);
    void Deliver(Pending pending) OPAL_REQUIRES(m_mutex);
    bool HasDue() const OPAL_REQUIRES(m_mutex);

    Wakeups& m_wakeups;
    void* const m_instance;
    mutable opal::Mutex m_mutex;
    opal::CondVar m_delivered;
    std::deque<Pending> m_queue OPAL_GUARDED_BY(m_mutex);
    std::vector<MSRV_MM_EVENT_RECIPIENT> m_recipients OPAL_GUARDED_BY(m_mutex);
    MSRV_MM_EVENT_RECIPIENT m_running OPAL_GUARDED_BY(m_mutex) =
        nullptr;  ///< recipient that is being called
    bool m_busy OPAL_GUARDED_BY(m_mutex) = false;
    bool m_stop OPAL_GUARDED_BY(m_mutex) = true;
    std::thread m_thread OPAL_GUARDED_BY(m_mutex);
    std::thread::id m_threadId OPAL_GUARDED_BY(m_mutex);  ///< while the thread runs
};

}  // namespace tvset
