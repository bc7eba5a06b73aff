#pragma once

#include <atomic>
#include <cstddef>

#include "Common/OPALError.h"
#include "PlatformAdapter/Common/IPlatformSubtitleNotify.h"
#include "StreamingController/src/AudioRoad.h"
#include "StreamingController/src/StreamPipe.h"

namespace opal {

/// The way of a subtitle track from its selection to the screen, and every rule about subtitles: a
/// track is opened by the reader manager's thread while playback is held; a track that fails turns
/// subtitles off and ends no film; a track that cannot be had is ignored.
///
///     Off -> Select -> Opening -> Pending told -> Continue ... -> On
///      ^                  |                          |            |
///      +--- Select(none), a failure of the stream ---+------------+
///
/// Threading: under the session's lock; IsOn and Current from any thread that the accessors' lock
/// lets in.
/// Ownership: refers to the controller's objects.
/// Errors: -4 without a session, -2 for an index beyond the tracks, -5 for a track that cannot be
/// had, -7 from Continue while the stream opens; else the reader's, the sink's and the writer's.
class SubtitleRoad {
  public:
    static constexpr size_t kNone = static_cast<size_t>(-1);

    enum class State {
        Off,
        Opening,  ///< selected; the stream is being opened, playback waits for it
        On,
        Failed  ///< the stream has failed; the next turn turns subtitles off
    };

    /// What lies with the controller.
    struct Figures {
        std::atomic<bool>& on;
        bool& savedWritersPaused;
        size_t& targetBytes;
        boost::scoped_ptr<IPlatformSubtitleNotify>& notify;
    };

    SubtitleRoad(const SessionObjects& session, StreamPipe& pipe, const Figures& figures,
                 RoadHooks hooks, std::function<IClusterBuffer*()> newBuffer,
                 std::function<IPlatformSubtitleNotify*()> newNotify);

    State GetState() const;
    bool IsOn() const { return m_figures.on; }
    /// The track that is shown; kNone while off or opening.
    size_t Current() const;
    int64_t CurrentAsset() const;
    /// Turns to a track, or off with kNone.
    OPALError Select(size_t index);
    /// Playback is held for the selected track from now on; `writersPaused` is what it comes back
    /// to. A second selection finds the writers paused by the first.
    void BeginPending(size_t index, bool writersPaused);
    bool IsPending() const { return m_pending != kNone; }
    bool IsPending(size_t index) const { return IsPending() && m_pending == index; }
    /// Arms the progress figure for the selected track.
    void ArmBuffering();
    /// Once the stream is open: configures the sink, seeks, and is on.
    OPALError Continue(size_t index);
    /// Ends what BeginPending began. True if playback was held; `writersPaused` then is what it
    /// comes back to.
    bool EndPending(bool& writersPaused);
    /// The stream's error, if its failing is not a part of an orderly stop.
    OPALError Error() const;
    /// Turns subtitles off after a failure, so that a later selection begins anew and no operation
    /// meets the old error. True if there was something to turn off.
    bool DropFailed();
    /// The font of the track; -7 while the stream opens.
    OPALError GetFont(const void*& font, size_t& size) const;
    void Reset();

    // Nothing of these happens while subtitles are off or not ready.
    OPALError StartReader();
    OPALError StartWriter();
    OPALError PauseWriter();

  private:
    OPALError Open(size_t index);
    OPALError TurnOff();
    OPALError Configure(size_t index);

    const SessionObjects& m_session;
    StreamPipe& m_pipe;
    const Figures m_figures;
    const RoadHooks m_hooks;
    const std::function<IClusterBuffer*()> m_newBuffer;
    const std::function<IPlatformSubtitleNotify*()> m_newNotify;
    /// The track that the queued message is for; a message for another is superseded.
    size_t m_pending = kNone;
};

}  // namespace opal
