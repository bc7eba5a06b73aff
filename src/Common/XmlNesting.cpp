#include "Common/XmlNesting.h"

#include <algorithm>

namespace opal {

bool IsXmlNestingBounded(const char* text, size_t size) {
    return std::count(text, text + size, '<') <= kMaxXmlTags;
}

}  // namespace opal
