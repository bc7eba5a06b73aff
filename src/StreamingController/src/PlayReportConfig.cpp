#include "StreamingController/PlayReportConfig.h"

namespace {

using Lock = opal::MutexLock;

constexpr int64_t kDayMs = 86400000;
constexpr int64_t kDefaultMs = 300000;

}  // namespace

PlayReportConfig& PlayReportConfig::Instance() {
    static PlayReportConfig config;
    return config;
}

void PlayReportConfig::Set(int64_t intervalMs) {
    Lock lock(m_mutex);
    interval = intervalMs > kDayMs ? kDefaultMs : intervalMs;
    enabled = true;
}

bool PlayReportConfig::IsEnabled() const {
    Lock lock(m_mutex);
    return enabled;
}

int64_t PlayReportConfig::GetInterval() const {
    Lock lock(m_mutex);
    return interval;
}

void PlayReportConfig::Reset() {
    Lock lock(m_mutex);
    interval = 0;
    enabled = false;
}
