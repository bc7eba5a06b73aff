#pragma once

#include <boost/date_time/posix_time/posix_time.hpp>
#include <chrono>
#include <thread>

#include "Common/Clock.h"

namespace opal::test {

/// The library's time at `factor` times the speed of real time, on all threads, while it lives.
class ScaledClock : public opal::Clock {
  public:
    explicit ScaledClock(int factor) : m_factor(factor) { SetClock(this); }
    ~ScaledClock() override { SetClock(nullptr); }
    ScaledClock(const ScaledClock&) = delete;
    ScaledClock& operator=(const ScaledClock&) = delete;

    boost::posix_time::ptime Now() override {
        const auto real = std::chrono::duration_cast<std::chrono::microseconds>(
            std::chrono::steady_clock::now() - m_begin);
        return m_start + boost::posix_time::microseconds(real.count() * m_factor);
    }
    void SleepMs(int64_t ms) override {
        if (ms > 0)
            std::this_thread::sleep_for(std::chrono::microseconds(ms * 1000 / m_factor));
    }

  private:
    const int m_factor;
    const boost::posix_time::ptime m_start{boost::gregorian::date(2020, 1, 1)};
    const std::chrono::steady_clock::time_point m_begin = std::chrono::steady_clock::now();
};

}  // namespace opal::test
