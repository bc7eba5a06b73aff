#include "SMILParser/ISMILParser.h"
#include "StreamingReader/ReaderManager.h"

AudioReaderManager::~AudioReaderManager() {
    (void)Finalize();
}

OPALError AudioReaderManager::Initialize(ISMILParser* parser, IClusterBuffer* buffer,
                                         IStreamingReaderNotify* notify, size_t index) {
    // Held throughout, or the thread would open the reader at the same time.
    Lock lock(m_mutex);
    const OPALError initialized = ReaderManager::Initialize(parser, buffer, notify, index);
    return initialized == OPAL_OK ? OpenAfterInitialize() : initialized;
}

OPALError AudioReaderManager::CreateReaders(ISMILParser* parser, IClusterBuffer* buffer,
                                            IStreamingReaderNotify* notify, size_t) {
    Lock lock(m_mutex);
    const size_t tracks = parser->GetAudioTrackCount();
    for (size_t i = 0; i < tracks; ++i) {
        boost::shared_ptr<IAudioTrack> track;
        if (parser->GetAudioTrack(i, track) != OPAL_OK || !track)
            continue;
        const OPALError added = AddReader(track->GetURI(), track->GetHeaderRequestSize(), buffer,
                                          notify, OPAL_STREAM_AUDIO, i);
        if (added != OPAL_OK)
            return added;
    }
    return ReaderList().size() == tracks ? OPAL_OK : OPAL_ERROR_GENERAL;
}

OPALError AudioReaderManager::GetTrackInfo(AudioStreamInfo& info) {
    Lock lock(m_mutex);
    return OnCurrent([&](IStreamingReader& reader) { return reader.GetTrackInfo(info); });
}

OPALError AudioReaderManager::GetTrackInfo(size_t index, AudioStreamInfo& info) {
    Lock lock(m_mutex);
    if (index >= ReaderList().size())
        return OPAL_ERROR_INVALID_ARGUMENT;
    return ReaderList()[index]->GetTrackInfo(info);
}

OPALError AudioReaderManager::GetCodecID(std::string& codecID) {
    AudioStreamInfo info;
    const OPALError result = GetTrackInfo(info);
    codecID = info.codecID;
    return result;
}

OPALError AudioReaderManager::GetCodecID(size_t index, std::string& codecID) {
    AudioStreamInfo info;
    const OPALError result = GetTrackInfo(index, info);
    codecID = info.codecID;
    return result;
}

SubtitleReaderManager::~SubtitleReaderManager() {
    (void)Finalize();
}

OPALError SubtitleReaderManager::SetStream(size_t index, bool open) {
    Lock lock(m_mutex);
    const Reader before = Current();
    if (!before)
        return NoReaderResult();
    if (index >= ReaderList().size())
        return OPAL_ERROR_INVALID_ARGUMENT;
    // Its connection is gone before the next one is made. A failed stream that is selected again is
    // opened afresh.
    if (index != CurrentIndex() || IsThreadEnded())
        (void)before->Finalize();
    const OPALError selected = ReaderManager::SetStream(index, open);
    return selected == OPAL_OK ? RestartEndedThread() : selected;
}

OPALError SubtitleReaderManager::CreateReaders(ISMILParser* parser, IClusterBuffer* buffer,
                                               IStreamingReaderNotify* notify, size_t) {
    Lock lock(m_mutex);
    const size_t tracks = parser->GetSubtitleTrackCount();
    for (size_t i = 0; i < tracks; ++i) {
        boost::shared_ptr<ISubtitleTrack> track;
        if (parser->GetSubtitleTrack(i, track) != OPAL_OK || !track)
            continue;
        const OPALError added = AddReader(track->GetURI(), track->GetHeaderRequestSize(), buffer,
                                          notify, OPAL_STREAM_SUBTITLE, i);
        if (added != OPAL_OK)
            return added;
    }
    return ReaderList().size() == tracks ? OPAL_OK : OPAL_ERROR_GENERAL;
}

OPALError SubtitleReaderManager::GetFont(const void*& data, size_t& size) {
    Lock lock(m_mutex);
    return OnCurrent([&](IStreamingReader& reader) { return reader.GetFont(data, size); });
}
