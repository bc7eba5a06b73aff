#pragma once

#include <cstddef>

namespace opal {

/// The XML parser recurses once a nested element, so a hostile settings file would exhaust the
/// stack. No element nests deeper than there are tags, and no settings file has this many.
constexpr std::ptrdiff_t kMaxXmlTags = 1024;

/// True if the text has at most kMaxXmlTags tags, whatever a parser takes for one. Whether it is
/// well-formed is for the parser to say.
bool IsXmlNestingBounded(const char* text, size_t size);

}  // namespace opal
