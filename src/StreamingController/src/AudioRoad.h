#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>

#include "Common/OPALError.h"
#include "StreamingController/src/SessionReports.h"
#include "StreamingController/src/StreamPipe.h"

namespace opal {

/// What a road asks of the session around it.
struct RoadHooks {
    /// A new sink, owned by whoever receives it; null when there is none to be had.
    std::function<IPlatform*()> newSink;
    /// Lets the session adapt codec data or a font on the way to the sink.
    std::function<OPALError(const void*, size_t, const void*&, size_t&)> adapt;
    /// Where playback is, in milliseconds.
    std::function<OPALError(int64_t&)> position;
};

/// The way of an audio track from its selection to its sink. A track is opened by the reader
/// manager's thread while the session goes on: Select answers -7, and Continue is called until it
/// answers something else.
///
/// A track that the sink refuses (-23) is read all the same, by a writer that is disabled: buffers
/// fill and playback starts, silently.
///
/// Threading: under the session's lock, but for OpenFirst.
/// Ownership: refers to the controller's objects.
/// Errors: -4 without a session, -2 for an index beyond the tracks, -23 for a refused track, which
/// then is the current one; else the reader's, the sink's and the writer's.
class AudioRoad {
  public:
    AudioRoad(const SessionObjects& session, const SessionReports& reports, StreamPipe& pipe,
              RoadHooks hooks);

    /// The manifest has audio, and no track of it has been opened.
    bool NeedsOpening() const;
    /// Opens track 0 on the calling thread, for as long as the network takes. Without the session's
    /// lock; whoever calls sees to it that the session's objects stay.
    OPALError OpenFirst();
    /// Opens track 0 on the manager's thread.
    OPALError BeginFirst();
    /// Makes a track the current one. The last selection wins.
    OPALError Select(size_t index);
    OPALError Continue();
    /// Select or BeginFirst has begun what Continue is to end.
    bool IsPending() const { return m_pending; }
    /// A track has been selected, whether it runs by now or not.
    bool IsChosen() const { return m_pending || m_ready; }
    /// Wakes the reader; while a track is opened, when it is open and has been sought.
    OPALError StartReader();
    /// Nothing starts a track that is opened before the next StartReader.
    void Stop() {
        m_startWanted = false;
        m_stopped = true;
    }
    /// The current track's; -1 without one.
    int64_t CurrentAsset() const;
    void Reset();

  private:
    OPALError Leave(size_t index);
    OPALError Configure();
    OPALError Start(int64_t position, bool disabled);
    OPALError Finish();

    const SessionObjects& m_session;
    const SessionReports& m_reports;
    StreamPipe& m_pipe;
    const RoadHooks m_hooks;
    size_t m_wanted = 0;
    bool m_pending = false;
    bool m_selected = false;  ///< the readers know m_wanted
    bool m_ready = false;     ///< a track has been configured
    bool m_startWanted = false;
    bool m_stopped = false;
};

}  // namespace opal
