#pragma once

#include <pthread.h>

#pragma GCC visibility push(default)

/// The television's system services, under the chip vendor's names. All operations may be repeated.
class MSystem {
  public:
    static bool Initialize(int argc, char** argv, unsigned char flag);
    /// Readies DirectFB, with arguments of the television's own. When DFBARGS names no system: X11
    /// for a television with a window, otherwise one without a screen, which has no layer 1.
    static bool InitializeDFBLayer();
    static unsigned char bEnableInitialResLoading;
};

/// Plain mutex operations that also record who holds the lock. 0 for success.
int pthread_mutex_lock_tracker(pthread_mutex_t* mutex, const char* function, int line);
int pthread_mutex_unlock_tracker(pthread_mutex_t* mutex);

#pragma GCC visibility pop
