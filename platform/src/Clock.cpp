#include <algorithm>
#include <chrono>

#include "Common/Mutex.h"
#include "TvSet.h"

namespace tvset {
namespace {

using Steady = std::chrono::steady_clock;

class RealClock : public Clock {
  public:
    explicit RealClock(double speed) : m_speed(speed > 0 ? speed : 1.0), m_origin(Steady::now()) {}

    int64_t NowMs() override {
        const double since = Ms(Steady::now() - m_origin) * m_speed;
        return static_cast<int64_t>(Ms(m_origin.time_since_epoch()) + since);
    }

    uint64_t Interrupts() override {
        const opal::MutexLock lock(m_mutex);
        return m_interrupts;
    }

    void SleepUntil(int64_t ms, uint64_t seen) override {
        opal::MutexLock lock(m_mutex);
        while (m_interrupts == seen) {
            const int64_t rest = ms - NowMs();
            if (rest <= 0)
                return;
            // An hour at a time: no deadline is too far for the arithmetic.
            const double real = std::min(static_cast<double>(rest) / m_speed, 3.6e6);
            (void)m_changed.WaitFor(m_mutex, std::chrono::duration<double, std::milli>(real));
        }
    }

    void Interrupt() override {
        {
            const opal::MutexLock lock(m_mutex);
            ++m_interrupts;
        }
        m_changed.NotifyAll();
    }

  private:
    static double Ms(Steady::duration duration) {
        return std::chrono::duration<double, std::milli>(duration).count();
    }

    const double m_speed;
    const Steady::time_point m_origin;
    opal::Mutex m_mutex;
    opal::CondVar m_changed;
    uint64_t m_interrupts OPAL_GUARDED_BY(m_mutex) = 0;
};

class StandingClock : public ManualClock {
  public:
    int64_t NowMs() override {
        const opal::MutexLock lock(m_mutex);
        return m_now;
    }

    uint64_t Interrupts() override {
        const opal::MutexLock lock(m_mutex);
        return m_interrupts;
    }

    void SleepUntil(int64_t ms, uint64_t seen) override {
        opal::MutexLock lock(m_mutex);
        while (m_interrupts == seen && m_now < ms)
            m_changed.Wait(m_mutex);
    }

    void Interrupt() override {
        {
            const opal::MutexLock lock(m_mutex);
            ++m_interrupts;
        }
        m_changed.NotifyAll();
    }

    void Advance(int64_t ms) override {
        {
            const opal::MutexLock lock(m_mutex);
            m_now += ms > 0 ? ms : 0;
        }
        m_changed.NotifyAll();
    }

  private:
    opal::Mutex m_mutex;
    opal::CondVar m_changed;
    int64_t m_now OPAL_GUARDED_BY(m_mutex) = 0;
    uint64_t m_interrupts OPAL_GUARDED_BY(m_mutex) = 0;
};

}  // namespace

std::shared_ptr<Clock> NewRealClock(double speed) {
    return std::make_shared<RealClock>(speed);
}

std::shared_ptr<ManualClock> NewManualClock() {
    return std::make_shared<StandingClock>();
}

}  // namespace tvset
