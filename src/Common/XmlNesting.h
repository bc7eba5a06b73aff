#pragma once

#include <cstddef>

namespace opal {

/// Elements nested deeper than this are no document of ours. The XML parser recurses once an
/// element, so a deeper text would exhaust the stack.
constexpr size_t kMaxXmlNesting = 256;

/// True if no element of the text nests deeper than kMaxXmlNesting. A linear look at the tags only;
/// whether the text is well-formed is for the parser to say.
bool IsXmlNestingBounded(const char* text, size_t size);

}  // namespace opal
