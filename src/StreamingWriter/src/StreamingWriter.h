#pragma once

#include <atomic>
#include <boost/scoped_ptr.hpp>
#include <boost/thread/locks.hpp>
#include <boost/thread/recursive_mutex.hpp>
#include <boost/thread/thread.hpp>
#include <list>

#include "StreamingDemux/EBML/BlockNode.h"
#include "StreamingDemux/EBML/IClusterParser.h"
#include "StreamingWriter/IStreamingWriter.h"

struct ClusterInfo;

/// See IStreamingWriter. In the push model a round queues at most 30 ms of audio or one block of
/// anything else, and nothing is locked between rounds. Without a sink, which the pull model
/// allows, everything is accepted.
///
/// Threading: lock order m_mutex, then the sink's locks; or m_mutex, m_clusterMutex, then the
/// cluster buffer's lock or m_discardMutex, which are innermost. Exceptions of libraries end the
/// thread with OPAL_ERROR_GENERAL.
class StreamingWriter : public IStreamingWriter {
  public:
    StreamingWriter(IClusterBuffer* buffer, IPlatform* sink, OPALStreamType streamType,
                    OPALWriterModel model);
    ~StreamingWriter() override;

    OPALError Initialize() override;
    OPALError Start() override;
    OPALError Pause() override;
    OPALError SetRate(OPALPlayRate rate) override;
    bool IsEndOfStream() override;
    OPALError Finalize() override;
    OPALError GetError() override;
    OPALError GetBufferedDuration(int64_t& ms) override;
    OPALError Flush() override;
    OPALError SetDiscardLevel(size_t level) override;
    OPALError SetDisabled(bool disabled) override;
    OPALError PullBlock(qutl::MemoryBuffer<unsigned char>& data, int64_t& time, int64_t& duration,
                        uint32_t& level, uint32_t& flags) override;
    OPALError GetLevelForTime(int64_t timeMs, size_t& level) override;
    OPALError WriteBlocks() override;

  private:
    using Lock = boost::unique_lock<boost::recursive_mutex>;

    struct LevelChange {
        size_t level;
        int64_t time;  ///< of the first block written of that level
    };

    /// m_mutex for a caller from outside: the loop lets it in before its next round.
    class ControlLock {
      public:
        explicit ControlLock(StreamingWriter& writer) : m_writer(writer) {
            ++m_writer.m_waiting;
            m_writer.m_mutex.lock();
            --m_writer.m_waiting;
        }
        ~ControlLock() { m_writer.m_mutex.unlock(); }
        ControlLock(const ControlLock&) = delete;
        ControlLock& operator=(const ControlLock&) = delete;

      private:
        StreamingWriter& m_writer;
    };

    OPALError Fail(OPALError code);
    void ThreadMain();
    OPALError WriterLoop();
    OPALError WriteBlock(size_t trailer);
    OPALError NextBlock(BlockNode& block);
    OPALError NextCluster(bool exhausted, BlockNode& block, size_t trailer);
    OPALError AskParser(BlockNode& block, size_t trailer);
    OPALError GetTrailer(size_t& trailer);
    void MakePresentable(BlockNode& block) const;
    bool IsReverse() const;
    bool IsLast(const ClusterInfo& info) const;
    bool IsDropped(size_t level);
    void NoteLevel(size_t level, int64_t time);

    boost::recursive_mutex m_mutex;
    boost::recursive_mutex m_clusterMutex;
    boost::recursive_mutex m_discardMutex;
    boost::thread m_thread;
    IClusterBuffer* const m_pBuffer;
    const boost::scoped_ptr<IClusterParser> m_pParser;
    IPlatform* const m_pSink;
    std::atomic<bool> m_stopped{true};
    std::atomic<bool> m_endOfStream{false};
    std::atomic<bool> m_paused{true};
    bool m_blockPending = false;
    size_t m_discardLevel = static_cast<size_t>(-1);
    std::atomic<bool> m_disabled{false};
    BlockNode m_block;
    qutl::MemoryBuffer<unsigned char> m_offered;  ///< pull model: the sink's copy of a block
    std::atomic<OPALError> m_error{OPAL_OK};
    const OPALWriterModel m_model;
    const OPALStreamType m_streamType;
    OPALPlayRate m_rate = OPAL_PLAYRATE_ONEX;
    int64_t m_frameDuration = 0;
    int64_t m_clusterRemaining = 0;
    std::list<LevelChange> m_levelChanges;
    std::atomic<int> m_waiting{0};  ///< ControlLocks that want m_mutex
};
