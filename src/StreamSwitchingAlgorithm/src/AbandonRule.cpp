#include "StreamSwitchingAlgorithm/AbandonRule.h"

#include <algorithm>

namespace opal::playback {
namespace {

constexpr int64_t kMeasuredMs = 1000;
/// What a cluster that is fetched in place of another may take of the buffer's time.
constexpr double kBufferShare = 0.5;

}  // namespace

void AbandonRule::Reset() {
    m_lastSecond.clear();
    m_cluster.reset();
    m_abandoned.reset();
}

std::optional<size_t> AbandonRule::Ask(const Transfer& transfer,
                                       const std::vector<int64_t>& clusterBytes) {
    if (!Observe(transfer) || m_abandoned == transfer.cluster || transfer.level == 0 ||
        transfer.level >= clusterBytes.size())
        return std::nullopt;
    const Point& begin = m_lastSecond.front();
    const double bytesPerMs = static_cast<double>(transfer.received - begin.received) /
                              static_cast<double>(transfer.nowMs - begin.ms);
    const int64_t rest = clusterBytes[transfer.level] - transfer.received;
    if (static_cast<double>(rest) <= bytesPerMs * static_cast<double>(transfer.bufferedMs))
        return std::nullopt;
    const double sinceItBegan = static_cast<double>(transfer.received - m_begin.received) /
                                static_cast<double>(transfer.nowMs - m_begin.ms);
    const auto level =
        ComesSooner(transfer, clusterBytes, rest, std::max(bytesPerMs, sinceItBegan));
    if (level)
        m_abandoned = transfer.cluster;
    return level;
}

/// Keeps the last second of the transfer. False while the transfer is younger.
bool AbandonRule::Observe(const Transfer& transfer) {
    const bool same = m_cluster == transfer.cluster && m_level == transfer.level &&
                      !m_lastSecond.empty() && m_lastSecond.back().ms <= transfer.nowMs &&
                      m_lastSecond.back().received <= transfer.received;
    if (!same) {
        m_cluster = transfer.cluster;
        m_level = transfer.level;
        m_begin = {transfer.nowMs, transfer.received};
        m_lastSecond.clear();
    }
    if (m_lastSecond.empty() || m_lastSecond.back().ms < transfer.nowMs)
        m_lastSecond.push_back({transfer.nowMs, transfer.received});
    // The oldest point is the newest one that is a second old.
    while (m_lastSecond.size() > 1 && transfer.nowMs - m_lastSecond[1].ms >= kMeasuredMs)
        m_lastSecond.pop_front();
    return transfer.nowMs - m_lastSecond.front().ms >= kMeasuredMs;
}

std::optional<size_t> AbandonRule::ComesSooner(const Transfer& transfer,
                                               const std::vector<int64_t>& clusterBytes,
                                               int64_t rest, double bytesPerMs) {
    for (size_t level = transfer.level; level-- > 0;) {
        const int64_t bytes = clusterBytes[level];
        const bool affordable =
            level == 0 || static_cast<double>(bytes) <=
                              kBufferShare * bytesPerMs * static_cast<double>(transfer.bufferedMs);
        if (bytes > 0 && bytes < rest && affordable)
            return level;
    }
    return std::nullopt;
}

}  // namespace opal::playback
