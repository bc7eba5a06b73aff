#include "opal-origin/src/State.h"

#include <algorithm>
#include <utility>

namespace opal::origin {
namespace {

int64_t Milliseconds(Link::Time time) {
    return std::chrono::duration_cast<std::chrono::milliseconds>(time).count();
}

// The suffix form "-9" covers no byte whose place is known without the file's size.
bool Covers(const ByteRange& range, int64_t offset) {
    return range.first >= 0 && range.first <= offset && (range.last < 0 || offset <= range.last);
}

}  // namespace

State::Time State::Now() {
    return std::chrono::duration_cast<Time>(std::chrono::steady_clock::now().time_since_epoch());
}

void State::SetEpoch() {
    std::lock_guard<std::mutex> lock(m_mutex);
    if (!m_hasEpoch) {
        m_hasEpoch = true;
        m_epoch = Now();
    }
}

uint64_t State::Arrived(RequestRecord record, Fault* pFault, uint64_t* pFaultId,
                        int64_t* pLatencyMs) {
    std::lock_guard<std::mutex> lock(m_mutex);
    const Time now = Now();
    record.number = ++m_lastRequest;
    record.timeMs = Milliseconds(now - m_epoch);
    record.faultId = Strike(record, pFault);
    *pFaultId = record.faultId;
    m_link.OnRequest(now);
    *pLatencyMs = m_latencyMs + m_link.LatencyMs(now);
    m_log.emplace(record.number, Entry{std::move(record), now});
    while (m_log.size() > m_maxLogRecords)
        m_log.erase(m_log.begin());
    m_changed.notify_all();
    return m_lastRequest;
}

void State::Started(uint64_t number, int status) {
    std::lock_guard<std::mutex> lock(m_mutex);
    const auto found = m_log.find(number);
    if (found != m_log.end())
        found->second.record.status = status;
}

void State::Sent(uint64_t number, int64_t bodyBytes) {
    std::lock_guard<std::mutex> lock(m_mutex);
    const auto found = m_log.find(number);
    if (found != m_log.end())
        found->second.record.bodyBytesSent = bodyBytes;
}

void State::Finished(uint64_t number, bool complete) {
    std::function<void(const RequestRecord&)> observer;
    RequestRecord record;
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        const auto found = m_log.find(number);
        if (found == m_log.end())
            return;
        Entry& entry = found->second;
        entry.record.finished = true;
        entry.record.complete = complete;
        entry.record.durationMs = Milliseconds(Now() - entry.arrival);
        record = entry.record;
        observer = m_observer;
        m_changed.notify_all();
    }
    if (observer)
        observer(record);
}

bool State::Stalled(uint64_t faultId) {
    std::lock_guard<std::mutex> lock(m_mutex);
    if (m_rules.count(faultId) == 0)
        return false;
    ++m_stalled[faultId];
    m_changed.notify_all();
    return true;
}

void State::Unstalled(uint64_t faultId) {
    std::lock_guard<std::mutex> lock(m_mutex);
    if (--m_stalled[faultId] == 0)
        m_stalled.erase(faultId);
}

uint64_t State::AddFault(const Fault& fault) {
    std::lock_guard<std::mutex> lock(m_mutex);
    m_rules[++m_lastRule].fault = fault;
    return m_lastRule;
}

void State::RemoveFault(uint64_t faultId) {
    std::lock_guard<std::mutex> lock(m_mutex);
    if (faultId == 0) {
        m_rules.clear();
    } else {
        m_rules.erase(faultId);
    }
}

bool State::Matches(const Fault& fault, const RequestRecord& record) {
    if ((fault.method == Method::Get && record.method != "GET") ||
        (fault.method == Method::Head && record.method != "HEAD")) {
        return false;
    }
    if (fault.rangeStart >= 0 &&
        (record.ranges.empty() || record.ranges[0].first != fault.rangeStart)) {
        return false;
    }
    if (fault.covers >= 0 &&
        std::none_of(record.ranges.begin(), record.ranges.end(),
                     [&fault](const ByteRange& range) { return Covers(range, fault.covers); })) {
        return false;
    }
    return MatchesPattern(fault.pattern, record.path);
}

uint64_t State::Strike(const RequestRecord& record, Fault* pFault) {
    for (auto& [id, rule] : m_rules) {
        if (!Matches(rule.fault, record))
            continue;
        if (rule.passed < rule.fault.skip) {
            ++rule.passed;
        } else if (rule.fault.count < 0 || rule.struck < rule.fault.count) {
            ++rule.struck;
            *pFault = rule.fault;
            return id;
        }
    }
    return 0;
}

void State::SetScript(const RateScript& script) {
    std::lock_guard<std::mutex> lock(m_mutex);
    m_link.SetScript(script, Now());
}

void State::SetLatency(int64_t milliseconds) {
    std::lock_guard<std::mutex> lock(m_mutex);
    m_latencyMs = std::max<int64_t>(milliseconds, 0);
}

State::Time State::ScriptTime() const {
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_link.ScriptTime(Now());
}

int64_t State::Quantum() const {
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_link.Quantum(Now());
}

void State::Ask(uint64_t connection, int64_t bytes, bool continuing) {
    std::lock_guard<std::mutex> lock(m_mutex);
    m_link.Ask(connection, bytes, continuing, Now());
}

void State::Drop(uint64_t connection) {
    std::lock_guard<std::mutex> lock(m_mutex);
    m_link.Drop(connection, Now());
}

bool State::Take(uint64_t* pConnection) {
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_link.Take(Now(), pConnection);
}

State::Time State::Due() const {
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_link.Due();
}

template <typename Condition>
bool State::Wait(int64_t timeoutMs, Condition condition) {
    std::unique_lock<std::mutex> lock(m_mutex);
    const auto end = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeoutMs);
    return m_changed.wait_until(lock, end, condition);
}

size_t State::Count(const std::string& pattern, bool finishedOnly) const {
    return static_cast<size_t>(
        std::count_if(m_log.begin(), m_log.end(), [&pattern, finishedOnly](const auto& item) {
            const RequestRecord& record = item.second.record;
            return (record.finished || !finishedOnly) && MatchesPattern(pattern, record.path);
        }));
}

bool State::WaitForRequest(const std::string& pattern, size_t n, int64_t timeoutMs) {
    return Wait(timeoutMs, [&] { return Count(pattern, false) >= n; });
}

bool State::WaitForFinished(const std::string& pattern, size_t n, int64_t timeoutMs) {
    return Wait(timeoutMs, [&] { return Count(pattern, true) >= n; });
}

bool State::WaitForHeld(uint64_t faultId, size_t n, int64_t timeoutMs) {
    return Wait(timeoutMs, [&] {
        const auto found = m_stalled.find(faultId);
        return (found == m_stalled.end() ? 0 : found->second) >= n;
    });
}

std::vector<RequestRecord> State::Log(const std::string& pattern) const {
    std::lock_guard<std::mutex> lock(m_mutex);
    const Time now = Now();
    std::vector<RequestRecord> records;
    for (const auto& [number, entry] : m_log) {
        if (MatchesPattern(pattern, entry.record.path)) {
            records.push_back(entry.record);
            if (!entry.record.finished)
                records.back().durationMs = Milliseconds(now - entry.arrival);
        }
    }
    return records;
}

void State::ClearLog() {
    std::lock_guard<std::mutex> lock(m_mutex);
    for (auto entry = m_log.begin(); entry != m_log.end();)
        entry = entry->second.record.finished ? m_log.erase(entry) : std::next(entry);
}

void State::SetObserver(std::function<void(const RequestRecord&)> observer) {
    std::lock_guard<std::mutex> lock(m_mutex);
    m_observer = std::move(observer);
}

}  // namespace opal::origin
