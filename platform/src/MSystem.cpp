#include "MSystem.h"

#include <directfb.h>
#include <dlfcn.h>

#include <cstdio>
#include <cstdlib>
#include <map>
#include <string>

#include "Common/Mutex.h"
#include "Control.h"
#include "Registry.h"
#include "TvSet.h"

namespace {

/// DirectFB without a screen; it has no layer 1.
constexpr const char* kNoSystem = "dummy";
constexpr const char* kMode = "1280x720";
constexpr const char* kSwitches[] = {"no-cursor", "no-sighandler", "quiet"};

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
    if (library == nullptr)
        return false;
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

opal::Mutex g_directFBMutex;

/// What this file has put into DFBARGS; nothing of the user's.
std::string& OwnArguments() OPAL_REQUIRES(g_directFBMutex) {
    static auto* arguments = new std::string;
    return *arguments;
}

/// DirectFB's system. Only a television with a window opens one; `tell`: the user chose none.
const char* PickSystem(bool tell) {
    const char* display = std::getenv("DISPLAY");
    if (tvset::Registry::Get().Output() == tvset::VideoOutput::Headless || display == nullptr ||
        *display == '\0')
        return kNoSystem;
    if (!ServerHasGlx())
        return "x11";
    if (tell) {
        std::fprintf(stderr,
                     "television set: the X server %s offers GLX, with which DirectFB crashes; "
                     "nothing will be seen. Use one without (Xephyr :9 -extension GLX), or set "
                     "DFBARGS=system=x11 to try all the same.\n",
                     display);
    }
    return kNoSystem;
}

}  // namespace

unsigned char MSystem::bEnableInitialResLoading = 1;

bool MSystem::Initialize(int, char**, unsigned char) {
    return true;
}

bool MSystem::InitializeDFBLayer() {
    const opal::MutexLock lock(g_directFBMutex);
    const char* given = std::getenv("DFBARGS");
    const bool own = given == nullptr || given == OwnArguments();
    const char* system = PickSystem(own);
    if (own) {
        OwnArguments() = std::string("system=") + system + ",mode=" + kMode;
        for (const char* option : kSwitches)
            OwnArguments() += std::string(",") + option;
        if (setenv("DFBARGS", OwnArguments().c_str(), 1) != 0)
            return false;
    }
    // Arguments of its own, or DirectFB reads the application's, prints them and obeys "--dfb:".
    std::string name = "television";
    char* arguments[] = {name.data(), nullptr};
    int count = 1;
    char** list = arguments;
    if (DirectFBInit(&count, &list) != DFB_OK)
        return false;
    if (own) {
        // It reads the environment once a process, and a later player may want another system. Once
        // DirectFB runs it stays as it is.
        (void)DirectFBSetOption("system", system);
        (void)DirectFBSetOption("mode", kMode);
        for (const char* option : kSwitches)
            (void)DirectFBSetOption(option, nullptr);
    }
    return true;
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
    if (found == Holders().end())
        return false;
    holder = found->second;
    return true;
}

}  // namespace tvset
