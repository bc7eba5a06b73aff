#include "SMILParser/ISMILParser.h"
#include "StreamingReader/ReaderManager.h"

AudioReaderManager::~AudioReaderManager() {
    (void)Finalize();
}

OPALError AudioReaderManager::Initialize(ISMILParser* parser, IClusterBuffer* buffer,
                                         IStreamingReaderNotify* notify, size_t index) {
    // Held throughout, or the thread would open the reader at the same time.
    opal::RecursiveLock lock(m_mutex);
    const OPALError initialized = ReaderManager::Initialize(parser, buffer, notify, index);
    return initialized == OPAL_OK ? OpenAfterInitialize() : initialized;
}

OPALError AudioReaderManager::InitializeWithoutOpening(ISMILParser* parser, IClusterBuffer* buffer,
                                                       IStreamingReaderNotify* notify,
                                                       size_t index) {
    return ReaderManager::Initialize(parser, buffer, notify, index);
}

OPALError AudioReaderManager::CreateReaders(ISMILParser* parser, IClusterBuffer* buffer,
                                            IStreamingReaderNotify* notify, size_t) {
    opal::RecursiveLock lock(m_mutex);
    return AddReaders<IAudioTrack>(
        parser->GetAudioTrackCount(),
        [&](size_t i, boost::shared_ptr<IAudioTrack>& track) {
            return parser->GetAudioTrack(i, track);
        },
        buffer, notify, OPAL_STREAM_AUDIO);
}

OPALError AudioReaderManager::GetTrackInfo(AudioStreamInfo& info) {
    return OnCurrent([&](IStreamingReader& reader) { return reader.GetTrackInfo(info); });
}

OPALError AudioReaderManager::GetTrackInfo(size_t index, AudioStreamInfo& info) {
    const Reader reader = At(index);
    return reader ? reader->GetTrackInfo(info) : OPAL_ERROR_INVALID_ARGUMENT;
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
    const Reader before = Current();
    if (!before)
        return NoReaderResult();
    if (index >= GetStreamCount())
        return OPAL_ERROR_INVALID_ARGUMENT;
    // Its connection is gone before the next one is made. A failed stream that is selected again is
    // opened afresh.
    if (IsThreadEnded())
        (void)before->Finalize();
    else if (index != GetCurrent())
        CloseBeforeNextOpening(before);
    const OPALError selected = ReaderManager::SetStream(index, open);
    return selected == OPAL_OK ? RestartEndedThread() : selected;
}

OPALError SubtitleReaderManager::CreateReaders(ISMILParser* parser, IClusterBuffer* buffer,
                                               IStreamingReaderNotify* notify, size_t) {
    opal::RecursiveLock lock(m_mutex);
    return AddReaders<ISubtitleTrack>(
        parser->GetSubtitleTrackCount(),
        [&](size_t i, boost::shared_ptr<ISubtitleTrack>& track) {
            return parser->GetSubtitleTrack(i, track);
        },
        buffer, notify, OPAL_STREAM_SUBTITLE);
}

OPALError SubtitleReaderManager::GetFont(const void*& data, size_t& size) {
    return OnCurrent([&](IStreamingReader& reader) { return reader.GetFont(data, size); });
}
