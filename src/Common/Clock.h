#pragma once

#include <boost/date_time/posix_time/posix_time_types.hpp>
#include <cstdint>

namespace opal {

/// Where the library gets its time from and how it sleeps: one seam for all of it, so that tests
/// and the simulator can run sessions faster than real time or step by step.
///
/// Threading: both operations are called from any thread.
class Clock {
  public:
    virtual ~Clock() = default;
    /// UTC, microsecond resolution.
    virtual boost::posix_time::ptime Now() = 0;
    virtual void SleepMs(int64_t ms) = 0;
};

/// Replaces the process-wide clock; null restores the real one. The caller keeps ownership and must
/// outlive every use. To be set while no session runs.
void SetClock(Clock* clock);

/// Current UTC time, microsecond resolution.
boost::posix_time::ptime Now();

/// Lets the calling thread sleep; 0 or less returns at once.
void SleepMs(int64_t ms);

/// A difference of times in whole milliseconds, truncated toward zero; 0 for a special value (a
/// difference with "not a time" in it).
int64_t ToMilliseconds(const boost::posix_time::time_duration& duration);

/// Whether more than `ms` have passed since `time`. The wall clock may be set back meanwhile: a
/// time that has not come yet counts as long past, or nothing would happen until it comes again.
inline bool IsOver(const boost::posix_time::ptime& time, int64_t ms) {
    const int64_t since = ToMilliseconds(Now() - time);
    return since > ms || since < 0;
}

}  // namespace opal
