#include "MSystem.h"

#include <dlfcn.h>

#include <cstdio>
#include <cstdlib>
#include <map>
#include <string>

#include "Common/Mutex.h"
#include "Control.h"
#include "TvSet.h"

namespace {

opal::Mutex g_holdersMutex;

std::map<const void*, tvset::MutexHolder>& Holders() OPAL_REQUIRES(g_holdersMutex) {
    static auto* holders = new std::map<const void*, tvset::MutexHolder>;  // outlives every thread
    return *holders;
}

/// Whether the X server of DISPLAY offers GLX. DirectFB's x11 system then crashes while it starts.
bool ServerHasGlx() {
    using OpenDisplay = void* (*)(const char*);
    using QueryExtension = int (*)(void*, const char*, int*, int*, int*);
    using CloseDisplay = int (*)(void*);
    void* library = dlopen("libX11.so.6", RTLD_NOW | RTLD_LOCAL);
    if (library == nullptr) {
        return false;
    }
    const auto open = reinterpret_cast<OpenDisplay>(dlsym(library, "XOpenDisplay"));
    const auto query = reinterpret_cast<QueryExtension>(dlsym(library, "XQueryExtension"));
    const auto close = reinterpret_cast<CloseDisplay>(dlsym(library, "XCloseDisplay"));
    bool found = false;
    void* display =
        open != nullptr && query != nullptr && close != nullptr ? open(nullptr) : nullptr;
    if (display != nullptr) {
        int opcode = 0;
        int event = 0;
        int error = 0;
        found = query(display, "GLX", &opcode, &event, &error) != 0;
        close(display);
    }
    dlclose(library);
    return found;
}

}  // namespace

unsigned char MSystem::bEnableInitialResLoading = 1;

bool MSystem::Initialize(int, char**, unsigned char) {
    return true;
}

bool MSystem::InitializeDFBLayer() {
    // Read by DirectFB when its first user starts it, which may be never.
    if (std::getenv("DFBARGS") != nullptr) {
        return true;
    }
    const char* display = std::getenv("DISPLAY");
    bool x11 = display != nullptr && *display != '\0';
    if (x11 && ServerHasGlx()) {
        std::fprintf(stderr,
                     "television set: the X server %s offers GLX, with which DirectFB crashes; "
                     "nothing will be seen. Use one without (Xephyr :9 -extension GLX), or set "
                     "DFBARGS=system=x11 to try all the same.\n",
                     display);
        x11 = false;
    }
    const std::string arguments = std::string(x11 ? "system=x11" : "system=dummy") +
                                  ",mode=1280x720,no-cursor,no-sighandler,quiet";
    return setenv("DFBARGS", arguments.c_str(), 0) == 0;
}

int pthread_mutex_lock_tracker(pthread_mutex_t* mutex, const char* function, int line) {
    const int result = pthread_mutex_lock(mutex);
    if (result == 0) {
        const opal::MutexLock lock(g_holdersMutex);
        tvset::MutexHolder& holder = Holders()[mutex];
        holder.function = function != nullptr ? function : "";
        holder.line = line;
        holder.thread = tvset::ThreadNumber();
    }
    return result;
}

int pthread_mutex_unlock_tracker(pthread_mutex_t* mutex) {
    {
        const opal::MutexLock lock(g_holdersMutex);
        Holders().erase(mutex);
    }
    return pthread_mutex_unlock(mutex);
}

namespace tvset {

bool FindMutexHolder(const void* mutex, MutexHolder& holder) {
    const opal::MutexLock lock(g_holdersMutex);
    const auto found = Holders().find(mutex);
    if (found == Holders().end()) {
        return false;
    }
    holder = found->second;
    return true;
}

}  // namespace tvset
