#include "SMILParser/ISMILParser.h"
#include "StreamingReader/ReaderManager.h"

VideoReaderManager::~VideoReaderManager() {
    (void)Finalize();
}

OPALError VideoReaderManager::Initialize(ISMILParser* parser, IClusterBuffer* buffer,
                                         IStreamingReaderNotify* notify, size_t index) {
    // Held throughout, or the thread would open the reader at the same time.
    Lock lock(m_mutex);
    const OPALError initialized = ReaderManager::Initialize(parser, buffer, notify, index);
    return initialized == OPAL_OK ? OpenAfterInitialize() : initialized;
}

OPALError VideoReaderManager::CreateReaders(ISMILParser* parser, IClusterBuffer* buffer,
                                            IStreamingReaderNotify* notify, size_t index) {
    Lock lock(m_mutex);
    m_firstTrickTrack = kNone;
    const size_t levels = parser->GetVideoLevelCount();
    if (levels != 0 && index >= levels)
        return OPAL_ERROR_INVALID_ARGUMENT;
    for (size_t i = 0; i < levels; ++i) {
        boost::shared_ptr<IVideoLevel> level;
        if (parser->GetVideoLevel(i, level) != OPAL_OK || !level)
            continue;
        const OPALError added = AddReader(level->GetURI(), level->GetHeaderRequestSize(), buffer,
                                          notify, OPAL_STREAM_VIDEO, i);
        if (added != OPAL_OK)
            return added;
    }
    const size_t first = ReaderList().size();
    const size_t trickTracks = parser->GetVideoTrickTrackCount();
    for (size_t i = 0; i < trickTracks; ++i) {
        boost::shared_ptr<IVideoTrickTrack> track;
        if (parser->GetVideoTrickTrack(i, track) != OPAL_OK || !track)
            continue;
        const OPALError added = AddReader(track->GetURI(), track->GetHeaderRequestSize(), buffer,
                                          notify, OPAL_STREAM_TRICK, i);
        if (added != OPAL_OK)
            return added;
    }
    if (ReaderList().size() != levels + trickTracks)
        return OPAL_ERROR_GENERAL;
    if (first < ReaderList().size())
        m_firstTrickTrack = first;
    m_clusterIndexes.assign(first, nullptr);
    return OPAL_OK;
}

OPALError VideoReaderManager::DownloadNext() {
    Lock lock(m_mutex);
    const OPALPlayRate rate = m_rate;
    return OnCurrent([rate](IStreamingReader& reader) { return reader.DownloadNext(rate); });
}

OPALError VideoReaderManager::OpenCurrent() {
    Lock lock(m_mutex);
    if (CurrentIndex() == m_firstTrickTrack)
        return ReaderManager::OpenCurrent();
    return Current() ? OpenLevelsUpToCurrent() : NoReaderResult();
}

OPALError VideoReaderManager::OpenLevelsUpToCurrent() {
    for (size_t i = 0; i <= CurrentIndex(); ++i) {
        IStreamingReader& reader = *ReaderList()[i];
        if (reader.GetState() != STREAMING_READER_NOT_OPEN)
            continue;
        const OPALError opened = reader.Open();
        if (opened != OPAL_OK)
            return opened;
        IClusterIndex* index = nullptr;
        (void)reader.GetClusterIndex(index);
        if (i < m_clusterIndexes.size())
            m_clusterIndexes[i] = index;
    }
    return OPAL_OK;
}

OPALError VideoReaderManager::SetRate(OPALPlayRate rate) {
    Lock lock(m_mutex);
    if (!Current())
        return NoReaderResult();
    m_rate = rate;
    return rate == OPAL_PLAYRATE_ONEX ? OPAL_OK : SetStream(m_firstTrickTrack, true);
}

void VideoReaderManager::OnReadersDropped() {
    for (IClusterIndex*& index : m_clusterIndexes)
        index = nullptr;
    m_firstTrickTrack = kNone;
    m_rate = OPAL_PLAYRATE_ONEX;
}
