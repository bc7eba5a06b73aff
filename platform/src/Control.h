#pragma once

#include <atomic>
#include <cstdint>
#include <map>
#include <set>
#include <string>
#include <vector>

#include "Common/Mutex.h"
#include "TvSet.h"

namespace tvset {

/// The faults that a test has ordered, and the journal.
///
/// Threading: any thread; a leaf, it calls nothing. Lives as long as the process.
class Control {
  public:
    static Control& Get();

    void Reset();
    void RefusePayloads(size_t count, bool videoOnly);
    void Fail(control::Operation operation, size_t count);
    void HoldEvent(uint32_t event, bool hold);
    void DropEvent(uint32_t event, bool drop);
    void SetInitBeforeHandle(bool on) { m_initBeforeHandle = on; }
    void SetFrozen(bool on) { m_frozen = on; }

    /// True if this call is to fail; uses up one of the failures ordered.
    bool TakeFailure(control::Operation operation);
    bool TakeRefusal(bool video);
    bool IsHeld(uint32_t event) const;
    bool IsDropped(uint32_t event) const;
    bool InitBeforeHandle() const { return m_initBeforeHandle; }
    bool Frozen() const { return m_frozen; }

    void Record(bool on) { m_recording = on; }
    bool Recording() const { return m_recording; }
    /// Appends an entry with thread and time filled in, the time `laterMs` from now; its index for
    /// `SetResult`, or SIZE_MAX when nothing is recorded.
    size_t Append(control::JournalEntry entry, int64_t laterMs = 0);
    void SetResult(size_t index, int result);
    std::vector<control::JournalEntry> Journal() const;
    /// The clock of the entries; null: none.
    void SetClock(std::shared_ptr<Clock> clock);

  private:
    mutable opal::Mutex m_mutex;
    size_t m_refuse OPAL_GUARDED_BY(m_mutex) = 0;
    size_t m_refuseVideo OPAL_GUARDED_BY(m_mutex) = 0;
    std::map<control::Operation, size_t> m_failures OPAL_GUARDED_BY(m_mutex);
    std::set<uint32_t> m_held OPAL_GUARDED_BY(m_mutex);
    std::set<uint32_t> m_dropped OPAL_GUARDED_BY(m_mutex);
    std::atomic<bool> m_initBeforeHandle{false};
    std::atomic<bool> m_frozen{false};
    std::atomic<bool> m_recording{false};
    std::vector<control::JournalEntry> m_journal OPAL_GUARDED_BY(m_mutex);
    std::shared_ptr<Clock> m_clock OPAL_GUARDED_BY(m_mutex);
};

/// CRC of IEEE 802.3.
uint32_t Crc32(const void* data, size_t size);

/// The kernel's number of the calling thread.
uint64_t ThreadNumber();

}  // namespace tvset
