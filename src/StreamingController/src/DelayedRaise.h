#pragma once

#include <boost/thread/thread.hpp>
#include <chrono>
#include <exception>

#include "Common/Mutex.h"
#include "Common/StopSignal.h"

namespace opal {

/// Raises a stop signal after a time, for what may end by itself until then. By real time, whatever
/// the library's clock says. Gone before the time is over, the signal stays as it is.
class DelayedRaise {
  public:
    DelayedRaise(StopSignal& signal, std::chrono::milliseconds delay) : m_signal(signal) {
        try {
            m_thread = boost::thread([this, delay] { Run(delay); });
        } catch (const std::exception&) {
            m_signal.Raise();
        }
    }
    ~DelayedRaise() {
        {
            MutexLock lock(m_mutex);
            m_over = true;
        }
        m_changed.NotifyAll();
        if (m_thread.joinable())
            m_thread.join();
    }
    DelayedRaise(const DelayedRaise&) = delete;
    DelayedRaise& operator=(const DelayedRaise&) = delete;

  private:
    void Run(std::chrono::milliseconds delay) {
        const auto end = std::chrono::steady_clock::now() + delay;
        MutexLock lock(m_mutex);
        while (!m_over && m_changed.WaitUntil(m_mutex, end)) {
        }
        if (!m_over)
            m_signal.Raise();
    }

    StopSignal& m_signal;
    Mutex m_mutex;
    CondVar m_changed;
    bool m_over OPAL_GUARDED_BY(m_mutex) = false;
    boost::thread m_thread;
};

}  // namespace opal
