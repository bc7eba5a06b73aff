#pragma once

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <functional>
#include <map>
#include <mutex>
#include <string>
#include <vector>

#include "opal-origin/Origin.h"
#include "opal-origin/src/Link.h"

namespace opal::origin {

/// What the server's thread and the threads that control it share: rules, link, log, counts.
///
/// Threading: any thread; one mutex, never held across a call out of here.
class State {
  public:
    using Time = Link::Time;
    explicit State(size_t maxLogRecords) : m_maxLogRecords(maxLogRecords) {}

    static Time Now();

    // Requests, in the order of their life. A number is the record's.
    void SetEpoch();  ///< the log's time 0, the first time it is called
    uint64_t Arrived(RequestRecord record, Fault* pFault, uint64_t* pFaultId, int64_t* pLatencyMs);
    void Started(uint64_t number, int status);
    void Sent(uint64_t number, int64_t bodyBytes);
    void Finished(uint64_t number, bool complete);
    /// False if the rule is gone meanwhile: the request goes on.
    [[nodiscard]] bool Stalled(uint64_t faultId);
    void Unstalled(uint64_t faultId);

    // Rules.
    uint64_t AddFault(const Fault& fault);
    void RemoveFault(uint64_t faultId);  ///< 0: all

    // Link.
    void SetScript(const RateScript& script);
    void SetLatency(int64_t milliseconds);
    Time ScriptTime() const;
    int64_t Quantum() const;
    void Ask(uint64_t connection, int64_t bytes, bool continuing);
    void Drop(uint64_t connection);
    bool Take(uint64_t* pConnection);
    Time Due() const;

    // Log.
    bool WaitForRequest(const std::string& pattern, size_t n, int64_t timeoutMs);
    bool WaitForFinished(const std::string& pattern, size_t n, int64_t timeoutMs);
    bool WaitForHeld(uint64_t faultId, size_t n, int64_t timeoutMs);
    std::vector<RequestRecord> Log(const std::string& pattern) const;
    void ClearLog();
    void SetObserver(std::function<void(const RequestRecord&)> observer);

    std::atomic<size_t> connectionsAccepted{0};
    std::atomic<size_t> connectionsOpen{0};

  private:
    struct Rule {
        Fault fault;
        int64_t passed = 0;
        int64_t struck = 0;
    };
    struct Entry {
        RequestRecord record;
        Time arrival;
    };
    static bool Matches(const Fault& fault, const RequestRecord& record);
    uint64_t Strike(const RequestRecord& record, Fault* pFault);
    size_t Count(const std::string& pattern, bool finishedOnly) const;
    template <typename Condition>
    bool Wait(int64_t timeoutMs, Condition condition);

    const size_t m_maxLogRecords;
    mutable std::mutex m_mutex;
    std::condition_variable m_changed;
    // Guarded by m_mutex.
    std::map<uint64_t, Rule> m_rules;  // ids rise, so this is the order of adding
    uint64_t m_lastRule = 0;
    std::map<uint64_t, size_t> m_stalled;  // rule: requests that it holds now
    Link m_link;
    int64_t m_latencyMs = 0;
    bool m_hasEpoch = false;
    Time m_epoch{0};
    uint64_t m_lastRequest = 0;
    std::map<uint64_t, Entry> m_log;
    std::function<void(const RequestRecord&)> m_observer;
};

}  // namespace opal::origin
