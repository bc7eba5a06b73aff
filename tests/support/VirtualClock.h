#pragma once

#include <atomic>
#include <boost/date_time/posix_time/posix_time_types.hpp>
#include <cstdint>

#include "Common/Clock.h"

namespace opal::test {

/// The library's time, moved by the test alone: sleeping, on any thread, moves it.
class VirtualClock : public opal::Clock {
  public:
    VirtualClock() { SetClock(this); }
    ~VirtualClock() override { SetClock(nullptr); }
    VirtualClock(const VirtualClock&) = delete;
    VirtualClock& operator=(const VirtualClock&) = delete;

    boost::posix_time::ptime Now() override {
        return m_start + boost::posix_time::milliseconds(m_elapsedMs.load());
    }
    void SleepMs(int64_t ms) override { Advance(ms); }

    void Advance(int64_t ms) { m_elapsedMs += ms; }
    int64_t ElapsedMs() const { return m_elapsedMs; }

  private:
    const boost::posix_time::ptime m_start{boost::gregorian::date(2020, 1, 1)};
    std::atomic<int64_t> m_elapsedMs{0};
};

}  // namespace opal::test
