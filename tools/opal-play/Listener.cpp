#include "opal-play/Listener.h"

namespace opal::play {

using Kind = Notice::Kind;

void Listener::Post(Notice notice) {
    {
        const std::lock_guard<std::mutex> lock(m_mutex);
        m_notices.push_back(std::move(notice));
    }
    m_wake.Signal();
}

bool Listener::Take(Notice& notice) {
    const std::lock_guard<std::mutex> lock(m_mutex);
    if (m_notices.empty())
        return false;
    notice = std::move(m_notices.front());
    m_notices.pop_front();
    return true;
}

void Listener::PostSimple(Kind kind, int64_t value) {
    Notice notice;
    notice.kind = kind;
    notice.value = value;
    Post(std::move(notice));
}

void Listener::OnPlay(OPALPlayRate rate, size_t, size_t) {
    PostSimple(Kind::Play, rate);
}

void Listener::OnStop() {
    PostSimple(Kind::Stop);
}

void Listener::OnPause() {
    PostSimple(Kind::Pause);
}

void Listener::OnEndOfStream() {
    PostSimple(Kind::EndOfStream);
}

void Listener::OnAudioTrackChanged(size_t track) {
    PostSimple(Kind::AudioTrack, static_cast<int64_t>(track));
}

void Listener::OnSubtitleTrackChanged(size_t track) {
    PostSimple(Kind::SubtitleTrack, static_cast<int64_t>(track));
}

void Listener::OnPlayRateChanged(OPALPlayRate rate) {
    PostSimple(Kind::Rate, rate);
}

void Listener::OnUnderflow() {
    PostSimple(Kind::Underflow);
}

void Listener::OnVideoLevelChanged(size_t levelCount, const VideoLevelChange& from,
                                   const VideoLevelChange& to) {
    Notice notice;
    notice.kind = Kind::Level;
    notice.levelCount = levelCount;
    notice.from = from;
    notice.to = to;
    Post(std::move(notice));
}

void Listener::OnPosition(int64_t positionMs, size_t level) {
    Notice notice;
    notice.kind = Kind::Position;
    notice.value = positionMs;
    notice.level = level;
    Post(std::move(notice));
}

void Listener::OnError(OPALError code, const char* text) {
    Notice notice;
    notice.kind = Kind::Error;
    notice.value = code;
    notice.text = text ? text : "";
    Post(std::move(notice));
}

void Listener::OnSubtitle(int64_t startMs, int64_t, const std::string& text) {
    Notice notice;
    notice.kind = Kind::Subtitle;
    notice.value = startMs;
    notice.text = text;
    Post(std::move(notice));
}

void Listener::OnBufferingProgress(size_t) {
    m_wake.Signal();
}

}  // namespace opal::play
