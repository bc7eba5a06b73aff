#include "Control.h"

#include <sys/syscall.h>
#include <unistd.h>

#include <array>

namespace tvset {
namespace {

constexpr size_t kJournalLimit = 1000000;

bool TakeOne(size_t& count) {
    if (count == 0)
        return false;
    if (count != SIZE_MAX)
        --count;
    return true;
}

std::array<uint32_t, 256> MakeCrcTable() {
    std::array<uint32_t, 256> table{};
    for (uint32_t i = 0; i < 256; ++i) {
        uint32_t value = i;
        for (int bit = 0; bit < 8; ++bit)
            value = (value & 1) != 0 ? (value >> 1) ^ 0xEDB88320u : value >> 1;
        table[i] = value;
    }
    return table;
}

}  // namespace

uint32_t Crc32(const void* data, size_t size) {
    static const std::array<uint32_t, 256> table = MakeCrcTable();
    const auto* bytes = static_cast<const uint8_t*>(data);
    uint32_t crc = 0xFFFFFFFFu;
    for (size_t i = 0; i < size; ++i)
        crc = table[(crc ^ bytes[i]) & 0xFF] ^ (crc >> 8);
    return ~crc;
}

uint64_t ThreadNumber() {
    return static_cast<uint64_t>(syscall(SYS_gettid));
}

Control& Control::Get() {
    static Control control;
    return control;
}

void Control::Reset() {
    const opal::MutexLock lock(m_mutex);
    m_refuse = 0;
    m_refuseVideo = 0;
    m_failures.clear();
    m_held.clear();
    m_dropped.clear();
    m_initBeforeHandle = false;
    m_frozen = false;
    m_recording = false;
    m_journal.clear();
}

void Control::RefusePayloads(size_t count, bool videoOnly) {
    const opal::MutexLock lock(m_mutex);
    (videoOnly ? m_refuseVideo : m_refuse) = count;
}

void Control::Fail(control::Operation operation, size_t count) {
    const opal::MutexLock lock(m_mutex);
    m_failures[operation] = count;
}

void Control::HoldEvent(uint32_t event, bool hold) {
    const opal::MutexLock lock(m_mutex);
    if (hold)
        m_held.insert(event);
    else
        m_held.erase(event);
}

void Control::DropEvent(uint32_t event, bool drop) {
    const opal::MutexLock lock(m_mutex);
    if (drop)
        m_dropped.insert(event);
    else
        m_dropped.erase(event);
}

bool Control::TakeFailure(control::Operation operation) {
    const opal::MutexLock lock(m_mutex);
    const auto found = m_failures.find(operation);
    return found != m_failures.end() && TakeOne(found->second);
}

bool Control::TakeRefusal(bool video) {
    const opal::MutexLock lock(m_mutex);
    return TakeOne(m_refuse) || (video && TakeOne(m_refuseVideo));
}

bool Control::IsHeld(uint32_t event) const {
    const opal::MutexLock lock(m_mutex);
    return m_held.count(event) != 0;
}

bool Control::IsDropped(uint32_t event) const {
    const opal::MutexLock lock(m_mutex);
    return m_dropped.count(event) != 0;
}

size_t Control::Append(control::JournalEntry entry, int64_t laterMs) {
    if (!m_recording)
        return SIZE_MAX;
    entry.thread = ThreadNumber();
    const opal::MutexLock lock(m_mutex);
    if (m_journal.size() >= kJournalLimit)
        return SIZE_MAX;
    entry.timeMs = m_clock ? m_clock->NowMs() + laterMs : 0;
    m_journal.push_back(std::move(entry));
    return m_journal.size() - 1;
}

void Control::SetResult(size_t index, int result) {
    const opal::MutexLock lock(m_mutex);
    if (index < m_journal.size())
        m_journal[index].result = result;
}

std::vector<control::JournalEntry> Control::Journal() const {
    const opal::MutexLock lock(m_mutex);
    return m_journal;
}

void Control::SetClock(std::shared_ptr<Clock> clock) {
    const opal::MutexLock lock(m_mutex);
    m_clock = std::move(clock);
}

}  // namespace tvset
