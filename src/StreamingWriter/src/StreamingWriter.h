#pragma once

#include <atomic>
#include <boost/scoped_ptr.hpp>
#include <boost/thread/thread.hpp>
#include <list>

#include "Common/Mutex.h"
#include "StreamingDemux/EBML/BlockNode.h"
#include "StreamingDemux/EBML/IClusterBuffer.h"
#include "StreamingDemux/EBML/IClusterParser.h"
#include "StreamingWriter/IStreamingWriter.h"

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
    void GetSinkFigures(opal::SinkEvent& figures) override;
    OPALError SetDiscardLevel(size_t level) override;
    OPALError SetDisabled(bool disabled) override;
    OPALError PullBlock(qutl::MemoryBuffer<unsigned char>& data, int64_t& time, int64_t& duration,
                        uint32_t& level, uint32_t& flags) override;
    OPALError GetLevelForTime(int64_t timeMs, size_t& level) override;
    OPALError WriteBlocks() override;

  private:
    using Lock = opal::RecursiveLock;

    struct LevelChange {
        size_t level;
        int64_t time;  ///< of the first block written of that level
    };

    /// m_mutex for a caller from outside: the loop lets it in before its next round.
    class OPAL_SCOPED_CAPABILITY ControlLock {
      public:
        explicit ControlLock(StreamingWriter& writer) OPAL_ACQUIRE(writer.m_mutex)
            : m_writer(writer) {
            ++m_writer.m_waiting;
            m_writer.m_mutex.Lock();
            --m_writer.m_waiting;
        }
        ~ControlLock() OPAL_RELEASE() { m_writer.m_mutex.Unlock(); }
        ControlLock(const ControlLock&) = delete;
        ControlLock& operator=(const ControlLock&) = delete;

      private:
        StreamingWriter& m_writer;
    };

    OPALError Fail(OPALError code);
    void ThreadMain();
    OPALError WriterLoop();
    /// Gives the sink a block, but its trailer.
    OPALError Offer(qutl::MemoryBuffer<unsigned char>& data, size_t trailer, int64_t time,
                    int64_t duration);
    OPALError WriteBlock(size_t trailer) OPAL_REQUIRES(m_mutex);
    OPALError NextBlock(BlockNode& block) OPAL_REQUIRES(m_mutex);
    OPALError NextCluster(bool exhausted, BlockNode& block, size_t trailer) OPAL_REQUIRES(m_mutex);
    OPALError TellDamage(OPALError code) const OPAL_REQUIRES(m_mutex);
    OPALError AskParser(BlockNode& block, size_t trailer) OPAL_REQUIRES(m_mutex);
    OPALError GetTrailer(size_t& trailer);
    void MakePresentable(BlockNode& block) const OPAL_REQUIRES(m_mutex);
    bool IsReverse() const OPAL_REQUIRES(m_mutex);
    bool IsLast(const ClusterInfo& info) const OPAL_REQUIRES(m_mutex);
    bool IsDropped(size_t level);
    void NoteLevel(size_t level, int64_t time) OPAL_REQUIRES(m_mutex);

    opal::RecursiveMutex m_mutex;
    opal::RecursiveMutex m_clusterMutex OPAL_ACQUIRED_AFTER(m_mutex);
    opal::RecursiveMutex m_discardMutex OPAL_ACQUIRED_AFTER(m_clusterMutex);
    boost::thread m_thread OPAL_GUARDED_BY(m_mutex);
    IClusterBuffer* const m_pBuffer;
    const boost::scoped_ptr<IClusterParser> m_pParser OPAL_PT_GUARDED_BY(m_mutex);
    IPlatform* const m_pSink;
    std::atomic<bool> m_stopped{true};
    std::atomic<bool> m_endOfStream{false};
    std::atomic<bool> m_paused{true};
    bool m_blockPending OPAL_GUARDED_BY(m_mutex) = false;
    size_t m_discardLevel OPAL_GUARDED_BY(m_discardMutex) = static_cast<size_t>(-1);
    std::atomic<bool> m_disabled{false};
    BlockNode m_block OPAL_GUARDED_BY(m_mutex);
    ClusterInfo m_cluster OPAL_GUARDED_BY(m_mutex);  ///< that the parser has
    qutl::MemoryBuffer<unsigned char> m_offered
        OPAL_GUARDED_BY(m_mutex);  ///< pull model: the sink's copy of a block
    std::atomic<OPALError> m_error{OPAL_OK};
    const OPALWriterModel m_model;
    const OPALStreamType m_streamType;
    OPALPlayRate m_rate OPAL_GUARDED_BY(m_mutex) = OPAL_PLAYRATE_ONEX;
    int64_t m_frameDuration OPAL_GUARDED_BY(m_mutex) = 0;
    int64_t m_clusterRemaining OPAL_GUARDED_BY(m_clusterMutex) = 0;
    std::list<LevelChange> m_levelChanges OPAL_GUARDED_BY(m_mutex);
    std::atomic<int> m_waiting{0};  ///< ControlLocks that want m_mutex
    std::atomic<uint64_t> m_blocksTaken{0};
    std::atomic<uint64_t> m_bytesTaken{0};
    std::atomic<uint64_t> m_blocksRefused{0};  ///< the sink asked for them again later
    std::atomic<uint64_t> m_flushes{0};
};
