#include "opal-package/Font.h"

#include <filesystem>
#include <fstream>
#include <sstream>

#include "opal-package/Error.h"
#include "opal-package/Presentation.h"

namespace opal::package {
namespace {

constexpr const char* kFonts[] = {
    "/usr/share/fonts/truetype/dejavu/DejaVuSans.ttf", "/usr/share/fonts/TTF/DejaVuSans.ttf",
    "/usr/share/fonts/dejavu/DejaVuSans.ttf", "/usr/share/fonts/dejavu-sans-fonts/DejaVuSans.ttf"};

std::string ReadFile(const std::string& path, const std::string& advice) {
    std::ifstream in(path, std::ios::binary);
    std::ostringstream content;
    content << in.rdbuf();
    if (!in)
        throw PackageError(Failure::InputOutput, path + ": cannot be read; " + advice);
    return content.str();
}

}  // namespace

Attachment LoadFont(std::string path) {
    if (path.empty()) {
        for (const char* candidate : kFonts) {
            if (std::filesystem::exists(candidate)) {
                path = candidate;
                break;
            }
        }
    }
    if (path.empty()) {
        throw PackageError(Failure::InputOutput,
                           "no DejaVu font found for the subtitles; install fonts-dejavu-core, "
                           "or name a TrueType file with --font");
    }
    const std::string data = ReadFile(path, "name a TrueType file with --font");
    const bool trueType = data.compare(0, 4, std::string("\0\1\0\0", 4)) == 0 ||
                          data.compare(0, 4, "true") == 0 || data.compare(0, 4, "OTTO") == 0;
    if (!trueType)
        throw PackageError(Failure::Refused, path + ": is no TrueType font");
    if (data.size() + 1024 > kLongestSubtitleHeader) {
        throw PackageError(Failure::Refused,
                           path + ": " + std::to_string(data.size()) +
                               " bytes are more than a player takes as a subtitle header (" +
                               std::to_string(kLongestSubtitleHeader) +
                               "); name a smaller one with --font");
    }
    Attachment font;
    font.fileName = std::filesystem::path(path).filename().string();
    font.data.assign(data.begin(), data.end());
    return font;
}

}  // namespace opal::package
