#include "Common/ConfigurationFiles.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace opal {
namespace {

std::string& Directory() {
    static std::string directory = ".";
    return directory;
}

constexpr size_t kMaxConfigurationSize = 1 << 20;

}  // namespace

void SetConfigurationDirectory(const std::string& directory) {
    Directory() = directory;
}

std::string ConfigurationPath(const std::string& name) {
    return Directory() == "." ? name : Directory() + "/" + name;
}

FileHandle OpenRegularFile(const std::string& path) {
    // Opening a pipe would wait for its writer.
    const int descriptor = open(path.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
    if (descriptor < 0)
        return nullptr;
    struct stat status {};
    const bool regular = fstat(descriptor, &status) == 0 && S_ISREG(status.st_mode);
    std::FILE* const file = regular ? fdopen(descriptor, "r") : nullptr;
    if (!file)
        close(descriptor);
    return FileHandle(file);
}

bool ReadConfigurationFile(const std::string& name, std::string& text) {
    const FileHandle file = OpenRegularFile(ConfigurationPath(name));
    if (!file)
        return false;
    text.resize(kMaxConfigurationSize + 1);
    text.resize(std::fread(text.data(), 1, text.size(), file.get()));
    return text.size() <= kMaxConfigurationSize && std::ferror(file.get()) == 0;
}

}  // namespace opal
