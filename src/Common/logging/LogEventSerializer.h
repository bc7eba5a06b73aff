#pragma once

#include <boost/noncopyable.hpp>
#include <cstddef>
#include <deque>
#include <string>

class LogEvent;

namespace opal {
class StopSignal;
}

/// Holds the events that wait to be uploaded and turns them into one XML text a transaction.
///
/// Threading: none; the log thread's.
/// Ownership: owns the events it is given.
/// Errors: beyond 16448 queued events further ones are dropped, and the next document says so.
class LogEventSerializer : boost::noncopyable {
  public:
    virtual ~LogEventSerializer();

    void AddEvent(LogEvent* event);
    /// Writes all queued events into `out` and destroys them. Nothing happens without events. A
    /// text longer than `maxSize` bytes is cut at an event boundary and marked in front. A raised
    /// signal ends the writing, which takes a while for many events; `out` is then left alone.
    void Serialize(std::string& out, size_t maxSize, const opal::StopSignal* stop = nullptr);
    /// An event was lost before it came here: the next document says so.
    void MarkPartial() { m_overflow = true; }
    void Clear();
    /// Clear, and whatever was lost is forgotten too: another session begins.
    void Forget();

  private:
    std::deque<LogEvent*> m_events;
    size_t m_bufferedSize = 0;
    bool m_overflow = false;
};
