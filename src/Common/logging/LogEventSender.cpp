#include "Common/logging/LogEventSender.h"

namespace {

using Lock = opal::RecursiveLock;

constexpr int64_t kDayMs = 86400000;
constexpr int64_t kDefaultInterval = 300000;
constexpr size_t kMaxSize = 0x2000000;
constexpr size_t kDefaultSize = 0x20000;

}  // namespace

void LogEventSender::SetLocale(const std::string& country, const std::string& language) {
    Lock lock(m_mutex);
    m_country = country;
    m_language = language;
}

int64_t LogEventSender::GetTransactionInterval() {
    Lock lock(m_mutex);
    return m_interval > kDayMs ? kDefaultInterval : m_interval;
}

size_t LogEventSender::GetTransactionSize() {
    Lock lock(m_mutex);
    return m_size > kMaxSize ? kDefaultSize : m_size;
}

bool LogEventSender::IsLevel1Enabled() {
    Lock lock(m_mutex);
    return m_level1;
}

bool LogEventSender::IsLevel2Enabled() {
    Lock lock(m_mutex);
    return m_level2;
}

bool LogEventSender::IsLevel3Enabled() {
    Lock lock(m_mutex);
    return m_level3;
}
