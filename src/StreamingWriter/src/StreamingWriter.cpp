#include "StreamingWriter/src/StreamingWriter.h"

#include <algorithm>
#include <exception>
#include <iterator>
#include <limits>
#include <utility>

#include "Common/Clock.h"
#include "Common/SessionEventStream.h"
#include "Common/StreamingTuning.h"
#include "PlatformAdapter/Common/IPlatform.h"

namespace {

constexpr int64_t kPollMs = 20;
constexpr int kAudioBlocksPerRound = 10;
constexpr int32_t kRoundSpanMs = 29;
constexpr int64_t kEndOfStreamMs = StreamingTuning::GetEndOfStreamRest();
constexpr int64_t kNanosecondsPerMs = 1000000;

/// Whether blocks at `first` and `last` are so close that the round goes on. The difference has 32
/// bits.
bool IsWithinRound(int64_t first, int64_t last) {
    const auto span =
        static_cast<int32_t>(static_cast<uint32_t>(last) - static_cast<uint32_t>(first));
    return span >= -kRoundSpanMs && span <= kRoundSpanMs;
}

}  // namespace

IStreamingWriter* NewStreamingWriter(IClusterBuffer* buffer, IPlatform* sink,
                                     OPALStreamType streamType, OPALWriterModel model) {
    if (!buffer || (!sink && model == OPAL_WRITER_MODEL_PUSH))
        return nullptr;
    return new StreamingWriter(buffer, sink, streamType, model);
}

StreamingWriter::StreamingWriter(IClusterBuffer* buffer, IPlatform* sink, OPALStreamType streamType,
                                 OPALWriterModel model)
    : m_pBuffer(buffer),
      m_pParser(NewClusterParser()),
      m_pSink(sink),
      m_model(model),
      m_streamType(FoldStreamType(streamType)) {}

StreamingWriter::~StreamingWriter() {
    (void)StreamingWriter::Finalize();
}

OPALError StreamingWriter::Initialize() {
    boost::thread ended;
    {
        ControlLock lock(*this);
        if (m_thread.joinable() && !m_stopped)
            return OPAL_ERROR_NOT_READY;
        ended.swap(m_thread);
    }
    if (ended.joinable())
        ended.join();
    ControlLock lock(*this);
    m_stopped = false;
    m_endOfStream = false;
    m_blockPending = false;
    m_paused = true;
    m_block = BlockNode();
    m_error.store(OPAL_OK);
    m_levelChanges.clear();
    if (m_model != OPAL_WRITER_MODEL_PUSH)
        return OPAL_OK;
    try {
        m_thread = boost::thread([this] { ThreadMain(); });
    } catch (const std::exception&) {
        return Fail(OPAL_ERROR_GENERAL);
    }
    return OPAL_OK;
}

OPALError StreamingWriter::Start() {
    ControlLock lock(*this);
    const OPALError resumed = m_disabled || !m_pSink ? OPAL_OK : m_pSink->SetPaused(false);
    if (resumed != OPAL_OK)
        return Fail(resumed);
    m_paused = false;
    return OPAL_OK;
}

OPALError StreamingWriter::Pause() {
    // The sink first and without the lock: a round that waits in the sink, for a subtitle's time to
    // pass for example, is ended by the pause and could otherwise never let this call in.
    const OPALError paused = m_disabled || !m_pSink ? OPAL_OK : m_pSink->SetPaused(true);
    if (paused != OPAL_OK)
        return Fail(paused);
    ControlLock lock(*this);
    m_paused = true;
    return OPAL_OK;
}

OPALError StreamingWriter::SetRate(OPALPlayRate rate) {
    ControlLock lock(*this);
    m_rate = rate;
    return m_disabled || !m_pSink ? OPAL_OK : m_pSink->SetRate(rate);
}

bool StreamingWriter::IsEndOfStream() {
    int64_t queued = 0;
    if (!m_disabled && m_pSink)
        (void)m_pSink->GetBufferedDuration(queued);
    return queued <= kEndOfStreamMs && m_endOfStream;
}

OPALError StreamingWriter::Finalize() {
    (void)Fail(OPAL_ERROR_TERMINATED);
    boost::thread ending;
    {
        ControlLock lock(*this);
        ending.swap(m_thread);
    }
    if (ending.joinable())
        ending.join();
    ControlLock lock(*this);
    m_levelChanges.clear();
    return OPAL_OK;
}

OPALError StreamingWriter::GetError() {
    return m_error;
}

OPALError StreamingWriter::GetBufferedDuration(int64_t& ms) {
    ms = 0;
    if (m_disabled)
        return OPAL_OK;
    // The cluster before the sink, as blocks travel: what moves meanwhile counts twice, not never.
    int64_t remaining = 0;
    {
        Lock lock(m_clusterMutex);
        remaining = m_clusterRemaining;
    }
    if (m_pSink && m_pSink->GetBufferedDuration(ms) != OPAL_OK)
        return OPAL_ERROR_GENERAL;
    ms += remaining;
    return OPAL_OK;
}

OPALError StreamingWriter::Flush() {
    ControlLock lock(*this);
    (void)m_pParser->Reset();
    m_levelChanges.clear();
    m_blockPending = false;
    m_endOfStream = false;
    if (m_disabled || !m_pSink)
        return OPAL_OK;
    ++m_flushes;
    return m_pSink->Flush();
}

OPALError StreamingWriter::SetDiscardLevel(size_t level) {
    Lock lock(m_discardMutex);
    m_discardLevel = level;
    return OPAL_OK;
}

OPALError StreamingWriter::SetDisabled(bool disabled) {
    ControlLock lock(*this);
    m_disabled = disabled;
    return OPAL_OK;
}

OPALError StreamingWriter::PullBlock(qutl::MemoryBuffer<unsigned char>& data, int64_t& time,
                                     int64_t& duration, uint32_t& level, uint32_t& flags) {
    ControlLock lock(*this);
    if (m_model != OPAL_WRITER_MODEL_PULL)
        return OPAL_ERROR_OUT_OF_RANGE;
    if (m_paused || m_disabled)
        return OPAL_ERROR_NOT_YET;
    data.Resize(0, false);
    time = 0;
    duration = 0;
    level = 0;
    flags = 0;
    size_t trailer = 0;
    OPALError result = GetTrailer(trailer);
    if (result == OPAL_OK)
        result = NextBlock(m_block);
    if (result != OPAL_OK)
        return result;
    MakePresentable(m_block);
    data.Attach(m_block.data);
    time = m_block.timecode;
    duration = m_block.duration;
    level = m_block.level;
    flags = m_block.flags;

    if (m_pSink) {
        // A sink rewrites what it takes, for its decoder. The application is to get what the file
        // holds, whether the sink has room or not, so the sink works on a copy.
        const size_t size = data.GetSize();
        m_offered.Assign(data.GetData(), size, 0, false);
        if (m_offered.GetSize() != size)
            return OPAL_ERROR_NO_MEMORY;
        result = Offer(m_offered, trailer, time, duration);
    }
    if (result == OPAL_OK)
        NoteLevel(level, time);
    // A full sink does not take back what the application has got.
    return result == OPAL_ERROR_NOT_YET ? OPAL_OK : result;
}

OPALError StreamingWriter::GetLevelForTime(int64_t timeMs, size_t& level) {
    ControlLock lock(*this);
    if (m_streamType != OPAL_STREAM_VIDEO || m_levelChanges.empty())
        return OPAL_ERROR_GENERAL;
    const bool reverse = IsReverse();
    const auto isReached = [&](const LevelChange& change) {
        return reverse ? timeMs <= change.time : timeMs >= change.time;
    };
    if (!isReached(m_levelChanges.front()))
        return OPAL_ERROR_GENERAL;
    auto shown = m_levelChanges.begin();
    for (auto next = std::next(shown); next != m_levelChanges.end() && isReached(*next); ++next)
        shown = next;
    m_levelChanges.erase(m_levelChanges.begin(), shown);
    level = shown->level;
    return OPAL_OK;
}

OPALError StreamingWriter::WriteBlocks() {
    Lock lock(m_mutex);
    if (m_paused)
        return OPAL_ERROR_NOT_YET;
    if (m_disabled)
        return OPAL_OK;
    if (m_streamType == OPAL_STREAM_SUBTITLE && m_pSink)
        (void)m_pSink->Refresh();
    size_t trailer = 0;
    OPALError result = GetTrailer(trailer);
    if (result != OPAL_OK)
        return result;

    const int limit = m_streamType == OPAL_STREAM_AUDIO ? kAudioBlocksPerRound : 1;
    int64_t first = 0;
    int64_t last = 0;
    for (int count = 0; count < limit && IsWithinRound(first, last); ++count) {
        result = WriteBlock(trailer);
        if (result != OPAL_OK)
            return result;
        last = m_block.timecode;
        if (count == 0)
            first = last;
    }
    return OPAL_OK;
}

OPALError StreamingWriter::WriteBlock(size_t trailer) {
    OPALError result = OPAL_OK;
    if (!m_blockPending) {
        result = NextBlock(m_block);
        if (result != OPAL_OK)
            return result;
        MakePresentable(m_block);
    }
    if (m_pSink)
        result = Offer(m_block.data, trailer, m_block.timecode, m_block.duration);
    m_blockPending = result == OPAL_ERROR_NOT_YET;
    if (result == OPAL_OK)
        NoteLevel(m_block.level, m_block.timecode);
    return result;
}

OPALError StreamingWriter::Offer(qutl::MemoryBuffer<unsigned char>& data, size_t trailer,
                                 int64_t time, int64_t duration) {
    const size_t size = data.GetSize() - std::min(trailer, data.GetSize());
    const OPALError result = m_pSink->Queue(data.GetData(), size, time, duration);
    if (result == OPAL_ERROR_NOT_YET)
        m_blocksRefused.fetch_add(1, std::memory_order_relaxed);
    if (result != OPAL_OK)
        return result;
    m_blocksTaken.fetch_add(1, std::memory_order_relaxed);
    m_bytesTaken.fetch_add(size, std::memory_order_relaxed);
    return OPAL_OK;
}

void StreamingWriter::GetSinkFigures(opal::SinkEvent& figures) {
    figures.stream = m_streamType;
    figures.blocks = m_blocksTaken;
    figures.bytes = m_bytesTaken;
    figures.refused = m_blocksRefused;
    figures.flushes = m_flushes;
}

OPALError StreamingWriter::NextBlock(BlockNode& block) {
    size_t trailer = 0;
    OPALError result = GetTrailer(trailer);
    if (result != OPAL_OK)
        return result;
    result = AskParser(block, trailer);
    if (result == OPAL_OK) {
        Lock clusterLock(m_clusterMutex);
        m_clusterRemaining -= m_frameDuration;
        return OPAL_OK;
    }
    if (result != OPAL_ERROR_END_OF_DATA && result != OPAL_ERROR_NOT_READY)
        return TellDamage(result);
    return NextCluster(result == OPAL_ERROR_END_OF_DATA, block, trailer);
}

/// Loads the next cluster and cuts its first block. `exhausted`: there was a cluster before it.
OPALError StreamingWriter::NextCluster(bool exhausted, BlockNode& block, size_t trailer) {
    qutl::MemoryBuffer<unsigned char> bytes;
    ClusterInfo info;
    OPALError result = OPAL_OK;
    bool dropped = false;
    {
        // Held from where the cluster leaves the buffer to where it counts here: between the two it
        // would be missing from what is buffered, and that would be taken for an underflow.
        Lock clusterLock(m_clusterMutex);
        result = m_pBuffer->Read(bytes, info);
        if (result == OPAL_OK) {
            dropped = IsDropped(info.level);
            if (!dropped)
                m_clusterRemaining = info.duration;
        }
    }
    if (result == OPAL_ERROR_NO_MEMORY)
        return exhausted && m_endOfStream ? OPAL_ERROR_END_OF_DATA : OPAL_ERROR_NOT_YET;
    if (result != OPAL_OK)
        return result;
    if (IsLast(info))
        m_endOfStream = true;
    if (dropped)
        return OPAL_ERROR_NOT_YET;

    // Out of a file, so it may be anything.
    m_frameDuration = std::clamp<int64_t>(info.frameDuration / kNanosecondsPerMs, 0,
                                          std::numeric_limits<int32_t>::max());
    if (m_pSink)
        (void)m_pSink->SetClusterTime(m_frameDuration);
    m_cluster = info;
    result = m_pParser->SetCluster(bytes, info.level);
    if (result == OPAL_OK)
        result = AskParser(block, trailer);
    return result == OPAL_OK || result == OPAL_ERROR_END_OF_DATA ? result : TellDamage(result);
}

/// Tells the observer that the cluster in hand cannot be read.
OPALError StreamingWriter::TellDamage(OPALError code) const {
    if (!opal::SessionEventStream::IsObserved())
        return code;
    opal::StateEvent event;
    event.state = opal::SessionState::ClusterDamaged;
    event.stream = m_cluster.streamType;
    event.to = m_cluster.level;
    event.cluster = m_cluster.clusterIndex;
    event.code = code;
    opal::SessionEventStream::Tell(std::move(event));
    return code;
}

OPALError StreamingWriter::AskParser(BlockNode& block, size_t trailer) {
    return IsReverse() ? m_pParser->GetPreviousBlock(block, trailer)
                       : m_pParser->GetNextBlock(block, trailer);
}

OPALError StreamingWriter::GetTrailer(size_t& trailer) {
    trailer = 0;
    return m_pSink ? m_pSink->GetBlockTrailerSize(trailer) : OPAL_OK;
}

/// A file may give a block a negative time or duration; a sink takes none.
void StreamingWriter::MakePresentable(BlockNode& block) const {
    block.timecode = std::max<int64_t>(block.timecode, 0);
    if (block.duration <= 0)
        block.duration = m_frameDuration;
}

bool StreamingWriter::IsReverse() const {
    return GetRateValue(m_rate) < 0;
}

bool StreamingWriter::IsLast(const ClusterInfo& info) const {
    if (IsReverse())
        return info.clusterIndex == 0;
    return static_cast<int64_t>(info.clusterIndex) + 1 == static_cast<int64_t>(info.clusterCount);
}

bool StreamingWriter::IsDropped(size_t level) {
    Lock lock(m_discardMutex);
    if (level == m_discardLevel || m_disabled)
        return true;
    m_discardLevel = static_cast<size_t>(-1);
    return false;
}

void StreamingWriter::NoteLevel(size_t level, int64_t time) {
    if (m_streamType != OPAL_STREAM_VIDEO)
        return;
    if (m_levelChanges.empty() || m_levelChanges.back().level != level)
        m_levelChanges.push_back(LevelChange{level, time});
}

OPALError StreamingWriter::Fail(OPALError code) {
    m_stopped = true;
    m_error.store(code);
    return code;
}

void StreamingWriter::ThreadMain() {
    try {
        (void)WriterLoop();
    } catch (const std::exception&) {
        (void)Fail(OPAL_ERROR_GENERAL);
    }
}

OPALError StreamingWriter::WriterLoop() {
    while (!m_stopped) {
        const OPALError result = WriteBlocks();
        if (result == OPAL_OK && !m_disabled) {
            while (m_waiting > 0 && !m_stopped)
                boost::this_thread::yield();
        } else if (result == OPAL_OK || result == OPAL_ERROR_NOT_YET ||
                   result == OPAL_ERROR_END_OF_DATA) {
            // A disabled writer has nothing to do and must not spin.
            opal::SleepMs(kPollMs);
        } else if (!m_stopped) {
            (void)Fail(result);
        }
    }
    return GetError();
}
