#include "StreamingReader/src/StreamingReader.h"

#include <algorithm>
#include <exception>
#include <limits>
#include <memory>
#include <new>

#include "Common/Clock.h"
#include "Common/ObjectFactory.h"
#include "Common/SessionEventStream.h"
#include "Common/StreamingTuning.h"
#include "StreamingDemux/EBML/IClusterBuffer.h"
#include "StreamingDemux/EBML/IClusterIndex.h"

namespace {

constexpr int64_t kPollMs = 30;

}  // namespace

IStreamingReader* NewStreamingReader(const std::string& url, size_t headerRequestSize,
                                     IClusterBuffer* buffer, IStreamingReaderNotify* notify,
                                     OPALStreamType streamType, size_t level,
                                     const opal::StopSignal* stop) {
    if (url.empty() || headerRequestSize == 0 ||
        headerRequestSize > static_cast<size_t>(std::numeric_limits<int64_t>::max()) ||
        buffer == nullptr || streamType == OPAL_STREAM_NONE)
        return nullptr;
    std::unique_ptr<IHTTPFile> http(ObjectFactory::Instance().NewHTTPFile(false));
    if (!http)
        return nullptr;
    return new StreamingReader(url, headerRequestSize, buffer, notify, streamType, level,
                               http.release(), stop);
}

StreamingReader::StreamingReader(const std::string& url, size_t headerRequestSize,
                                 IClusterBuffer* buffer, IStreamingReaderNotify* notify,
                                 OPALStreamType streamType, size_t level, IHTTPFile* http,
                                 const opal::StopSignal* stop)
    : m_pNotify(notify),
      m_pBuffer(buffer),
      m_url(url),
      m_headerRequestSize(static_cast<int64_t>(headerRequestSize)),
      m_pHTTP(http),
      m_streamType(streamType),
      m_level(level),
      m_stop(stop) {
    m_pHTTP->SetStopSignal(&m_stop);
}

StreamingReader::~StreamingReader() {
    (void)StreamingReader::Finalize();
}

OPALError StreamingReader::Start() {
    Lock lock(m_mutex);
    if (m_hasError)
        return m_error;
    m_cancelled = false;
    m_stopped = false;
    Wake();
    return OPAL_OK;
}

OPALError StreamingReader::StartDelayed(int64_t delayMs) {
    Lock lock(m_mutex);
    if (m_hasError)
        return m_error;
    m_startDelay = delayMs;
    return Start();
}

OPALError StreamingReader::Stop() {
    if (m_hasError)
        return m_error;
    m_stopped = true;
    return OPAL_OK;
}

OPALError StreamingReader::Seek(int64_t& timeMs) {
    if (timeMs < 0)
        return OPAL_ERROR_INVALID_ARGUMENT;
    Lock lock(m_mutex);
    if (m_hasError)
        return m_error;
    if (!HeldIndex())
        return OPAL_ERROR_NOT_READY;

    ClusterIndexEntry entry;
    const OPALError found = HeldIndex()->FindByTime(timeMs, entry);
    if (found != OPAL_OK)
        return found;
    (void)m_pHTTP->CancelRequests(true, true);
    m_cancelled = false;
    m_clusterIndex = static_cast<int32_t>(entry.index);
    m_skipFrames = 0;
    m_trimFrames = 0;
    if (m_frameDuration > 0) {
        if (entry.time < timeMs)
            m_skipFrames = FramesBetween(entry.time, timeMs, m_frameDuration);
        const size_t next = static_cast<size_t>(entry.index) + 1;
        if (next < HeldIndex()->GetCount())
            m_trimFrames = FramesBetween(timeMs, HeldIndex()->GetTime(next), m_frameDuration);
    }
    timeMs = entry.time;
    Wake();
    return OPAL_OK;
}

OPALError StreamingReader::Finalize() {
    m_stop.Raise();
    Lock lock(m_mutex);
    (void)SetError(OPAL_ERROR_TERMINATED);
    Wake();
    boost::thread ending;
    ending.swap(m_thread);
    lock.Unlock();
    if (ending.joinable())
        ending.join();
    lock.Lock();
    ResetState();
    {
        opal::MutexLock metadata(m_metadataMutex);
        m_font.Resize(0, false);
    }
    const OPALError closed = m_pHTTP->Close();
    m_abandoned = false;
    m_stop.Lower();
    return closed;
}

OPALError StreamingReader::GetPosition(int64_t& timeMs) {
    if (m_hasError)
        return m_error;
    const auto index = Index();
    if (!index)
        return OPAL_ERROR_NOT_READY;
    timeMs = index->GetTime(static_cast<size_t>(m_clusterIndex.load()));
    return OPAL_OK;
}

OPALError StreamingReader::GetTrackInfo(AudioStreamInfo& info) {
    opal::MutexLock lock(m_metadataMutex);
    info = m_track;
    return OPAL_OK;
}

OPALError StreamingReader::GetDuration(int64_t& ms) {
    ms = m_duration;
    return OPAL_OK;
}

OPALError StreamingReader::GetError() {
    return m_error;
}

int StreamingReader::GetState() {
    if (const auto index = Index()) {
        const int32_t position = m_clusterIndex;
        if (position < 0 || static_cast<size_t>(position) >= index->GetCount())
            return STREAMING_READER_END;
    }
    const OPALError error = m_error;
    if (error != OPAL_OK && error != OPAL_ERROR_TERMINATED)
        return STREAMING_READER_ERROR;
    if (error == OPAL_ERROR_TERMINATED || !m_opened)
        return STREAMING_READER_NOT_OPEN;
    return m_stopped ? STREAMING_READER_STOPPED : STREAMING_READER_RUNNING;
}

OPALError StreamingReader::SetError(OPALError code) {
    m_error.store(code);
    m_hasError = true;
    return code;
}

bool StreamingReader::HasError() {
    return m_hasError;
}

OPALError StreamingReader::DownloadNext(OPALPlayRate rate) {
    Lock lock(m_mutex);
    if (rate != OPAL_PLAYRATE_ONEX && m_streamType != OPAL_STREAM_TRICK)
        return OPAL_OK;
    if (m_hasError)
        return m_error;
    if (!HeldIndex())
        return OPAL_ERROR_NOT_READY;
    const bool forward = GetRateValue(rate) > 0;
    const int32_t position = m_clusterIndex;
    const size_t count = HeldIndex()->GetCount();
    if (forward ? (position >= 0 && static_cast<size_t>(position) >= count) : position < 0)
        return OPAL_ERROR_END_OF_DATA;

    std::vector<ByteRange> ranges;
    const OPALError built = BuildRanges(rate, forward, ranges);
    if (built != OPAL_OK)
        return built;
    uint64_t needed = 0;
    for (const ByteRange& range : ranges) {
        // An index out of order gives sizes that are no sizes; a negative length would read to the
        // end of the file.
        if (range.length <= 0) {
            TellFailure(OPAL_ERROR_INVALID_ARGUMENT, true);
            return OPAL_ERROR_INVALID_ARGUMENT;
        }
        needed += std::min<uint64_t>(static_cast<uint64_t>(range.length),
                                     std::numeric_limits<uint64_t>::max() - needed);
    }
    if (m_pBuffer->GetCapacity() < needed)
        return OPAL_ERROR_NO_MEMORY;
    if (m_pBuffer->GetFreeBytes() < needed)
        return OPAL_ERROR_NOT_YET;

    qutl::MemoryBuffer<unsigned char> bytes;
    const OPALError transferred = Transfer(ranges, bytes);
    if (transferred != OPAL_OK)
        return transferred;

    const StreamingTuning& tuning = StreamingTuning::Instance();
    ClusterInfo info;
    info.streamType = m_streamType;
    info.duration = m_streamType == OPAL_STREAM_TRICK ? tuning.GetTrickClusterDuration()
                                                      : tuning.GetClusterDuration();
    info.level = static_cast<uint32_t>(m_level);
    info.clusterIndex = position;
    info.clusterCount = static_cast<uint32_t>(count);
    info.frameDuration = m_frameDuration;
    // A duration limit of the buffer is met here, after the transfer, and not before it: each
    // attempt is a fresh measurement of the bandwidth. Deliberate.
    const OPALError written = m_pBuffer->Write(bytes, info);
    if (written != OPAL_OK)
        return written;
    m_clusterIndex = forward ? position + 1 : position - 1;
    if (m_pNotify)
        m_pNotify->OnClusterBufferWrite(m_streamType);
    return OPAL_OK;
}

OPALError StreamingReader::DownloadNextTrick(OPALPlayRate rate) {
    return StreamingReader::DownloadNext(rate);
}

OPALError StreamingReader::BuildRanges(OPALPlayRate rate, bool forward,
                                       std::vector<ByteRange>& ranges) {
    if (rate != OPAL_PLAYRATE_ONEX)
        return BuildTrickRanges(rate, forward, ranges);
    const auto cluster = static_cast<size_t>(m_clusterIndex.load());
    ranges.emplace_back(HeldIndex()->GetOffset(cluster), HeldIndex()->GetSize(cluster));
    return OPAL_OK;
}

/// The opening of the cluster, and the frames that will be shown.
OPALError StreamingReader::BuildTrickRanges(OPALPlayRate rate, bool forward,
                                            std::vector<ByteRange>& ranges) {
    const auto cluster = static_cast<size_t>(m_clusterIndex.load());
    size_t take = 0;
    size_t skip = 0;
    (void)GetRateFrameStep(rate, &take, &skip);
    const uint32_t headerSize = HeldIndex()->GetHeaderSize(cluster);
    if (headerSize == 0)
        return OPAL_ERROR_NOT_READY;
    ranges.emplace_back(HeldIndex()->GetOffset(cluster), headerSize);

    int64_t frame = forward ? m_skipFrames : 0;
    const int64_t last = m_framesPerCluster - (forward ? 0 : m_trimFrames);
    bool more = true;
    do {
        for (size_t taken = 0; taken < take && more; ++taken) {
            int64_t offset = 0;
            uint32_t size = 0;
            more =
                HeldIndex()->GetFrame(cluster, static_cast<size_t>(frame), offset, size) == OPAL_OK;
            if (more) {
                ranges.emplace_back(offset, size);
                ++frame;
            }
        }
        frame += static_cast<int64_t>(skip);
    } while (more && frame <= last);
    m_skipFrames = 0;
    m_trimFrames = 0;
    return OPAL_OK;
}

void StreamingReader::Label(opal::RequestPurpose purpose, int64_t cluster) {
    if (opal::SessionEventStream::IsObserved())
        m_pHTTP->SetLabel({purpose, m_streamType, m_level, cluster});
}

OPALError StreamingReader::Transfer(const std::vector<ByteRange>& ranges,
                                    qutl::MemoryBuffer<unsigned char>& bytes) {
    if (m_cancelled || m_stop.IsRaised())
        return OPAL_ERROR_CANCELLED;
    Label(opal::RequestPurpose::Cluster, m_clusterIndex);
    OPALError result = m_pHTTP->RequestRanges(ranges, this);
    if (result != OPAL_OK)
        return result;
    HTTPRequest request;
    result = m_pHTTP->GetCompletedRequest(request, false);
    if (result == OPAL_OK)
        request.TakeData(bytes);
    // The transfer was done and its reply is gone: a cancel has come between.
    return result == OPAL_ERROR_OUT_OF_RANGE ? OPAL_ERROR_CANCELLED : result;
}

void StreamingReader::OnRequestComplete(const HTTPRequest& request) {
    if (m_pNotify)
        m_pNotify->OnDownloadComplete(m_streamType, request.GetDurationMs(),
                                      static_cast<int64_t>(request.GetBytesReceived()),
                                      static_cast<size_t>(m_clusterIndex.load()));
}

OPALError StreamingReader::CancelTransfers() {
    // An opening is not cancelled: its failure would stick.
    if (!m_opened)
        return OPAL_OK;
    m_cancelled = true;
    return m_pHTTP->CancelRequests(true, true);
}

void StreamingReader::SetAbandoned(bool abandoned) {
    m_abandoned = abandoned;
    if (abandoned)
        m_stop.Raise();
    else
        m_stop.Lower();
}

OPALError StreamingReader::GetFont(const void*& data, size_t& size) {
    opal::MutexLock lock(m_metadataMutex);
    data = m_font.GetData();
    size = m_font.GetSize();
    return OPAL_OK;
}

OPALError StreamingReader::GetBytesInFlight(size_t& bytes) {
    if (m_isSubtitle) {
        bytes = static_cast<size_t>(m_headerRequestSize);
        return OPAL_OK;
    }
    int received = 0;
    const OPALError result = m_pHTTP->GetBytesInFlight(received);
    bytes = static_cast<size_t>(std::max(received, 0));
    return result;
}

OPALError StreamingReader::GetBytesAhead(int64_t ms, size_t& bytes) {
    bytes = 0;
    if (m_streamType == OPAL_STREAM_SUBTITLE) {
        bytes = static_cast<size_t>(m_headerRequestSize);
        return OPAL_OK;
    }
    const auto index = Index();
    if (!index || ms <= 0)
        return OPAL_OK;
    const int64_t position = m_clusterIndex;
    const int64_t clusterMs = StreamingTuning::Instance().GetClusterDuration();
    const int64_t wanted = ms / clusterMs + (ms % clusterMs != 0 ? 1 : 0);
    const int64_t left = static_cast<int64_t>(index->GetCount()) - position;
    uint64_t sum = 0;
    for (int64_t i = 0; i < std::min(wanted, left); ++i) {
        const auto size = static_cast<uint64_t>(
            std::max<int64_t>(index->GetSize(static_cast<size_t>(position + i)), 0));
        sum += std::min(size, std::numeric_limits<size_t>::max() - sum);
    }
    bytes = static_cast<size_t>(sum);
    return OPAL_OK;
}

OPALError StreamingReader::GetClusterIndex(IClusterIndex*& index) {
    index = Index().get();
    return OPAL_OK;
}

void StreamingReader::ResetState() {
    SetIndex({});
    m_hasError = false;
    m_clusterIndex = 0;
    m_error.store(OPAL_OK);
    m_opened = false;
    m_stopped = true;
    m_isSubtitle = false;
    m_cancelled = false;
    m_skipFrames = 0;
    m_trimFrames = 0;
}

void StreamingReader::SetIndex(const boost::shared_ptr<IClusterIndex>& index) {
    opal::MutexLock lock(m_metadataMutex);
    m_pIndex = index;
}

boost::shared_ptr<IClusterIndex> StreamingReader::Index() {
    opal::MutexLock lock(m_metadataMutex);
    return m_pIndex;
}

OPALError StreamingReader::StartThread() {
    Lock lock(m_mutex);
    if (m_thread.joinable())
        return OPAL_ERROR_NOT_READY;
    try {
        m_thread = boost::thread([this] {
            try {
                (void)Run();
            } catch (const std::exception&) {
                (void)SetError(OPAL_ERROR_GENERAL);
            }
        });
    } catch (const std::exception&) {
        return OPAL_ERROR_GENERAL;
    }
    return OPAL_OK;
}

OPALError StreamingReader::Run() {
    while (!HasError()) {
        opal::SleepMs(kPollMs);
        Lock lock(m_mutex);
        if (HasError())
            break;
        const int state = GetState();
        if (state == STREAMING_READER_RUNNING) {
            DelayStart();
            const uint64_t wakes = m_wakes;
            const OPALError result = DownloadNext(OPAL_PLAYRATE_ONEX);
            if (IsFatalError(result))
                return SetError(result);
            if (IsWaitError(result))
                WaitForWake(wakes);
        } else if (state == STREAMING_READER_END || state == STREAMING_READER_STOPPED) {
            WaitForWake(m_wakes);
        }
    }
    return GetError();
}

void StreamingReader::DelayStart() {
    if (m_clusterIndex <= 0 || m_startDelay <= 0)
        return;
    int64_t left = m_startDelay;
    m_startDelay = 0;
    const opal::RecursiveUnlock unlocked(m_mutex);
    for (; left > 0 && !HasError() && !m_stop.IsRaised(); left -= kPollMs)
        opal::SleepMs(std::min(left, kPollMs));
}

void StreamingReader::Wake() {
    ++m_wakes;
    m_wakeup.NotifyAll();
}

void StreamingReader::WaitForWake(uint64_t wakes) {
    while (m_wakes == wakes)
        m_wakeup.Wait(m_mutex);
}
