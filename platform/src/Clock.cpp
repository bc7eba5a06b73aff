#include <chrono>
#include <condition_variable>
#include <mutex>

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
        const std::lock_guard<std::mutex> lock(m_mutex);
        return m_interrupts;
    }

    void SleepUntil(int64_t ms, uint64_t seen) override {
        std::unique_lock<std::mutex> lock(m_mutex);
        while (m_interrupts == seen) {
            const int64_t rest = ms - NowMs();
            if (rest <= 0) {
                return;
            }
            // An hour at a time: no deadline is too far for the arithmetic.
            const double real = std::min(static_cast<double>(rest) / m_speed, 3.6e6);
            m_changed.wait_for(lock, std::chrono::duration<double, std::milli>(real));
        }
    }

    void Interrupt() override {
        {
            const std::lock_guard<std::mutex> lock(m_mutex);
            ++m_interrupts;
        }
        m_changed.notify_all();
    }

  private:
    static double Ms(Steady::duration duration) {
        return std::chrono::duration<double, std::milli>(duration).count();
    }

    const double m_speed;
    const Steady::time_point m_origin;
    std::mutex m_mutex;
    std::condition_variable m_changed;
    uint64_t m_interrupts = 0;
};

class StandingClock : public ManualClock {
  public:
    int64_t NowMs() override {
        const std::lock_guard<std::mutex> lock(m_mutex);
        return m_now;
    }

    uint64_t Interrupts() override {
        const std::lock_guard<std::mutex> lock(m_mutex);
        return m_interrupts;
    }

    void SleepUntil(int64_t ms, uint64_t seen) override {
        std::unique_lock<std::mutex> lock(m_mutex);
        m_changed.wait(lock, [&] { return m_interrupts != seen || m_now >= ms; });
    }

    void Interrupt() override {
        {
            const std::lock_guard<std::mutex> lock(m_mutex);
            ++m_interrupts;
        }
        m_changed.notify_all();
    }

    void Advance(int64_t ms) override {
        {
            const std::lock_guard<std::mutex> lock(m_mutex);
            m_now += ms > 0 ? ms : 0;
        }
        m_changed.notify_all();
    }

  private:
    std::mutex m_mutex;
    std::condition_variable m_changed;
    int64_t m_now = 0;
    uint64_t m_interrupts = 0;
};

}  // namespace

std::shared_ptr<Clock> NewRealClock(double speed) {
    return std::make_shared<RealClock>(speed);
}

std::shared_ptr<ManualClock> NewManualClock() {
    return std::make_shared<StandingClock>();
}

}  // namespace tvset
