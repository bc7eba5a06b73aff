#pragma once

#include <condition_variable>
#include <deque>
#include <functional>
#include <mutex>
#include <string>
#include <thread>

#include "Common/OPALError.h"

namespace opal::play {

/// Runs operations of the library one after another on a thread of its own, since some of them wait
/// for the network and flushing takes its time, while keys and signals must be heard.
class Commands {
  public:
    struct Command {
        std::string name;  ///< for a message should it fail
        std::function<OPALError()> run;
        bool replaces = false;  ///< takes the place of a waiting one of its kind
    };
    using Done = std::function<void(const Command&, OPALError)>;

    /// `done` is called on the thread after each command.
    explicit Commands(Done done);
    /// Waits for the one that runs; the others are dropped.
    ~Commands();
    Commands(const Commands&) = delete;
    Commands& operator=(const Commands&) = delete;

    void Post(Command command);
    /// No further command begins.
    void Close();
    /// Waits until none runs, at most so long; true if so.
    bool WaitIdle(int ms);

  private:
    void Run();

    const Done m_done;
    std::mutex m_mutex;
    std::condition_variable m_changed;
    std::deque<Command> m_waiting;
    bool m_closed = false;
    bool m_running = false;
    std::thread m_thread;
};

}  // namespace opal::play
