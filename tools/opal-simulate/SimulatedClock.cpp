#include "opal-simulate/SimulatedClock.h"

#include <boost/date_time/posix_time/posix_time.hpp>
#include <cmath>

namespace opal::simulate {
namespace {

thread_local double t_nowMs = 0.0;

}  // namespace

boost::posix_time::ptime SimulatedClock::Now() {
    static const boost::posix_time::ptime start(boost::gregorian::date(2020, 1, 1));
    return start + boost::posix_time::microseconds(std::llround(t_nowMs * 1000.0));
}

void SimulatedClock::SleepMs(int64_t ms) {
    t_nowMs += static_cast<double>(ms);
}

void SimulatedClock::SetNowMs(double ms) {
    t_nowMs = ms;
}

}  // namespace opal::simulate
