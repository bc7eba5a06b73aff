#include "support/FakePlatform.h"

#include <algorithm>
#include <chrono>

namespace opal::test {
namespace {

constexpr std::chrono::seconds kPatience(10);

}  // namespace

void CallJournal::Add(const std::string& line) {
    std::lock_guard<std::mutex> lock(m_mutex);
    m_lines.push_back(line);
}

std::vector<std::string> CallJournal::Lines() const {
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_lines;
}

void CallJournal::Clear() {
    std::lock_guard<std::mutex> lock(m_mutex);
    m_lines.clear();
}

void FakePlatform::FailNext(Op op, OPALError code, int count) {
    Lock lock(m_mutex);
    m_scripts[op] = Script{code, count};
}

bool FakePlatform::WaitForBlocks(size_t count) const {
    Lock lock(m_mutex);
    return m_changed.wait_for(lock, kPatience, [&] { return BlockCount() >= count; });
}

bool FakePlatform::WaitForCalls(Op op, size_t count) const {
    Lock lock(m_mutex);
    return m_changed.wait_for(lock, kPatience, [&] { return Calls(op) >= count; });
}

OPALError FakePlatform::Enter(Op op, const std::string& note) {
    Lock lock(m_mutex);
    ++m_calls[op];
    m_changed.notify_all();
    if (m_journal && !note.empty())
        m_journal->Add(m_name + " " + note);
    Script& script = m_scripts[op];
    if (script.count == 0)
        return OPAL_OK;
    if (script.count > 0)
        --script.count;
    return script.code;
}

OPALError FakePlatform::Queue(void* data, size_t size, int64_t msTimeStamp, int64_t msDuration) {
    const auto* bytes = static_cast<const uint8_t*>(data);
    const Block block = {std::vector<uint8_t>(bytes, bytes + size), msTimeStamp, msDuration};
    if (const auto hook = Get(m_queueHook))
        hook(block);
    Lock lock(m_mutex);
    const OPALError scripted = Enter(Op::Queue);
    if (scripted != OPAL_OK)
        return scripted;
    if (m_acceptBlocks == 0)
        return OPAL_ERROR_NOT_YET;
    if (m_acceptBlocks > 0)
        --m_acceptBlocks;
    m_queuedUntil = std::max(m_queuedUntil, msTimeStamp + msDuration);
    m_blocks.push_back(block);
    return OPAL_OK;
}

OPALError FakePlatform::Flush() {
    Set<int64_t>(m_queuedUntil, 0);
    return Enter(Op::Flush, "Flush");
}

OPALError FakePlatform::SetPaused(bool paused) {
    Lock lock(m_mutex);
    const OPALError error = Enter(Op::SetPaused, paused ? "SetPaused true" : "SetPaused false");
    if (error == OPAL_OK)
        m_paused = paused;
    return error;
}

OPALError FakePlatform::GetBlockTrailerSize(size_t& size) {
    size = Get(m_trailerSize);
    return Enter(Op::GetBlockTrailerSize);
}

OPALError FakePlatform::GetTime(uint32_t& ms) {
    ms = static_cast<uint32_t>(Get(m_position));
    return Enter(Op::GetTime);
}

OPALError FakePlatform::GetPosition(int64_t& ms) {
    ms = Get(m_position);
    return Enter(Op::GetPosition);
}

OPALError FakePlatform::GetBufferedDuration(int64_t& ms) {
    Lock lock(m_mutex);
    ms = m_bufferedDuration >= 0 ? m_bufferedDuration
                                 : std::max<int64_t>(0, m_queuedUntil - m_position);
    return Enter(Op::GetBufferedDuration);
}

OPALError FakePlatform::SetRate(OPALPlayRate rate) {
    Set(m_rate, rate);
    return Enter(Op::SetRate, std::string("SetRate ") + GetRateName(rate));
}

OPALError FakePlatform::SetClusterTime(int64_t ms) {
    Set(m_clusterTime, ms);
    return Enter(Op::SetClusterTime);
}

}  // namespace opal::test
