#include "opal-package/SubRip.h"

#include <cctype>
#include <cstdio>
#include <sstream>

#include "opal-package/Error.h"

namespace opal::package {
namespace {

bool IsUtf8(const std::string& text) {
    size_t i = 0;
    while (i < text.size()) {
        const auto lead = static_cast<uint8_t>(text[i]);
        const size_t more = lead < 0x80           ? 0
                            : (lead >> 5) == 0x6  ? 1
                            : (lead >> 4) == 0xE  ? 2
                            : (lead >> 3) == 0x1E ? 3
                                                  : text.size();
        if (more >= text.size() - i)
            return false;
        for (size_t k = 1; k <= more; ++k) {
            if ((static_cast<uint8_t>(text[i + k]) & 0xC0) != 0x80)
                return false;
        }
        i += more + 1;
    }
    return true;
}

/// "00:01:02,345 --> 00:01:04,000", with whatever follows.
bool ParseTimes(const std::string& line, int64_t& startMs, int64_t& endMs) {
    unsigned v[8] = {};
    const int found = std::sscanf(line.c_str(), "%3u:%2u:%2u%*1[,.]%3u --> %3u:%2u:%2u%*1[,.]%3u",
                                  &v[0], &v[1], &v[2], &v[3], &v[4], &v[5], &v[6], &v[7]);
    const auto time = [&v](int i) {
        return ((int64_t{v[i]} * 60 + v[i + 1]) * 60 + v[i + 2]) * 1000 + v[i + 3];
    };
    startMs = time(0);
    endMs = time(4);
    return found == 8 && endMs > startMs;
}

/// Leaves out "<i>", "</font>", "{\an8}" and their like; a lone "<" stays.
std::string WithoutTags(const std::string& text) {
    std::string out;
    for (size_t i = 0; i < text.size(); ++i) {
        const bool angle = text[i] == '<' && i + 1 < text.size() &&
                           (text[i + 1] == '/' || std::isalpha(static_cast<uint8_t>(text[i + 1])));
        const bool brace = text[i] == '{' && i + 1 < text.size() && text[i + 1] == '\\';
        const size_t end = angle || brace ? text.find(angle ? '>' : '}', i) : std::string::npos;
        if (end == std::string::npos)
            out += text[i];
        else
            i = end;
    }
    return out;
}

bool ReadLine(std::istream& in, std::string& line) {
    if (!std::getline(in, line))
        return false;
    if (!line.empty() && line.back() == '\r')
        line.pop_back();
    return true;
}

}  // namespace

std::vector<SubtitleText> ParseSubRip(const std::string& content, const std::string& fileName) {
    if (!IsUtf8(content)) {
        throw PackageError(Failure::Refused,
                           fileName +
                               ": is not UTF-8 text; convert it with: iconv -f WINDOWS-1252 "
                               "-t UTF-8 '" +
                               fileName + "' > utf8.srt");
    }
    std::istringstream in(content.compare(0, 3, "\xEF\xBB\xBF") == 0 ? content.substr(3) : content);
    std::vector<SubtitleText> texts;
    std::string line;
    for (size_t number = 1; ReadLine(in, line); ++number) {
        const bool counter =
            !line.empty() && line.find_first_not_of("0123456789 ") == std::string::npos;
        if (line.empty() || counter)
            continue;
        SubtitleText entry;
        if (!ParseTimes(line, entry.startMs, entry.endMs)) {
            throw PackageError(Failure::Refused,
                               fileName + ":" + std::to_string(number) +
                                   ": expected '00:00:01,000 --> 00:00:02,000', found '" +
                                   line.substr(0, 40) + "'");
        }
        while (ReadLine(in, line) && !line.empty()) {
            ++number;
            entry.text += (entry.text.empty() ? "" : "\n") + line;
        }
        ++number;
        entry.text = WithoutTags(entry.text);
        if (!entry.text.empty())
            texts.push_back(std::move(entry));
    }
    if (texts.empty())
        throw PackageError(Failure::Refused, fileName + ": holds no subtitle text");
    Arrange(texts);
    return texts;
}

}  // namespace opal::package
