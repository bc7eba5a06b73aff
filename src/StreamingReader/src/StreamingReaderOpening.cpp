// Opens a media file: its size, its header, its index.
#include <algorithm>
#include <limits>
#include <utility>

#include "Common/SessionEventStream.h"
#include "Common/StreamingTuning.h"
#include "Common/logging/Logger.h"
#include "StreamingDemux/EBML/IClusterIndex.h"
#include "StreamingDemux/EBML/StreamHeaderParser.h"
#include "StreamingReader/src/StreamingReader.h"

namespace {

constexpr int64_t kNanosecondsPerMs = 1000000;
/// Beyond any film's; a header and an index are each held in memory whole.
constexpr int64_t kMaxHeaderBytes = 16 * 1024 * 1024;
constexpr uint64_t kMaxCuesBytes = 16 * 1024 * 1024;

log4cxx::LoggerPtr Logger() {
    static const log4cxx::LoggerPtr logger = getLogger("opal.StreamingReader");
    return logger;
}

}  // namespace

OPALError StreamingReader::Open() {
    Lock lock(m_mutex);
    if (m_abandoned)
        return OPAL_ERROR_TERMINATED;
    if (m_stop.IsRaised())
        return SetError(OPAL_ERROR_TERMINATED);
    if (m_hasError && !m_opened)
        (void)m_pHTTP->Close();  // of the opening that failed
    Label(opal::RequestPurpose::Header, -1);
    const OPALError opened = m_pHTTP->Open(m_url);
    if (opened != OPAL_OK) {
        if (m_abandoned)
            return OPAL_ERROR_TERMINATED;  // no failure: nothing of it stays
        LOG4CXX_WARN(Logger(), "cannot open " << m_url << ": " << opened);
        TellFailure(opened, false);
        return SetError(m_stop.IsRaised() ? OPAL_ERROR_TERMINATED : opened);
    }
    ResetState();
    const OPALError read = ReadHeaders();
    if (read == OPAL_OK)
        return OPAL_OK;
    if (m_abandoned) {
        (void)m_pHTTP->Close();
        return OPAL_ERROR_TERMINATED;
    }
    LOG4CXX_WARN(Logger(), "cannot read header and index of " << m_url << ": " << read);
    TellFailure(read, true);
    return SetError(m_stop.IsRaised() ? OPAL_ERROR_TERMINATED : read);
}

void StreamingReader::TellFailure(OPALError code, bool found) const {
    if (m_stop.IsRaised())
        return;
    opal::SessionEventStream::IfObserved([&] {
        opal::StateEvent event;
        event.state = opal::SessionState::MediaFailed;
        event.text = m_url;
        event.code = code;
        event.valueMs = found;
        event.to = m_level;
        opal::SessionEventStream::Tell(std::move(event));
    });
}

OPALError StreamingReader::FetchRange(int64_t offset, int64_t size,
                                      qutl::MemoryBuffer<unsigned char>& bytes) {
    OPALError result = m_pHTTP->RequestRange(offset, size, nullptr);
    if (result != OPAL_OK)
        return result;
    HTTPRequest request;
    do {
        if (m_hasError)
            return m_error;
        result = m_pHTTP->GetCompletedRequest(request, false);
    } while (result == OPAL_ERROR_NOT_YET);
    if (result == OPAL_OK)
        request.TakeData(bytes);
    return result;
}

OPALError StreamingReader::ReadHeaders() {
    if (m_headerRequestSize > kMaxHeaderBytes)
        return OPAL_ERROR_GENERAL;
    qutl::MemoryBuffer<unsigned char> bytes;
    OPALError result = FetchRange(0, m_headerRequestSize, bytes);
    if (result != OPAL_OK)
        return result;
    m_isSubtitle = m_streamType == OPAL_STREAM_SUBTITLE;

    StreamHeaderParser parser;
    result = parser.Parse(bytes.GetData(), static_cast<int64_t>(bytes.GetSize()));
    if (result != OPAL_OK)
        return result;
    TakeHeaderFields(parser);

    int64_t cuesOffset = 0;
    result = parser.FindCuesPosition(cuesOffset);
    if (result != OPAL_OK)
        return result;
    qutl::MemoryBuffer<unsigned char> cuesHeader;
    result = FetchRange(cuesOffset, StreamingTuning::GetIndexHeaderBytes(), cuesHeader);
    if (result != OPAL_OK)
        return result;
    uint64_t id = 0;
    uint64_t totalSize = 0;
    result = StreamHeaderParser::ReadElementHeader(
        cuesHeader.GetData(), static_cast<int64_t>(cuesHeader.GetSize()), id, totalSize);
    if (result != OPAL_OK)
        return result;
    int64_t segmentOffset = 0;
    result = parser.GetSegmentDataOffset(segmentOffset);
    if (result != OPAL_OK)
        return result;
    return FetchIndex(cuesOffset, segmentOffset, totalSize);
}

/// What is missing is missing: a stream simply lacks what its kind has no use for.
void StreamingReader::TakeHeaderFields(StreamHeaderParser& parser) {
    int64_t duration = 0;
    (void)parser.GetDurationMs(duration);
    m_duration = duration;
    (void)parser.GetDefaultDuration(m_frameDuration);
    opal::MutexLock lock(m_metadataMutex);
    (void)parser.GetAudioInfo(m_track);
    if (m_streamType == OPAL_STREAM_SUBTITLE)
        (void)parser.GetFontData(m_font);
}

int64_t StreamingReader::FramesBetween(int64_t from, int64_t to, int64_t frameDurationNs) {
    constexpr int64_t kLimit = std::numeric_limits<int64_t>::max() / 2;
    int64_t ns = 0;
    int64_t ms = 0;
    if (__builtin_sub_overflow(to, from, &ms) || __builtin_mul_overflow(ms, kNanosecondsPerMs, &ns))
        ns = to < from ? -kLimit : kLimit;
    return std::clamp(ns, -kLimit, kLimit) / frameDurationNs;
}

OPALError StreamingReader::FetchIndex(int64_t cuesOffset, int64_t segmentOffset,
                                      uint64_t totalSize) {
    const boost::shared_ptr<IClusterIndex> index(NewClusterIndex(cuesOffset, segmentOffset));
    if (!index)
        return OPAL_ERROR_OUT_OF_RANGE;
    int64_t fileSize = 0;
    OPALError result = m_pHTTP->GetSize(fileSize);
    if (result != OPAL_OK)
        return result;
    if (totalSize > kMaxCuesBytes || static_cast<int64_t>(totalSize) > fileSize - cuesOffset)
        return OPAL_ERROR_GENERAL;
    qutl::MemoryBuffer<unsigned char> cues;
    result = FetchRange(cuesOffset, static_cast<int64_t>(totalSize), cues);
    if (result != OPAL_OK)
        return result;
    result = index->Parse(cues.GetData(), static_cast<int64_t>(cues.GetSize()));
    if (result != OPAL_OK)
        return result;
    m_framesPerCluster = 0;
    if (m_frameDuration > 0 && index->GetCount() > 1)
        m_framesPerCluster = static_cast<uint32_t>(
            FramesBetween(index->GetTime(0), index->GetTime(1), m_frameDuration));
    SetIndex(index);
    m_opened = true;
    return OPAL_OK;
}
