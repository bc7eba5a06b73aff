#include <deque>
#include <thread>

#include "Common/Mutex.h"
#include "Common/SessionEventStream.h"
#include "Common/logging/Logger.h"
#include "StreamingController/ISessionObserver.h"
#include "StreamingController/src/NoThrow.h"

namespace opal {
namespace {

constexpr size_t kRoom = 8192;

struct Deliver {
    ISessionObserver& observer;
    void operator()(const RequestEvent& event) const { observer.OnRequest(event); }
    void operator()(const DecisionEvent& event) const { observer.OnDecision(event); }
    void operator()(const SwitchingCallEvent& event) const { observer.OnSwitchingCall(event); }
    void operator()(const LevelIndexEvent& event) const { observer.OnLevelIndex(event); }
    void operator()(const BufferEvent& event) const { observer.OnBuffers(event); }
    void operator()(const StateEvent& event) const { observer.OnState(event); }
    void operator()(const SinkEvent& event) const { observer.OnSink(event); }
};

/// Between the threads where something happens and the observer: a bounded queue and a thread.
///
/// Threading: Take from any thread; Observe from one at a time (m_controlMutex). m_mutex is a leaf,
/// held to put an event in and to take one out. There is one for the process, and it stays.
class ObserverQueue : public SessionEventSink {
  public:
    static ObserverQueue& Instance() {
        static auto* const queue = new ObserverQueue;
        return *queue;
    }

    void Take(AnySessionEvent&& event) override {
        MutexLock lock(m_mutex);
        if (!m_open)
            return;
        if (!Append(std::move(event)))
            ++m_dropped;
        else
            m_wakeup.NotifyOne();
    }

    void Lost() noexcept override {
        const MutexLock lock(m_mutex);
        m_dropped += m_open;
    }

    OPALError Observe(ISessionObserver* observer) {
        if (t_delivering)
            return OPAL_ERROR_GENERAL;
        MutexLock control(m_controlMutex);
        uint64_t generation = 0;
        {
            MutexLock lock(m_mutex);
            generation = m_generation + 1;
        }
        std::thread next;
        try {
            if (observer)
                next = std::thread([this, observer, generation] { Run(*observer, generation); });
        } catch (const std::exception&) {
            return OPAL_ERROR_NO_MEMORY;
        }
        SessionEventStream::SetSink(nullptr);
        {
            MutexLock lock(m_mutex);
            m_open = false;
            m_wakeup.NotifyAll();
        }
        if (m_thread.joinable())
            m_thread.join();
        m_thread = std::move(next);
        MutexLock lock(m_mutex);
        if (!observer)
            return OPAL_OK;
        m_generation = generation;
        m_dropped = 0;
        m_open = true;
        m_wakeup.NotifyAll();
        SessionEventStream::SetSink(this);
        return OPAL_OK;
    }

  private:
    struct Entry {
        AnySessionEvent event;
        uint64_t droppedBefore = 0;
    };

    bool Append(AnySessionEvent&& event) OPAL_REQUIRES(m_mutex) {
        if (m_events.size() >= kRoom)
            return false;
        try {
            m_events.push_back({std::move(event), m_dropped});
            return true;
        } catch (const std::bad_alloc&) {
            return false;
        }
    }

    void Run(ISessionObserver& observer, uint64_t generation) {
        t_delivering = true;
        uint64_t told = 0;
        MutexLock lock(m_mutex);
        while (m_generation < generation)
            m_wakeup.Wait(m_mutex);
        for (;;) {
            while (m_events.empty() && m_open)
                m_wakeup.Wait(m_mutex);
            const bool last = m_events.empty();
            if (last && m_dropped == told)
                return;
            Entry entry;
            entry.droppedBefore = m_dropped;
            if (!last) {
                entry = std::move(m_events.front());
                m_events.pop_front();
            }
            const MutexUnlock unlocked(m_mutex);
            if (entry.droppedBefore != told)
                Call([&] { observer.OnDropped(told = entry.droppedBefore); });
            if (!last)
                Call([&] { std::visit(Deliver{observer}, entry.event); });
        }
    }

    /// What a callback throws is the observer's own affair.
    template <typename Callback>
    static void Call(Callback callback) {
        try {
            callback();
        } catch (...) {
        }
    }

    static inline thread_local bool t_delivering = false;

    Mutex m_controlMutex OPAL_ACQUIRED_BEFORE(m_mutex);
    std::thread m_thread OPAL_GUARDED_BY(m_controlMutex);
    Mutex m_mutex;
    CondVar m_wakeup;
    std::deque<Entry> m_events OPAL_GUARDED_BY(m_mutex);
    uint64_t m_dropped OPAL_GUARDED_BY(m_mutex) = 0;
    uint64_t m_generation OPAL_GUARDED_BY(m_mutex) = 0;  ///< counts the observers
    bool m_open OPAL_GUARDED_BY(m_mutex) = false;
};

}  // namespace
}  // namespace opal

OPALError SetSessionObserver(ISessionObserver* observer) {
    return opal::NoThrow([&] { return opal::ObserverQueue::Instance().Observe(observer); });
}
