#pragma once

#include <cstddef>
#include <string>

class TiXmlDocument;

namespace opal {

/// Parses a text as UTF-8; false when the document then has an error. For every XML text that comes
/// from outside: the parser steps up to three bytes past a text that is cut within a character, so
/// it gets them. The text ends at its first zero byte.
bool ParseXml(TiXmlDocument& document, const std::string& text);

/// The same for a settings file. The parser recurses once a nested element, so a hostile file would
/// exhaust the stack; one with more than kMaxXmlTags tags is refused unparsed.
bool ParseSettings(TiXmlDocument& document, const std::string& text);

/// No element nests deeper than there are tags, and no settings file has this many.
constexpr std::ptrdiff_t kMaxXmlTags = 1024;

/// True if the text has at most kMaxXmlTags tags, whatever a parser takes for one. Whether it is
/// well-formed is for the parser to say.
bool IsXmlNestingBounded(const char* text, size_t size);

}  // namespace opal
