#include "support/FakePlatform.h"

#include <algorithm>
#include <utility>

namespace opal::test {
namespace {

using Lock = std::unique_lock<std::mutex>;

}  // namespace

void CallJournal::Add(const std::string& line) {
    Lock lock(m_mutex);
    m_lines.push_back(line);
}

std::vector<std::string> CallJournal::Lines() const {
    Lock lock(m_mutex);
    return m_lines;
}

void CallJournal::Clear() {
    Lock lock(m_mutex);
    m_lines.clear();
}

FakePlatform::FakePlatform(std::string name, CallJournal* journal)
    : m_name(std::move(name)), m_journal(journal) {}

FakePlatform::~FakePlatform() = default;

void FakePlatform::FailNext(Op op, OPALError code, int count) {
    Lock lock(m_mutex);
    m_scripts[op] = Script{code, count};
}

void FakePlatform::AcceptBlocks(int count) {
    Lock lock(m_mutex);
    m_acceptBlocks = count;
}

void FakePlatform::SetQueueHook(std::function<void(const Block&)> hook) {
    Lock lock(m_mutex);
    m_queueHook = std::move(hook);
}

void FakePlatform::SetPositionMs(int64_t ms) {
    Lock lock(m_mutex);
    m_position = ms;
}

void FakePlatform::SetBufferedDurationMs(int64_t ms) {
    Lock lock(m_mutex);
    m_bufferedDuration = ms;
}

void FakePlatform::UseComputedBufferedDuration() {
    SetBufferedDurationMs(-1);
}

void FakePlatform::SetTrailerSize(size_t size) {
    Lock lock(m_mutex);
    m_trailerSize = size;
}

std::vector<FakePlatform::Block> FakePlatform::Blocks() const {
    Lock lock(m_mutex);
    return m_blocks;
}

size_t FakePlatform::BlockCount() const {
    Lock lock(m_mutex);
    return m_blocks.size();
}

size_t FakePlatform::Calls(Op op) const {
    Lock lock(m_mutex);
    const auto found = m_calls.find(op);
    return found == m_calls.end() ? 0 : found->second;
}

bool FakePlatform::IsPaused() const {
    Lock lock(m_mutex);
    return m_paused;
}

OPALPlayRate FakePlatform::Rate() const {
    Lock lock(m_mutex);
    return m_rate;
}

int64_t FakePlatform::ClusterTimeMs() const {
    Lock lock(m_mutex);
    return m_clusterTime;
}

bool FakePlatform::WaitForBlocks(size_t count, std::chrono::milliseconds timeout) const {
    Lock lock(m_mutex);
    return m_changed.wait_for(lock, timeout, [&] { return m_blocks.size() >= count; });
}

bool FakePlatform::WaitForCalls(Op op, size_t count, std::chrono::milliseconds timeout) const {
    Lock lock(m_mutex);
    return m_changed.wait_for(lock, timeout, [&] {
        const auto found = m_calls.find(op);
        return (found == m_calls.end() ? 0 : found->second) >= count;
    });
}

OPALError FakePlatform::Enter(Op op, const std::string& note) {
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

OPALError FakePlatform::Configure(const std::string& codecId) {
    Lock lock(m_mutex);
    return Enter(Op::Configure, "Configure " + codecId);
}

OPALError FakePlatform::Initialize() {
    Lock lock(m_mutex);
    return Enter(Op::Initialize, "Initialize");
}

OPALError FakePlatform::Finalize() {
    Lock lock(m_mutex);
    return Enter(Op::Finalize, "Finalize");
}

OPALError FakePlatform::Start() {
    Lock lock(m_mutex);
    return Enter(Op::Start, "Start");
}

OPALError FakePlatform::Queue(void* data, size_t size, int64_t msTimeStamp, int64_t msDuration) {
    const auto* bytes = static_cast<const uint8_t*>(data);
    Block block;
    if (size != 0)
        block.data.assign(bytes, bytes + size);
    block.time = msTimeStamp;
    block.duration = msDuration;

    Lock lock(m_mutex);
    if (m_queueHook) {
        const auto hook = m_queueHook;
        lock.unlock();
        hook(block);
        lock.lock();
    }
    const OPALError scripted = Enter(Op::Queue, {});
    if (scripted != OPAL_OK)
        return scripted;
    if (m_acceptBlocks == 0)
        return OPAL_ERROR_NOT_YET;
    if (m_acceptBlocks > 0)
        --m_acceptBlocks;
    m_queuedUntil = std::max(m_queuedUntil, msTimeStamp + msDuration);
    m_blocks.push_back(std::move(block));
    return OPAL_OK;
}

OPALError FakePlatform::Flush() {
    Lock lock(m_mutex);
    m_queuedUntil = 0;
    return Enter(Op::Flush, "Flush");
}

OPALError FakePlatform::Stop() {
    Lock lock(m_mutex);
    return Enter(Op::Stop, "Stop");
}

OPALError FakePlatform::SetPaused(bool paused) {
    Lock lock(m_mutex);
    const OPALError error = Enter(Op::SetPaused, paused ? "SetPaused true" : "SetPaused false");
    if (error == OPAL_OK)
        m_paused = paused;
    return error;
}

OPALError FakePlatform::GetBlockTrailerSize(size_t& size) {
    Lock lock(m_mutex);
    size = m_trailerSize;
    return Enter(Op::GetBlockTrailerSize, {});
}

OPALError FakePlatform::GetTime(uint32_t& ms) {
    Lock lock(m_mutex);
    ms = static_cast<uint32_t>(m_position);
    return Enter(Op::GetTime, {});
}

OPALError FakePlatform::GetPosition(int64_t& ms) {
    Lock lock(m_mutex);
    ms = m_position;
    return Enter(Op::GetPosition, {});
}

OPALError FakePlatform::GetBufferedDuration(int64_t& ms) {
    Lock lock(m_mutex);
    ms = m_bufferedDuration >= 0 ? m_bufferedDuration
                                 : std::max<int64_t>(0, m_queuedUntil - m_position);
    return Enter(Op::GetBufferedDuration, {});
}

OPALError FakePlatform::SetRate(OPALPlayRate rate) {
    Lock lock(m_mutex);
    m_rate = rate;
    return Enter(Op::SetRate, std::string("SetRate ") + GetRateName(rate));
}

OPALError FakePlatform::SetClusterTime(int64_t ms) {
    Lock lock(m_mutex);
    m_clusterTime = ms;
    return Enter(Op::SetClusterTime, {});
}

OPALError FakePlatform::Refresh() {
    Lock lock(m_mutex);
    return Enter(Op::Refresh, {});
}

}  // namespace opal::test
