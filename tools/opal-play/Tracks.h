#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "StreamingController/IStreamingController.h"

namespace opal::play {

/// Which sound and subtitle tracks the presentation has, by number and language. One thread.
class Tracks {
  public:
    void Read(IStreamingController& controller);
    /// In a line for the user.
    std::string Text() const;
    size_t AudioCount() const { return m_audio.size(); }
    size_t SubtitleCount() const { return m_subtitles.size(); }
    /// The first subtitle track in the language, "en" being "eng" as well; -1 without one.
    int64_t SubtitlesIn(const std::string& language) const;
    /// The subtitle track behind `track`; behind the last one -1, which is off.
    int64_t NextSubtitles(int64_t track) const;

  private:
    std::vector<std::string> m_audio;
    std::vector<std::string> m_subtitles;
};

}  // namespace opal::play
