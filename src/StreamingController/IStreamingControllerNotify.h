#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

#include "Common/OPALError.h"
#include "Common/OPALPlayRate.h"
#include "StreamingController/StreamingControllerTypes.h"

/// The application's listener.
///
/// Threading: calls come from the controller's event-loop thread, with four exceptions.
/// OnVideoLevelChanged comes on the caller's thread during initialisation, Seek and Resume; OnError
/// with -23 on the caller's thread during Play, Resume and SetPlayRate; OnError of a ticket that
/// does not open on the initialising thread; OnSubtitle on the subtitle sink's thread. Most calls
/// are made with the controller's lock held: a listener must not block. It may call the controller
/// back, for the lock is recursive; but not Finalize (which answers -1 from a callback), and from
/// OnSubtitle no operation at all, since that thread must not wait for the controller.
/// Ownership: the application's; it must outlive the controller's Finalize.
/// Units: milliseconds; percent.
class IStreamingControllerNotify {
  public:
    virtual ~IStreamingControllerNotify() = default;
    /// Playback has really started or restarted at 1x. (size_t)-1: no track.
    virtual void OnPlay(OPALPlayRate rate, size_t audioTrack, size_t subtitleTrack) = 0;
    /// Stop finished; also when the event loop ends.
    virtual void OnStop() = 0;
    virtual void OnPause() = 0;
    /// The last block has been played out.
    virtual void OnEndOfStream() = 0;
    virtual void OnAudioTrackChanged(size_t track) = 0;
    /// (size_t)-1 means off.
    virtual void OnSubtitleTrackChanged(size_t track) = 0;
    /// A trick rate has started.
    virtual void OnPlayRateChanged(OPALPlayRate rate) = 0;
    /// The video buffer ran dry; playback resumes by itself.
    virtual void OnUnderflow() = 0;
    /// Once during initialisation, from index 0 to the start level; then at each change.
    virtual void OnVideoLevelChanged(size_t levelCount, const VideoLevelChange& from,
                                     const VideoLevelChange& to) = 0;
    /// At most once a second. `level` is the one on the screen, (size_t)-1 if not known.
    virtual void OnPosition(int64_t positionMs, size_t level) = 0;
    /// `text` is empty, a message of the content session, or null with -23.
    virtual void OnError(OPALError code, const char* text) = 0;
    virtual void OnSubtitle(int64_t startMs, int64_t endMs, const std::string& text) = 0;
    /// Whenever the figure changes.
    virtual void OnBufferingProgress(size_t percent) = 0;
};
