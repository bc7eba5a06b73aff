#include "MSystem.h"

#include <cstdlib>
#include <map>
#include <mutex>
#include <string>

#include "Control.h"
#include "TvSet.h"

namespace {

std::mutex g_holdersMutex;

std::map<const void*, tvset::MutexHolder>& Holders() {
    static auto* holders = new std::map<const void*, tvset::MutexHolder>;  // outlives every thread
    return *holders;
}

}  // namespace

unsigned char MSystem::bEnableInitialResLoading = 1;

bool MSystem::Initialize(int, char**, unsigned char) {
    return true;
}

bool MSystem::InitializeDFBLayer() {
    // Read by DirectFB when its first user starts it, which may be never.
    const char* display = std::getenv("DISPLAY");
    const bool x11 = display != nullptr && *display != '\0';
    const std::string arguments = std::string(x11 ? "system=x11" : "system=dummy") +
                                  ",mode=1280x720,no-cursor,no-sighandler,quiet";
    return setenv("DFBARGS", arguments.c_str(), 0) == 0;
}

int pthread_mutex_lock_tracker(pthread_mutex_t* mutex, const char* function, int line) {
    const int result = pthread_mutex_lock(mutex);
    if (result == 0) {
        const std::lock_guard<std::mutex> lock(g_holdersMutex);
        tvset::MutexHolder& holder = Holders()[mutex];
        holder.function = function != nullptr ? function : "";
        holder.line = line;
        holder.thread = tvset::ThreadNumber();
    }
    return result;
}

int pthread_mutex_unlock_tracker(pthread_mutex_t* mutex) {
    {
        const std::lock_guard<std::mutex> lock(g_holdersMutex);
        Holders().erase(mutex);
    }
    return pthread_mutex_unlock(mutex);
}

namespace tvset {

bool FindMutexHolder(const void* mutex, MutexHolder& holder) {
    const std::lock_guard<std::mutex> lock(g_holdersMutex);
    const auto found = Holders().find(mutex);
    if (found == Holders().end()) {
        return false;
    }
    holder = found->second;
    return true;
}

}  // namespace tvset
