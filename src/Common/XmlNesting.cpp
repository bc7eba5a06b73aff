#include "Common/XmlNesting.h"

#include <string_view>

namespace opal {
namespace {

/// Position behind the next `end` from `from` on; npos if there is none.
size_t SkipPast(std::string_view text, std::string_view end, size_t from) {
    const size_t found = text.find(end, from);
    return found == std::string_view::npos ? found : found + end.size();
}

/// Position behind the tag that starts at `from`, with ">" in quoted values passed over.
size_t SkipTag(std::string_view text, size_t from) {
    char quote = 0;
    for (size_t i = from; i < text.size(); ++i) {
        const char c = text[i];
        if (quote) {
            if (c == quote)
                quote = 0;
        } else if (c == '"' || c == '\'') {
            quote = c;
        } else if (c == '>') {
            return i + 1;
        }
    }
    return std::string_view::npos;
}

bool StartsWith(std::string_view text, size_t position, std::string_view what) {
    return text.compare(position, what.size(), what) == 0;
}

}  // namespace

bool IsXmlNestingBounded(const char* data, size_t size) {
    const std::string_view text(data, size);
    size_t depth = 0;
    size_t position = text.find('<');
    while (position != std::string_view::npos) {
        if (StartsWith(text, position, "<!--")) {
            position = SkipPast(text, "-->", position + 4);
        } else if (StartsWith(text, position, "<![CDATA[")) {
            position = SkipPast(text, "]]>", position + 9);
        } else if (StartsWith(text, position, "<?") || StartsWith(text, position, "<!")) {
            position = SkipPast(text, ">", position + 2);
        } else if (StartsWith(text, position, "</")) {
            depth -= depth > 0 ? 1 : 0;
            position = SkipPast(text, ">", position + 2);
        } else {
            // An unclosed tag counts too: a lenient parser may still open an element for it.
            if (++depth > kMaxXmlNesting)
                return false;
            position = SkipTag(text, position + 1);
            if (position != std::string_view::npos && text[position - 2] == '/')
                --depth;
        }
        if (position != std::string_view::npos)
            position = text.find('<', position);
    }
    return true;
}

}  // namespace opal
