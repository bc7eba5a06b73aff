#pragma once

#include <boost/date_time/posix_time/posix_time_types.hpp>

#include "Common/Clock.h"

namespace opal::test {

/// The library's time, moved by the test alone: sleeping moves it. For single-threaded tests.
class VirtualClock : public opal::Clock {
  public:
    VirtualClock() { SetClock(this); }
    ~VirtualClock() override { SetClock(nullptr); }
    VirtualClock(const VirtualClock&) = delete;
    VirtualClock& operator=(const VirtualClock&) = delete;

    boost::posix_time::ptime Now() override { return m_start + m_elapsed; }
    void SleepMs(int64_t ms) override { Advance(ms); }

    void Advance(int64_t ms) { m_elapsed += boost::posix_time::milliseconds(ms); }
    int64_t ElapsedMs() const { return ToMilliseconds(m_elapsed); }

  private:
    const boost::posix_time::ptime m_start{boost::gregorian::date(2020, 1, 1)};
    boost::posix_time::time_duration m_elapsed;
};

}  // namespace opal::test
