#pragma once

#include <boost/noncopyable.hpp>
#include <cstdint>
#include <string>

#include "Common/OPALError.h"
#include "Common/StopSignal.h"

class IHTTPFile;

/// Told what the probe has measured.
class BandwidthProbeNotify {
  public:
    virtual ~BandwidthProbeNotify() = default;
    /// `kind` is always 1. Bytes and milliseconds, neither below 0; a duration of 0 is usual on a
    /// fast link.
    virtual void OnProbe(int kind, int64_t size, int64_t duration) = 0;
};

/// Measures the link once, by reading ever larger ranges of a file until one read takes long enough
/// to mean something. When all attempts stay quick, the size handed on has grown once more since
/// the duration was measured: deliberate, a fast link is estimated high.
///
/// Threading: Probe blocks its caller; the stop signal ends it with -28 within about a second.
/// Ownership: the notify object and the signal are not owned.
/// Units: bytes, milliseconds.
/// Errors: those of IHTTPFile; of the attempts the last one's.
class BandwidthProbe : boost::noncopyable {
  public:
    /// `initialSize` is that of the first read, and above 0; a read has to take longer than
    /// `minimumDuration` to count.
    BandwidthProbe(BandwidthProbeNotify* probeNotify, int64_t initialSize, int64_t minimumDuration,
                   const opal::StopSignal* stop = nullptr);
    virtual ~BandwidthProbe();

    virtual OPALError Probe(const std::string& location);

  private:
    OPALError Measure(IHTTPFile& file, int64_t& probeSize, int64_t& probeDuration) const;
    int64_t NextSize(int64_t readSize, int64_t elapsed) const;

    BandwidthProbeNotify* notify;
    int64_t size;
    int64_t duration;
    const opal::StopSignal* const m_pStop;
};
