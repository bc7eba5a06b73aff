#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>

#include "Common/OPALStreamType.h"

/// The door through which downloads and restarts are reported to the switching controller.
///
/// Threading: any thread. Does nothing once the controller is gone.
/// Units: milliseconds, bytes.
class StreamSwitchingNotify {
  public:
    /// The report of a finished download.
    struct Message {
        int64_t downloadTime = 0;
        int64_t downloadSize = 0;      ///< only the low 32 bits are used
        int64_t bufferedDuration = 0;  ///< what the stream has buffered now
        int64_t timeSinceStart = 0;  ///< time of the report, counted from the end of initialisation
        size_t clusterIndex = 0;
    };

    enum event : int {
        EVENT_DOWNLOAD_COMPLETE = 1,
        /// The stream starts again from an empty buffer: after a jump, and on an underflow.
        EVENT_RESTART = 2
    };

    /// What stands behind the door.
    class Handler {
      public:
        virtual void eventHandler(OPALStreamType type, event what, const Message& message) = 0;
        virtual void eventHandler(OPALStreamType type, event what, int first, int second) = 0;

      protected:
        ~Handler() = default;
    };

    explicit StreamSwitchingNotify(Handler* handler) : m_handler(handler) {}

    void Notify(OPALStreamType type, event what, const Message& message) {
        if (Handler* handler = m_handler.load())
            handler->eventHandler(type, what, message);
    }
    void Notify(OPALStreamType type, event what, int first, int second) {
        if (Handler* handler = m_handler.load())
            handler->eventHandler(type, what, first, second);
    }
    void Clear() { m_handler = nullptr; }

  private:
    std::atomic<Handler*> m_handler;
};
