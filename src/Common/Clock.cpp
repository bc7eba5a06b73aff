#include "Common/Clock.h"

#include <atomic>
#include <boost/date_time/posix_time/posix_time.hpp>
#include <chrono>
#include <thread>

namespace opal {
namespace {

class SystemClock : public Clock {
  public:
    boost::posix_time::ptime Now() override {
        return boost::posix_time::microsec_clock::universal_time();
    }
    void SleepMs(int64_t ms) override {
        if (ms > 0)
            std::this_thread::sleep_for(std::chrono::milliseconds(ms));
    }
};

SystemClock g_systemClock;
std::atomic<Clock*> g_clock{&g_systemClock};

}  // namespace

void SetClock(Clock* clock) {
    g_clock = clock ? clock : &g_systemClock;
}

boost::posix_time::ptime Now() {
    return g_clock.load()->Now();
}

void SleepMs(int64_t ms) {
    g_clock.load()->SleepMs(ms);
}

int64_t ToMilliseconds(const boost::posix_time::time_duration& duration) {
    if (duration.is_special())
        return 0;
    constexpr int64_t kMsPerSecond = 1000;
    const int64_t ticksPerSecond = boost::posix_time::time_duration::ticks_per_second();
    if (ticksPerSecond >= kMsPerSecond)
        return duration.ticks() / (ticksPerSecond / kMsPerSecond);
    return duration.ticks() * (kMsPerSecond / ticksPerSecond);
}

}  // namespace opal
