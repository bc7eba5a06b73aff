#include "Common/network/BandwidthProbe.h"

#include <algorithm>
#include <boost/scoped_ptr.hpp>
#include <limits>

#include "Common/Assert.h"
#include "Common/Clock.h"
#include "Common/ObjectFactory.h"
#include "Common/StreamingTuning.h"
#include "Common/logging/Logger.h"
#include "StreamingReader/HTTPFile/IHTTPFile.h"

namespace {

constexpr int kProbeKind = 1;
// A next read is sized to last this much longer than the minimum, ...
constexpr double kMargin = 1.6;
// ... taking this much of the last one for the connection's start and not for data.
constexpr int64_t kOverheadMs = 100;

log4cxx::LoggerPtr ProbeLogger() {
    return getLogger("opal.bandwidthprobe");
}

/// Moves the offset by the size of the read to come, so that reads leave gaps; back to the start
/// when that read would pass the end, and no larger than the file.
void Advance(int64_t contentLength, int64_t& offset, int64_t& readSize) {
    const bool fits = readSize <= contentLength && offset <= contentLength - readSize &&
                      offset + readSize <= contentLength - readSize;
    if (fits) {
        offset += readSize;
        return;
    }
    offset = 0;
    if (readSize > contentLength) {
        readSize = contentLength;
        LOG4CXX_INFO(ProbeLogger(), "c:" << contentLength << "p:" << readSize);
    }
}

}  // namespace

BandwidthProbe::BandwidthProbe(BandwidthProbeNotify* probeNotify, int64_t initialSize,
                               int64_t minimumDuration, const opal::StopSignal* stop)
    : notify(probeNotify), size(initialSize), duration(minimumDuration), m_pStop(stop) {
    OPAL_ASSERT(initialSize > 0, "initSize > 0");
}

BandwidthProbe::~BandwidthProbe() = default;

OPALError BandwidthProbe::Probe(const std::string& location) {
    OPAL_ASSERT(!location.empty(), "!uri.empty()");
    const log4cxx::LoggerPtr logger = ProbeLogger();
    (void)getLogger("opal.bandwidthprobe.unit");  // there to be configured; nothing writes to it
    boost::scoped_ptr<IHTTPFile> file(ObjectFactory::Instance().NewHTTPFile(false));
    if (!file) {
        LOG4CXX_ERROR(logger, "Could not probe: " << location);
        return OPAL_ERROR_GENERAL;
    }
    file->SetStopSignal(m_pStop);
    file->SetLabel({opal::RequestPurpose::Probe, OPAL_STREAM_VIDEO});
    OPALError result = file->Open(location);
    if (result != OPAL_OK) {
        LOG4CXX_ERROR(logger, "Could not probe: " << location);
        return result;
    }
    int64_t probeSize = size;
    int64_t probeDuration = 0;
    result = Measure(*file, probeSize, probeDuration);
    if (result == OPAL_OK) {
        LOG4CXX_TRACE(logger, "Signalling StreamSwitchingAlgorithm: ProbeSize = "
                                  << probeSize << "ProbeDuration = " << probeDuration);
        if (notify)
            notify->OnProbe(kProbeKind, std::max<int64_t>(probeSize, 0),
                            std::max<int64_t>(probeDuration, 0));
    }
    return result;
}

OPALError BandwidthProbe::Measure(IHTTPFile& file, int64_t& probeSize,
                                  int64_t& probeDuration) const {
    const log4cxx::LoggerPtr logger = ProbeLogger();
    int64_t contentLength = 0;
    OPALError result = file.GetSize(contentLength);
    if (result != OPAL_OK || contentLength == 0)
        contentLength = size;  // so that the probe runs on a server that does not tell
    LOG4CXX_TRACE(logger, "Content length: " << contentLength);

    int64_t offset = 0;
    for (uint32_t n = 0; n < StreamingTuning::Instance().GetProbeAttempts(); ++n) {
        const boost::posix_time::ptime start = opal::Now();
        result = file.RequestRange(offset, probeSize, nullptr);
        if (result != OPAL_OK) {
            LOG4CXX_ERROR(logger, "Could not request byte range: " << offset << " - "
                                                                   << offset + (probeSize - 1));
            continue;
        }
        probeDuration = opal::ToMilliseconds(opal::Now() - start);
        HTTPRequest request;  // whose data goes away with it
        result = file.GetCompletedRequest(request, false);
        if (probeDuration > duration) {
            LOG4CXX_TRACE(logger, "Found probe duration: " << probeDuration);
            break;
        }
        probeSize = NextSize(probeSize, probeDuration);
        Advance(contentLength, offset, probeSize);
    }
    return result;
}

int64_t BandwidthProbe::NextSize(int64_t readSize, int64_t elapsed) const {
    const double most = StreamingTuning::Instance().GetProbeFactor();
    double factor = most;
    if (elapsed > kOverheadMs)
        factor = std::min(most, static_cast<double>(duration) * kMargin /
                                    static_cast<double>(elapsed - kOverheadMs));
    const double next = static_cast<double>(readSize) * factor;
    return next < 0x1p63 ? static_cast<int64_t>(next) : std::numeric_limits<int64_t>::max();
}
