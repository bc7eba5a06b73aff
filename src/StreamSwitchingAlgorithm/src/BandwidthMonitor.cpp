#include "StreamSwitchingAlgorithm/src/BandwidthMonitor.h"

#include <algorithm>
#include <limits>

#include "Common/logging/Logger.h"
#include "StreamSwitchingAlgorithm/AlgorithmConfig.h"

namespace {

constexpr uint64_t kBitsPerByteMsPerSecond = 8000;
/// Reports of two threads may change places; by more than this it was the clock that was set back.
constexpr int64_t kMaxDisorderMs = 1000;

int Rate(int64_t bytes, int64_t ms) {
    if (ms <= 0)
        return 0;
    const uint64_t rate =
        static_cast<uint64_t>(bytes) * kBitsPerByteMsPerSecond / static_cast<uint64_t>(ms);
    return static_cast<int>(std::min(rate, static_cast<uint64_t>(std::numeric_limits<int>::max())));
}

}  // namespace

/// What lies in the window: bytes, the time they span, and where the samples in it begin.
struct BandwidthMonitor::Window {
    int64_t bytes = 0;
    int64_t span = 0;
    size_t firstIndex = 0;
};

BandwidthMonitor::BandwidthMonitor() : m_logger(getLogger("opal.BandwidthMonitor")) {}

void BandwidthMonitor::AddSample(const BandwidthSample& sample) {
    if (sample.interval.lower() >= sample.interval.upper())
        return;
    LOG4CXX_DEBUG(m_logger, "AddSample: size=" << sample.size
                                               << ", interval.lower=" << sample.interval.lower()
                                               << ", interval.upper=" << sample.interval.upper());
    if (!m_samples.empty() &&
        sample.interval.upper() < m_samples.back().interval.upper() - kMaxDisorderMs)
        m_samples.clear();  // times of before and after have no common measure
    m_samples.push_back(sample);
    // One a call, so that a count lowered later drains one sample at a time.
    const int64_t limit = AlgorithmConfig::Instance().GetBandwidthMonitorSampleCount();
    if (static_cast<int64_t>(m_samples.size()) > limit)
        m_samples.pop_front();
}

int BandwidthMonitor::GetBandwidth(int64_t currentTime) {
    Window window;
    int effective = 0;
    if (currentTime != 0 && !m_samples.empty()) {
        window = MeasureWindow(currentTime);
        const int64_t active = window.span - IdleTime(window.firstIndex);
        if (active >= AlgorithmConfig::Instance().GetBandwidthMonitorMinWindowInterval())
            effective = Rate(window.bytes, active);
    }
    LOG4CXX_DEBUG(m_logger, "GetBandwidth: current.time=" << currentTime << " bandwidth="
                                                          << Rate(window.bytes, window.span)
                                                          << " bandwidth.effective=" << effective);
    return effective;
}

/// A sample wholly in the window counts whole; one that the window's start cuts counts by the share
/// of its time that lies inside.
BandwidthMonitor::Window BandwidthMonitor::MeasureWindow(int64_t now) const {
    const int64_t length = AlgorithmConfig::Instance().GetBandwidthMonitorWindowInterval();
    // A settings file may give any length at all: it wraps, where signed arithmetic must not.
    const auto windowStart =
        static_cast<int64_t>(static_cast<uint64_t>(now) - static_cast<uint64_t>(length));
    Window window;
    window.firstIndex = m_samples.size() - 1;
    for (size_t i = m_samples.size(); i-- > 0;) {
        const int64_t lower = m_samples[i].interval.lower();
        const int64_t upper = m_samples[i].interval.upper();
        const auto size = static_cast<int64_t>(m_samples[i].size);
        if (lower > windowStart) {
            window.bytes += size;
            window.span = std::max({window.span, now - lower, upper - lower});
            window.firstIndex = i;
        } else if (upper > windowStart) {
            const double fraction =
                static_cast<double>(upper - windowStart) / static_cast<double>(upper - lower);
            window.bytes += static_cast<int64_t>(static_cast<double>(size) * fraction);
            window.span = std::max(window.span, length);
            window.firstIndex = i;
        }
    }
    return window;
}

/// In the order of their ends, which is how they came; or of their starts, if the settings say so.
std::vector<BandwidthSample::Interval> BandwidthMonitor::DownloadsSince(size_t firstIndex) const {
    std::vector<BandwidthSample::Interval> downloads;
    for (size_t i = firstIndex; i < m_samples.size(); ++i)
        downloads.push_back(m_samples[i].interval);
    if (AlgorithmConfig::Instance().GetBandwidthMonitorGapOrder() == 1)
        std::stable_sort(
            downloads.begin(), downloads.end(),
            [](const auto& left, const auto& right) { return left.lower() < right.lower(); });
    return downloads;
}

/// The time between downloads, from `firstIndex` on. Downloads that overlap or touch are one.
///
/// Audio downloads that end within a long video download come before it. In the order of ends the
/// pauses between those audio downloads count as idle, though the video was loading.
int64_t BandwidthMonitor::IdleTime(size_t firstIndex) const {
    const std::vector<BandwidthSample::Interval> downloads = DownloadsSince(firstIndex);
    int64_t gaps = 0;
    BandwidthSample::Interval busy = downloads.front();
    for (size_t i = 1; i < downloads.size(); ++i) {
        const BandwidthSample::Interval& next = downloads[i];
        if (boost::numeric::overlap(busy, next)) {
            busy = boost::numeric::hull(busy, next);
        } else {
            gaps += next.lower() - busy.upper();
            busy = next;
        }
    }
    return gaps;
}
