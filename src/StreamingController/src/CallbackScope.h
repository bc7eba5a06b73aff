#pragma once

#include "StreamingController/StreamingController.h"

/// Marks, for the calling thread, that a controller is calling its listener.
class StreamingController::CallbackScope {
  public:
    explicit CallbackScope(const StreamingController* controller) : m_outer(t_calling) {
        t_calling = controller;
    }
    ~CallbackScope() { t_calling = m_outer; }
    CallbackScope(const CallbackScope&) = delete;
    CallbackScope& operator=(const CallbackScope&) = delete;

    static bool IsCalling(const StreamingController* controller) { return t_calling == controller; }

  private:
    static inline thread_local const StreamingController* t_calling = nullptr;
    const StreamingController* const m_outer;
};

template <typename Call>
void StreamingController::Tell(Call call) {
    if (IStreamingControllerNotify* listener = m_pNotify) {
        CallbackScope scope(this);
        call(*listener);
    }
}
