// A settings file, read as each of the three.

#include <cstdlib>
#include <exception>
#include <filesystem>
#include <fstream>
#include <string>

#include "Common/Assert.h"
#include "Common/ConfigurationFiles.h"
#include "Common/logging/LoggingConfig.h"
#include "Common/network/NetworkCaptureConfig.h"
#include "StreamSwitchingAlgorithm/AlgorithmConfig.h"

namespace {

/// The folder of the settings files while this lives; the working directory again behind it.
struct Folder {
    Folder() {
        OPAL_ASSERT(mkdtemp(path) != nullptr, "a folder");
        opal::SetConfigurationDirectory(path);
    }
    ~Folder() {
        opal::SetConfigurationDirectory(".");
        std::error_code ignored;
        std::filesystem::remove_all(path, ignored);
    }
    void Write(const char* name, const uint8_t* data, size_t size) const {
        std::ofstream(std::string(path) + "/" + name, std::ios::binary)
            .write(reinterpret_cast<const char*>(data), static_cast<std::streamsize>(size));
    }
    char path[32] = "/tmp/opal-fuzz-XXXXXX";
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const Folder folder;
    folder.Write("kmt_ssa_config.xml", data, size);
    folder.Write("kmt_logging_config.xml", data, size);
    folder.Write("kmt_net_cap_config.xml", data, size);
    try {
        (void)LoadConfigFile();
    } catch (const std::exception&) {
        // A setting without text; whoever loads the file catches it.
    }
    AlgorithmConfig::Instance().Reset();

    LoggingConfig logging;
    LogEventSenderConfig sender;
    const bool loaded = logging.Load() == OPAL_OK;
    OPAL_ASSERT(logging.Read(sender) != OPAL_OK || loaded, "nothing is read of what is no XML");
    NetworkCaptureConfig capture;
    const int32_t before = static_cast<int32_t>(capture.snapshotLength);
    if (capture.Load() != OPAL_OK)
        OPAL_ASSERT(static_cast<int32_t>(capture.snapshotLength) == before, "all or nothing");
    return 0;
}
