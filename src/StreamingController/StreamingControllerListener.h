#pragma once

#include "StreamingController/IStreamingControllerNotify.h"

/// A listener that does nothing: an application overrides what it wants to hear of. All that
/// IStreamingControllerNotify says of threads, locks and ownership holds.
class StreamingControllerListener : public IStreamingControllerNotify {
  public:
    void OnPlay(OPALPlayRate, size_t, size_t) override {}
    void OnStop() override {}
    void OnPause() override {}
    void OnEndOfStream() override {}
    void OnAudioTrackChanged(size_t) override {}
    void OnSubtitleTrackChanged(size_t) override {}
    void OnPlayRateChanged(OPALPlayRate) override {}
    void OnUnderflow() override {}
    void OnVideoLevelChanged(size_t, const VideoLevelChange&, const VideoLevelChange&) override {}
    void OnPosition(int64_t, size_t) override {}
    void OnError(OPALError, const char*) override {}
    void OnSubtitle(int64_t, int64_t, const std::string&) override {}
    void OnBufferingProgress(size_t) override {}
};
