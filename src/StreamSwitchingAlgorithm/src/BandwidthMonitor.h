#pragma once

#include <log4cxx/logger.h>

#include <boost/numeric/interval.hpp>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <vector>

/// One finished download.
struct BandwidthSample {
    using Interval = boost::numeric::interval<int64_t>;

    /// Bytes; ms since the end of initialisation. A negative `duration` throws the interval's own
    /// exception.
    BandwidthSample(size_t bytes, int64_t start, int64_t duration)
        : size(bytes), interval(start, start + duration) {}

    size_t size;
    Interval interval;  ///< download start to download end
};

/// Turns the history of finished downloads into one number: the effective bandwidth over a recent
/// window of time, with the idle gaps between downloads taken out. Downloads of all streams count,
/// so the estimate is of the whole link.
///
/// Threading: none; the switching controller's lock covers it.
/// Units: bytes, milliseconds, bits per second.
class BandwidthMonitor {
  public:
    BandwidthMonitor();
    virtual ~BandwidthMonitor() = default;

    /// A download of no measurable duration counts for nothing.
    void AddSample(const BandwidthSample& sample);
    /// 0 means that there is no estimate: too little transfer in the window to go by.
    int GetBandwidth(int64_t currentTime);

  private:
    struct Window;

    Window MeasureWindow(int64_t now) const;
    std::vector<BandwidthSample::Interval> DownloadsSince(size_t firstIndex) const;
    int64_t IdleTime(size_t firstIndex) const;

    std::deque<BandwidthSample> m_samples;  ///< oldest first
    log4cxx::LoggerPtr m_logger;
};
