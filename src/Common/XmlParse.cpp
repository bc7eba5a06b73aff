#include "Common/XmlParse.h"

#include <tinyxml.h>

#include <algorithm>

namespace opal {

bool ParseXml(TiXmlDocument& document, const std::string& text) {
    constexpr size_t kLongestCharacter = 4;
    const std::string padded = text + std::string(kLongestCharacter, '\0');
    document.Parse(padded.c_str(), nullptr, TIXML_ENCODING_UTF8);
    return !document.Error();
}

bool ParseSettings(TiXmlDocument& document, const std::string& text) {
    return IsXmlNestingBounded(text.data(), text.size()) && ParseXml(document, text);
}

bool IsXmlNestingBounded(const char* text, size_t size) {
    return std::count(text, text + size, '<') <= kMaxXmlTags;
}

}  // namespace opal
