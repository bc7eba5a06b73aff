#pragma once

#include <deque>
#include <mutex>
#include <string>

#include "StreamingController/IStreamingControllerNotify.h"
#include "opal-play/Wake.h"

namespace opal::play {

/// One callback of the library, or the end of a command.
struct Notice {
    enum class Kind {
        Opened,
        Failed,
        Play,
        Stop,
        Pause,
        EndOfStream,
        AudioTrack,
        SubtitleTrack,
        Rate,
        Underflow,
        Level,
        Position,
        Error,
        Subtitle
    };

    Kind kind = Kind::Opened;
    int64_t value = 0;  ///< rate, track, position in ms, code
    size_t level = static_cast<size_t>(-1);
    size_t levelCount = 0;
    VideoLevelChange from;
    VideoLevelChange to;
    std::string text;
};

/// Takes the library's callbacks on whatever thread they come and hands them to the main loop, so
/// that none of them blocks and the library is called from one thread only.
class Listener : public IStreamingControllerNotify {
  public:
    explicit Listener(const Wake& wake) : m_wake(wake) {}

    void Post(Notice notice);
    bool Take(Notice& notice);

    void OnPlay(OPALPlayRate rate, size_t audioTrack, size_t subtitleTrack) override;
    void OnStop() override;
    void OnPause() override;
    void OnEndOfStream() override;
    void OnAudioTrackChanged(size_t track) override;
    void OnSubtitleTrackChanged(size_t track) override;
    void OnPlayRateChanged(OPALPlayRate rate) override;
    void OnUnderflow() override;
    void OnVideoLevelChanged(size_t levelCount, const VideoLevelChange& from,
                             const VideoLevelChange& to) override;
    void OnPosition(int64_t positionMs, size_t level) override;
    void OnError(OPALError code, const char* text) override;
    void OnSubtitle(int64_t startMs, int64_t endMs, const std::string& text) override;
    void OnBufferingProgress(size_t percent) override;

  private:
    void PostSimple(Notice::Kind kind, int64_t value = 0);

    const Wake& m_wake;
    std::mutex m_mutex;
    std::deque<Notice> m_notices;
};

}  // namespace opal::play
