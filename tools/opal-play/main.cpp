#include <time.h>
#include <unistd.h>

#include <cstdlib>
#include <exception>
#include <fstream>
#include <iostream>
#include <iterator>
#include <sstream>
#include <string>

#include "opal-play/MonotonicTime.h"
#include "opal-play/Player.h"

namespace {

/// When the process was started, on the monotonic clock: before its libraries were loaded. The
/// kernel tells it in hundredths of a second since boot.
int64_t ProcessStartMs() {
    const int64_t now = opal::play::MonotonicMs();
    std::ifstream file("/proc/self/stat");
    std::string text((std::istreambuf_iterator<char>(file)), std::istreambuf_iterator<char>());
    const size_t name = text.rfind(')');
    if (name == std::string::npos)
        return now;
    constexpr int kFieldsBefore = 19;  // of the start time, behind the name
    std::istringstream fields(text.substr(name + 1));
    std::string skipped;
    for (int i = 0; i < kFieldsBefore; ++i)
        fields >> skipped;
    int64_t ticks = 0;
    timespec boot = {};
    const int64_t ticksPerSecond = sysconf(_SC_CLK_TCK);
    if (!(fields >> ticks) || ticksPerSecond <= 0 || clock_gettime(CLOCK_BOOTTIME, &boot) != 0)
        return now;
    const int64_t sinceBoot = boot.tv_sec * 1000 + boot.tv_nsec / 1000000;
    const int64_t age = sinceBoot - ticks * 1000 / ticksPerSecond;
    return age >= 0 ? now - age : now;
}

}  // namespace

int main(int argc, char** argv) {
    using namespace opal::play;
    const int64_t startedMs = ProcessStartMs();
    Options options;
    int exitCode = kExitUsage;
    if (!ParseCommandLine(argc, argv, std::getenv("DISPLAY") != nullptr, options, exitCode))
        return exitCode;
    try {
        Console console(options.json, options.verbose, options.outputFile);
        return Player(options, console, startedMs).Run();
    } catch (const std::exception& error) {
        std::cerr << "opal-play: " << error.what() << std::endl;
        return kExitError;
    }
}
