#pragma once

#include <atomic>
#include <boost/date_time/posix_time/posix_time.hpp>
#include <chrono>
#include <thread>

#include "Common/Clock.h"
#include "Common/Mutex.h"

namespace opal::test {

/// The library's time at `factor` times the speed of real time, on all threads, while it lives.
class ScaledClock : public opal::Clock {
  public:
    explicit ScaledClock(int factor) : m_factor(factor) { SetClock(this); }
    ~ScaledClock() override { SetClock(nullptr); }
    ScaledClock(const ScaledClock&) = delete;
    ScaledClock& operator=(const ScaledClock&) = delete;

    boost::posix_time::ptime Now() override {
        const opal::MutexLock lock(m_mutex);
        const auto real = std::chrono::duration_cast<std::chrono::microseconds>(
            std::chrono::steady_clock::now() - m_begin);
        return m_start + boost::posix_time::microseconds(real.count() * m_factor);
    }
    /// The factor before. A sleep keeps the one that it began with.
    int SetFactor(int factor) {
        const auto now = Now();
        const opal::MutexLock lock(m_mutex);
        m_start = now;
        m_begin = std::chrono::steady_clock::now();
        return m_factor.exchange(factor);
    }
    void SleepMs(int64_t ms) override {
        if (ms > 0)
            std::this_thread::sleep_for(std::chrono::microseconds(ms * 1000 / m_factor));
    }

  private:
    opal::Mutex m_mutex;
    std::atomic<int> m_factor;
    boost::posix_time::ptime m_start OPAL_GUARDED_BY(m_mutex){boost::gregorian::date(2020, 1, 1)};
    std::chrono::steady_clock::time_point m_begin OPAL_GUARDED_BY(m_mutex) =
        std::chrono::steady_clock::now();
};

}  // namespace opal::test
