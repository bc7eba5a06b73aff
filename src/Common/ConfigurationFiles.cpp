#include "Common/ConfigurationFiles.h"

#include <fstream>
#include <iterator>

namespace opal {
namespace {

std::string& Directory() {
    static std::string directory = ".";
    return directory;
}

constexpr std::streamoff kMaxConfigurationSize = 1 << 20;

}  // namespace

void SetConfigurationDirectory(const std::string& directory) {
    Directory() = directory;
}

std::string ConfigurationPath(const std::string& name) {
    return Directory() == "." ? name : Directory() + "/" + name;
}

bool ReadConfigurationFile(const std::string& name, std::string& text) {
    std::ifstream file(ConfigurationPath(name), std::ios::binary | std::ios::ate);
    if (!file || file.tellg() < 0 || file.tellg() > kMaxConfigurationSize)
        return false;
    file.seekg(0);
    text.assign(std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>());
    return !file.bad();
}

}  // namespace opal
