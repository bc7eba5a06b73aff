#include "SMILParser/ISMILParser.h"
#include "StreamingReader/ReaderManager.h"

VideoReaderManager::~VideoReaderManager() {
    (void)Finalize();
}

OPALError VideoReaderManager::Initialize(ISMILParser* parser, IClusterBuffer* buffer,
                                         IStreamingReaderNotify* notify, size_t index) {
    // Held throughout, or the thread would open the reader at the same time.
    opal::RecursiveLock lock(m_mutex);
    const OPALError initialized = ReaderManager::Initialize(parser, buffer, notify, index);
    return initialized == OPAL_OK ? OpenAfterInitialize() : initialized;
}

OPALError VideoReaderManager::CreateReaders(ISMILParser* parser, IClusterBuffer* buffer,
                                            IStreamingReaderNotify* notify, size_t index) {
    opal::RecursiveLock lock(m_mutex);
    m_firstTrickTrack = kNone;
    const size_t levels = parser->GetVideoLevelCount();
    if (levels != 0 && index >= levels)
        return OPAL_ERROR_INVALID_ARGUMENT;
    OPALError added = AddReaders<IVideoLevel>(
        levels,
        [&](size_t i, boost::shared_ptr<IVideoLevel>& level) {
            return parser->GetVideoLevel(i, level);
        },
        buffer, notify, OPAL_STREAM_VIDEO);
    const size_t first = BuiltCount();
    if (added == OPAL_OK)
        added = AddReaders<IVideoTrickTrack>(
            parser->GetVideoTrickTrackCount(),
            [&](size_t i, boost::shared_ptr<IVideoTrickTrack>& track) {
                return parser->GetVideoTrickTrack(i, track);
            },
            buffer, notify, OPAL_STREAM_TRICK);
    if (added != OPAL_OK)
        return added;
    if (first < BuiltCount())
        m_firstTrickTrack = first;
    m_clusterIndexes.assign(first, nullptr);
    return OPAL_OK;
}

OPALError VideoReaderManager::DownloadNext() {
    const Reader reader = Driven();
    return reader ? reader->DownloadNext(m_rate) : NoReaderResult();
}

OPALError VideoReaderManager::OpenCurrent() {
    opal::RecursiveLock lock(m_mutex);
    const size_t current = GetCurrent();
    if (current == m_firstTrickTrack)
        return ReaderManager::OpenCurrent();
    return Current() ? OpenLevelsUpTo(current) : NoReaderResult();
}

OPALError VideoReaderManager::OpenLevelsUpTo(size_t last) {
    for (size_t i = 0; i <= last; ++i) {
        const Reader reader = ReaderList()[i];
        if (reader->GetState() != STREAMING_READER_NOT_OPEN)
            continue;
        const OPALError opened = OpenReader(reader);
        IClusterIndex* index = nullptr;
        (void)reader->GetClusterIndex(index);
        if (i < m_clusterIndexes.size())
            m_clusterIndexes[i] = index;
        if (opened != OPAL_OK)
            return opened;
    }
    return OPAL_OK;
}

OPALError VideoReaderManager::SetRate(OPALPlayRate rate) {
    if (!Current())
        return NoReaderResult();
    m_rate = rate;
    return rate == OPAL_PLAYRATE_ONEX ? OPAL_OK : SetStream(m_firstTrickTrack, false);
}

void VideoReaderManager::OnReadersDropped() {
    for (IClusterIndex*& index : m_clusterIndexes)
        index = nullptr;
    m_firstTrickTrack = kNone;
    m_rate = OPAL_PLAYRATE_ONEX;
}
