#pragma once

#include <boost/noncopyable.hpp>
#include <boost/scoped_ptr.hpp>
#include <cstdint>

class ILogEventSender;
class LogEvent;

/// The process-wide collector of log events: any thread posts, one thread at nice 19 gathers them
/// and sends a batch through the sender whenever it is asked to flush. Playback is never affected
/// by what becomes of a log.
///
/// Threading: Post and Flush from any thread, without waiting for the network. Start and Stop from
/// any thread of a controller's; they wait for one another, and Stop joins the log thread. With two
/// controllers in a process the later Start wins, and either one's Stop ends it.
/// Ownership: the sender is not owned and must outlive Stop. An accepted event is the server's.
/// Errors: before the first Start every event is refused. Beyond 16448 events that wait, because an
/// upload takes its time, further ones are refused, and the next document says so. Without a log
/// thread, after Stop or when the connection failed, events are still taken, as many at most; the
/// next Start or Stop drops them.
class LogServer : boost::noncopyable {
  public:
    static LogServer& Instance();
    virtual ~LogServer();

    /// Starts the log thread, which connects the sender when its first message has been handled. A
    /// running thread is stopped first. Null: nothing happens.
    void Start(ILogEventSender* sender);
    /// True: the event was taken over. False: the caller keeps it and destroys it.
    [[nodiscard]] bool Post(LogEvent* event);
    /// Posts the event, and destroys it if it is refused.
    void PostOrDestroy(LogEvent* event);
    void Flush();
    /// Sends what is left and ends the log thread. What the thread, which has the lowest priority,
    /// has not begun to send after `patienceMs` is dropped; below 0 it has all the time it needs.
    void Stop(int64_t patienceMs = -1);

  private:
    LogServer();
    class PIMPL;
    boost::scoped_ptr<PIMPL> m_pimpl;
};
