#pragma once

#include <atomic>
#include <utility>
#include <variant>

#include "Common/SessionEvents.h"

namespace opal {

using AnySessionEvent = std::variant<RequestEvent, DecisionEvent, SwitchingCallEvent,
                                     LevelIndexEvent, BufferEvent, StateEvent, SinkEvent>;

/// Where the events of the process's sessions go.
///
/// Threading: Take is called from any thread, with whatever locks are held where something
/// happened: it takes no lock but a leaf's of its own, and waits for nothing.
class SessionEventSink {
  public:
    virtual ~SessionEventSink() = default;
    virtual void Take(AnySessionEvent&& event) = 0;
    /// An event was lost before it came here, for want of memory.
    virtual void Lost() noexcept = 0;
};

/// The one place where the library's parts tell what happens.
class SessionEventStream {
  public:
    /// One load; to be asked before an event is put together.
    static bool IsObserved() { return s_sink.load(std::memory_order_acquire) != nullptr; }
    /// Null: nobody listens. A sink is never destroyed, since a thread may be inside it.
    static void SetSink(SessionEventSink* sink) { s_sink.store(sink, std::memory_order_release); }
    /// Runs `tell`, which puts an event together and tells it, where somebody listens. Never
    /// throws: what there is no memory for is not told.
    template <typename Function>
    static void IfObserved(Function tell) noexcept {
        SessionEventSink* const sink = s_sink.load(std::memory_order_acquire);
        if (!sink)
            return;
        try {
            tell();
        } catch (...) {
            sink->Lost();
        }
    }
    /// Stamps the event with the time, unless it has one. Never throws: an event for which there is
    /// no memory is lost.
    template <typename Event>
    static void Tell(Event event) noexcept {
        SessionEventSink* const sink = s_sink.load(std::memory_order_acquire);
        if (!sink)
            return;
        try {
            if (event.timeUs == 0)
                event.timeUs = NowUs();
            sink->Take(AnySessionEvent(std::move(event)));
        } catch (...) {
            sink->Lost();
        }
    }
    /// The library's clock, microseconds since 1970.
    static int64_t NowUs();

  private:
    static std::atomic<SessionEventSink*> s_sink;
};

}  // namespace opal
