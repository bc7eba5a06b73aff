#pragma once

#include <condition_variable>
#include <cstdint>
#include <functional>
#include <map>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include "PlatformAdapter/Common/IPlatform.h"

namespace opal::test {

/// What several fakes have been asked, in one order. Any thread.
class CallJournal {
  public:
    void Add(const std::string& line);
    std::vector<std::string> Lines() const;
    void Clear();

  private:
    mutable std::mutex m_mutex;
    std::vector<std::string> m_lines;
};

/// A sink without a decoder: it keeps what it is given, refuses what a test tells it to, and stands
/// at the position that the test sets.
///
/// Calls go into the journal as "<name> <Operation> <argument>", but for those that a writer or the
/// controller repeats all the time (Queue, Refresh and the getters).
///
/// Threading: any operation from any thread; a hook runs without the sink's lock.
class FakePlatform : public IPlatform {
  public:
    enum class Op {
        Initialize,
        Finalize,
        Start,
        Queue,
        Flush,
        Stop,
        SetPaused,
        GetBlockTrailerSize,
        GetTime,
        GetPosition,
        GetBufferedDuration,
        SetRate,
        SetClusterTime,
        Refresh,
        Configure
    };

    struct Block {
        std::vector<uint8_t> data;
        int64_t time = 0;
        int64_t duration = 0;
        bool operator==(const Block& other) const {
            return data == other.data && time == other.time && duration == other.duration;
        }
    };

    static constexpr int kAlways = -1;

    explicit FakePlatform(std::string name = "sink", CallJournal* journal = nullptr)
        : m_name(std::move(name)), m_journal(journal) {}

    /// The next `count` calls of `op`, kAlways for all of them, answer `code`; count 0 ends it.
    void FailNext(Op op, OPALError code, int count);
    /// Queue takes that many more blocks and then answers -7; kAlways takes any number.
    void AcceptBlocks(int count) { Set(m_acceptBlocks, count); }
    /// Runs at the beginning of every Queue; it may block.
    void SetQueueHook(const std::function<void(const Block&)>& hook) { Set(m_queueHook, hook); }
    void SetPositionMs(int64_t ms) { Set(m_position, ms); }
    /// Without one set, the buffered duration is what lies between the position and the end of the
    /// last block queued since the last flush.
    void SetBufferedDurationMs(int64_t ms) { Set(m_bufferedDuration, ms); }
    void UseComputedBufferedDuration() { Set<int64_t>(m_bufferedDuration, -1); }
    void SetTrailerSize(size_t size) { Set(m_trailerSize, size); }

    std::vector<Block> Blocks() const { return Get(m_blocks); }
    size_t BlockCount() const {
        Lock lock(m_mutex);
        return m_blocks.size();
    }
    /// Every attempt, the refused ones too.
    size_t QueueCalls() const { return Calls(Op::Queue); }
    size_t Calls(Op op) const { return Get(m_calls)[op]; }
    /// The last argument of SetPaused; true before the first.
    bool IsPaused() const { return Get(m_paused); }
    OPALPlayRate Rate() const { return Get(m_rate); }
    int64_t ClusterTimeMs() const { return Get(m_clusterTime); }
    /// False if that many blocks have not arrived in time.
    bool WaitForBlocks(size_t count) const;
    bool WaitForCalls(Op op, size_t count) const;

    /// What a controller calls on a concrete sink before it becomes an IPlatform.
    OPALError Configure(const std::string& codecId) {
        return Enter(Op::Configure, "Configure " + codecId);
    }

    OPALError Initialize() override { return Enter(Op::Initialize, "Initialize"); }
    OPALError Finalize() override { return Enter(Op::Finalize, "Finalize"); }
    OPALError Start() override { return Enter(Op::Start, "Start"); }
    OPALError Queue(void* data, size_t size, int64_t msTimeStamp, int64_t msDuration) override;
    OPALError Flush() override;
    OPALError Stop() override { return Enter(Op::Stop, "Stop"); }
    OPALError SetPaused(bool paused) override;
    OPALError GetBlockTrailerSize(size_t& size) override;
    OPALError GetTime(uint32_t& ms) override;
    OPALError GetPosition(int64_t& ms) override;
    OPALError GetBufferedDuration(int64_t& ms) override;
    OPALError SetRate(OPALPlayRate rate) override;
    OPALError SetClusterTime(int64_t ms) override;
    OPALError Refresh() override { return Enter(Op::Refresh); }

  private:
    using Lock = std::unique_lock<std::recursive_mutex>;
    struct Script {
        OPALError code = OPAL_OK;
        int count = 0;
    };

    template <typename Value>
    void Set(Value& member, const Value& value) {
        Lock lock(m_mutex);
        member = value;
    }
    template <typename Value>
    Value Get(const Value& member) const {
        Lock lock(m_mutex);
        return member;
    }
    /// Counts the call, notes it, and takes the scripted answer.
    OPALError Enter(Op op, const std::string& note = {});

    const std::string m_name;
    CallJournal* const m_journal;
    mutable std::recursive_mutex m_mutex;
    mutable std::condition_variable_any m_changed;
    std::map<Op, Script> m_scripts;
    std::map<Op, size_t> m_calls;
    std::function<void(const Block&)> m_queueHook;
    std::vector<Block> m_blocks;
    int m_acceptBlocks = kAlways;
    int64_t m_position = 0;
    int64_t m_bufferedDuration = -1;
    int64_t m_queuedUntil = 0;
    size_t m_trailerSize = 0;
    bool m_paused = true;
    OPALPlayRate m_rate = OPAL_PLAYRATE_ONEX;
    int64_t m_clusterTime = 0;
};

}  // namespace opal::test
