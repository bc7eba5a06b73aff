#pragma once

#include <cstdint>

#include "Common/Export.h"
#include "Common/OPALError.h"
#include "Common/SessionEvents.h"

/// Sees what a session does: every request, every decision with its figures, buffers, states, the
/// television's sinks. For plots, statistics and tests; playback does not depend on it.
///
/// Threading: all calls come from one thread of the library's, in the order in which things
/// happened, with no lock held: a callback may take its time and call the controller. It is behind
/// by what is queued. The queue has room for 8,192 events; beyond that, and where there is no
/// memory for one, events are dropped and counted, and playback never waits.
/// Ownership: the application's; it stays until SetSessionObserver has returned with another one.
/// Errors: what a callback throws is dropped.
/// Compatibility: new operations come last and do nothing unless they are overridden.
class ISessionObserver {
  public:
    virtual ~ISessionObserver() = default;
    virtual void OnRequest(const opal::RequestEvent&) {}
    virtual void OnDecision(const opal::DecisionEvent&) {}
    virtual void OnSwitchingCall(const opal::SwitchingCallEvent&) {}
    virtual void OnLevelIndex(const opal::LevelIndexEvent&) {}
    virtual void OnBuffers(const opal::BufferEvent&) {}
    virtual void OnState(const opal::StateEvent&) {}
    virtual void OnSink(const opal::SinkEvent&) {}
    /// `total` events of this observer's were dropped so far; told where they are missing, before
    /// the event that came after them, or at the end.
    virtual void OnDropped(uint64_t /*total*/) {}
};

/// Has the process's sessions observed from now on; null ends it. What is queued for the observer
/// before is delivered first, and no call of it is under way when this returns. Without an observer
/// a place that could tell something costs one load.
///
/// Threading: any thread but the observer's own, and not from within a callback of the listener's,
/// which holds locks that a callback of the observer's may wait for. Errors: -1 from within a
/// callback, -5 without memory or threads; then nothing has changed.
OPAL_EXPORT OPALError SetSessionObserver(ISessionObserver* observer);
