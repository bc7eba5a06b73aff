// Any bytes as an endpoint file: an address comes of them, or none.
#include <sys/mman.h>
#include <unistd.h>

#include <cstdint>
#include <cstdlib>
#include <string>

#include "ContentSession/src/ServerConfig.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const int file = memfd_create("endpoint", MFD_CLOEXEC);
    if (file < 0 || write(file, data, size) != static_cast<ssize_t>(size))
        std::abort();
    ServerConfig config;
    config.SetHost("host");
    config.SetServiceName("service");
    config.ReadFile("/proc/self/fd/" + std::to_string(file));
    close(file);
    const std::string url = config.GetUrl();
    const bool address = url.compare(0, 7, "http://") == 0 || url.compare(0, 8, "https://") == 0;
    if (url.size() > 255 || address != config.IsValid())
        std::abort();
    return 0;
}
