#include "opal-play/Tracks.h"

#include <algorithm>

namespace opal::play {
namespace {

std::string Listed(const std::vector<std::string>& languages) {
    std::string text;
    for (size_t i = 0; i < languages.size(); ++i)
        text += (i == 0 ? " " : ", ") + std::to_string(i) + ' ' + languages[i];
    return text.empty() ? " none" : text;
}

}  // namespace

void Tracks::Read(IStreamingController& controller) {
    for (size_t i = 0; i < controller.GetAudioTrackCount(); ++i) {
        AudioTrackInfo info;
        (void)controller.GetAudioTrackInfo(i, info);
        m_audio.push_back(info.language);
    }
    for (size_t i = 0; i < controller.GetSubtitleTrackCount(); ++i) {
        SubtitleTrackInfo info;
        (void)controller.GetSubtitleTrackInfo(i, info);
        m_subtitles.push_back(info.language);
    }
}

std::string Tracks::Text() const {
    return "audio:" + Listed(m_audio) + "; subtitles:" + Listed(m_subtitles);
}

int64_t Tracks::SubtitlesIn(const std::string& language) const {
    const auto found = std::find_if(
        m_subtitles.begin(), m_subtitles.end(), [&language](const std::string& candidate) {
            const size_t length = std::min(language.size(), candidate.size());
            return length >= 2 && language.compare(0, length, candidate, 0, length) == 0;
        });
    return found == m_subtitles.end() ? -1 : found - m_subtitles.begin();
}

int64_t Tracks::NextSubtitles(int64_t track) const {
    return track + 1 < static_cast<int64_t>(m_subtitles.size()) ? track + 1 : -1;
}

}  // namespace opal::play
