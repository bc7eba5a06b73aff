#include "StreamingReader/Readers.h"

Readers::Readers(const opal::StopSignal* stop) : m_video(stop), m_audio(stop), m_subtitle(stop) {}

Readers::~Readers() {
    (void)Readers::Finalize();
}

OPALError Readers::VideoInitialize(ISMILParser* parser, IClusterBuffer* buffer,
                                   IStreamingReaderNotify* notify, size_t index) {
    if (!parser || !buffer)
        return OPAL_ERROR_INVALID_ARGUMENT;
    return m_video.Initialize(parser, buffer, notify, index);
}

OPALError Readers::AudioInitialize(ISMILParser* parser, IClusterBuffer* buffer,
                                   IStreamingReaderNotify* notify, size_t index) {
    if (!parser || !buffer)
        return OPAL_ERROR_INVALID_ARGUMENT;
    return m_audio.Initialize(parser, buffer, notify, index);
}

OPALError Readers::SubtitleInitialize(ISMILParser* parser, IClusterBuffer* buffer,
                                      IStreamingReaderNotify* notify, size_t index) {
    if (!parser || !buffer)
        return OPAL_ERROR_INVALID_ARGUMENT;
    return m_subtitle.Initialize(parser, buffer, notify, index);
}

OPALError Readers::Finalize() {
    (void)m_video.Finalize();
    (void)m_audio.Finalize();
    return m_subtitle.Finalize();
}

std::string Readers::GetAudioCodecID() {
    std::string codecID;
    return m_audio.GetCodecID(codecID) == OPAL_OK ? codecID : std::string();
}

std::string Readers::GetAudioCodecID(size_t index) {
    std::string codecID;
    return m_audio.GetCodecID(index, codecID) == OPAL_OK ? codecID : std::string();
}

OPALError Readers::GetAudioInfo(AudioStreamInfo& info) {
    return m_audio.GetTrackInfo(info);
}

OPALError Readers::GetAudioInfo(size_t index, AudioStreamInfo& info) {
    return m_audio.GetTrackInfo(index, info);
}

OPALError Readers::StartTrickPlay(int64_t positionMs, OPALPlayRate rate) {
    if (rate == OPAL_PLAYRATE_ONEX)
        return OPAL_ERROR_INVALID_ARGUMENT;
    OPALError result = m_audio.Stop();
    if (result == OPAL_OK)
        result = m_video.SetRate(rate);
    if (result == OPAL_OK)
        result = m_video.Seek(positionMs);
    if (result == OPAL_OK)
        result = m_video.Start();
    return result;
}

OPALError Readers::SetVideoRate(OPALPlayRate rate) {
    return m_video.SetRate(rate);
}

size_t Readers::GetAudioStreamCount() {
    return m_audio.GetStreamCount();
}

size_t Readers::GetVideoStreamCount() {
    return m_video.GetStreamCount();
}

size_t Readers::GetSubtitleStreamCount() {
    return m_subtitle.GetStreamCount();
}

OPALError Readers::GetVideoDuration(int64_t& ms) {
    return m_video.GetDuration(ms);
}

OPALError Readers::StartAudio() {
    return m_audio.Start();
}

OPALError Readers::StartVideo() {
    return m_video.Start();
}

OPALError Readers::StartSubtitle() {
    return m_subtitle.Start();
}

OPALError Readers::StartAll() {
    OPALError result = StartAudio();
    if (result == OPAL_OK)
        result = StartVideo();
    if (result == OPAL_OK)
        result = StartSubtitle();
    return result;
}

OPALError Readers::StopAudio() {
    return m_audio.Stop();
}

OPALError Readers::StopVideo() {
    return m_video.Stop();
}

OPALError Readers::StopSubtitle() {
    return m_subtitle.Stop();
}

OPALError Readers::StopAll() {
    OPALError result = StopAudio();
    if (result == OPAL_OK)
        result = StopVideo();
    if (result == OPAL_OK)
        result = StopSubtitle();
    return result;
}

OPALError Readers::SeekAudio(int64_t& ms) {
    return m_audio.Seek(ms);
}

OPALError Readers::SeekVideo(int64_t& ms) {
    return m_video.Seek(ms);
}

OPALError Readers::SeekSubtitle(int64_t& ms) {
    return m_subtitle.Seek(ms);
}

OPALError Readers::SeekAll(int64_t& ms) {
    int64_t audioMs = ms;
    int64_t subtitleMs = ms;
    OPALError result = SeekAudio(audioMs);
    if (result == OPAL_OK)
        result = SeekVideo(ms);
    if (result != OPAL_OK)
        return result;
    // Subtitles that are still being opened are sought when they are ready.
    int state = STREAMING_READER_ERROR;
    if (GetSubtitleState(state) == OPAL_OK && state == STREAMING_READER_NOT_OPEN)
        return OPAL_OK;
    return SeekSubtitle(subtitleMs);
}

OPALError Readers::SetAudioStream(size_t index) {
    return m_audio.SetStream(index, true);
}

OPALError Readers::SetVideoStream(size_t index) {
    return m_video.SetStream(index, true);
}

OPALError Readers::SetSubtitleStream(size_t index) {
    return m_subtitle.SetStream(index, false);
}

size_t Readers::GetCurrentAudio() {
    return m_audio.GetCurrent();
}

size_t Readers::GetCurrentVideo() {
    return m_video.GetCurrent();
}

size_t Readers::GetCurrentSubtitle() {
    return m_subtitle.GetCurrent();
}

OPALError Readers::GetAudioState(int& state) {
    return m_audio.GetState(state);
}

OPALError Readers::GetVideoState(int& state) {
    return m_video.GetState(state);
}

OPALError Readers::GetSubtitleState(int& state) {
    return m_subtitle.GetState(state);
}

OPALError Readers::GetAudioPosition(int64_t& ms) {
    return m_audio.GetPosition(ms);
}

OPALError Readers::GetVideoPosition(int64_t& ms) {
    return m_video.GetPosition(ms);
}

OPALError Readers::GetSubtitlePosition(int64_t& ms) {
    return m_subtitle.GetPosition(ms);
}

OPALError Readers::GetPosition(int64_t& ms) {
    return GetVideoPosition(ms);
}

OPALError Readers::GetAudioError() {
    return m_audio.GetError();
}

OPALError Readers::GetVideoError() {
    return m_video.GetError();
}

OPALError Readers::GetSubtitleError() {
    return m_subtitle.GetError();
}

OPALError Readers::CancelAudio() {
    return m_audio.Cancel();
}

OPALError Readers::CancelVideo() {
    return m_video.Cancel();
}

OPALError Readers::CancelSlowVideo() {
    return m_video.Cancel(opal::RequestEnd::SlowTransfer);
}

OPALError Readers::CancelSubtitle() {
    return m_subtitle.Cancel();
}

OPALError Readers::CancelAll() {
    OPALError result = CancelAudio();
    if (result == OPAL_OK)
        result = CancelVideo();
    if (result == OPAL_OK)
        result = CancelSubtitle();
    return result;
}

OPALError Readers::GetSubtitleFont(const void*& data, size_t& size) {
    return m_subtitle.GetFont(data, size);
}

OPALError Readers::GetVideoBytesInFlight(size_t& bytes) {
    return m_video.GetBytesInFlight(bytes);
}

OPALError Readers::GetAudioBytesInFlight(size_t& bytes) {
    return m_audio.GetBytesInFlight(bytes);
}

OPALError Readers::GetSubtitleBytesInFlight(size_t& bytes) {
    return m_subtitle.GetBytesInFlight(bytes);
}

OPALError Readers::GetVideoBytesAhead(int64_t ms, size_t& bytes) {
    return m_video.GetBytesAhead(ms, bytes);
}

OPALError Readers::GetAudioBytesAhead(int64_t ms, size_t& bytes) {
    return m_audio.GetBytesAhead(ms, bytes);
}

OPALError Readers::GetSubtitleBytesAhead(size_t& bytes) {
    return m_subtitle.GetBytesAhead(0, bytes);
}

const std::vector<IClusterIndex*>& Readers::GetVideoClusterIndexes() {
    return m_video.GetClusterIndexes();
}

OPALError Readers::BeginAudio(ISMILParser* parser, IClusterBuffer* buffer,
                              IStreamingReaderNotify* notify, size_t index) {
    return m_audio.InitializeWithoutOpening(parser, buffer, notify, index);
}

OPALError Readers::BeginAudioStream(size_t index) {
    return m_audio.SetStream(index, false);
}

OPALError Readers::BeginVideoStream(size_t index) {
    return m_video.SetStream(index, false);
}

bool Readers::IsVideoTransferring() {
    return m_video.IsTransferring();
}

void Readers::GiveUpOpeningSubtitle() {
    m_subtitle.GiveUpOpening();
}

void Readers::WaitForCancelled() {
    m_video.WaitForCancelled();
    m_audio.WaitForCancelled();
    m_subtitle.WaitForCancelled();
}

OPALError Readers::FinalizeSubtitle() {
    return m_subtitle.Finalize();
}
