// What the sanitizers find in the system libraries under the television set and the packager. Part
// of every program that links one of them in a sanitizer build; these hooks are only looked for in
// the program itself.

#if defined(__SANITIZE_THREAD__)
#define OPAL_THREAD_SANITIZER 1
#elif defined(__SANITIZE_ADDRESS__)
#define OPAL_ADDRESS_SANITIZER 1
#elif defined(__has_feature)
#if __has_feature(thread_sanitizer)
#define OPAL_THREAD_SANITIZER 1
#elif __has_feature(address_sanitizer)
#define OPAL_ADDRESS_SANITIZER 1
#endif
#endif

#if defined(OPAL_THREAD_SANITIZER)
extern "C" __attribute__((visibility("default"))) const char* __tsan_default_suppressions();
const char* __tsan_default_suppressions() {
    return
        // libdirect's exit handlers destroy mutexes and use them again, also where DirectFB was
        // never started.
        "mutex:libdirect-1.7\n"
        // DirectFB takes its own mutexes in both orders while it starts.
        "deadlock:libfusion-1.7\n"
        "deadlock:libdirect-1.7\n"
        // Its exit handlers destroy what its own threads still wait on, and leave the threads.
        "race:libdirect-1.7\n"
        "race:libfusion-1.7\n"
        "thread:libdirect-1.7\n"
        // FFmpeg hands frames from its decoding threads on with atomics of its own, which are not
        // instrumented there; so are x264's.
        "race:libavcodec\n"
        "race:libavutil\n"
        "race:libx264\n";
}
#elif defined(OPAL_ADDRESS_SANITIZER)
extern "C" __attribute__((visibility("default"))) const char* __lsan_default_options();
const char* __lsan_default_options() {
    return "print_suppressions=0";  // a program's standard error is looked at
}
extern "C" __attribute__((visibility("default"))) const char* __lsan_default_suppressions();
const char* __lsan_default_suppressions() {
    return
        // SDL keeps its hints and its table of audio drivers until the process ends.
        "leak:libSDL2\n"
        // DirectFB keeps its configuration, the list of its modules and what its event dispatcher
        // has not handled yet.
        "leak:libdirectfb-1.7\n"
        "leak:libfusion-1.7\n"
        "leak:libdirect-1.7\n";
}
#endif
