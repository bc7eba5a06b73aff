#pragma once

#include "Common/Clock.h"

namespace opal::simulate {

/// The library's clock in a simulation: each thread has a time of its own, so that sessions run
/// side by side, one a thread.
class SimulatedClock : public opal::Clock {
  public:
    boost::posix_time::ptime Now() override;
    void SleepMs(int64_t ms) override;

    /// Sets the calling thread's time, ms since its session began.
    static void SetNowMs(double ms);
};

}  // namespace opal::simulate
