#include "SMILParser/src/ManifestScan.h"

#include <strings.h>

#include <algorithm>
#include <cctype>
#include <cstring>
#include <utility>

namespace opal {
namespace {

bool IsSpace(char c) {
    return std::isspace(static_cast<unsigned char>(c)) != 0;
}

bool IsNameStart(char c) {
    const auto byte = static_cast<unsigned char>(c);
    return byte >= 127 || std::isalpha(byte) != 0 || c == '_';
}

bool IsNameByte(char c) {
    return IsNameStart(c) || std::isdigit(static_cast<unsigned char>(c)) != 0 || c == '-' ||
           c == '.' || c == ':';
}

/// Bytes that the parser takes for one character, by its first byte alone.
size_t CharacterLength(char c) {
    const auto byte = static_cast<unsigned char>(c);
    if (byte < 0xC2 || byte > 0xF4)
        return 1;
    return byte < 0xE0 ? 2 : byte < 0xF0 ? 3 : 4;
}

/// Bytes of the numeric reference at `text`, which begins with "&#"; 0 if that is none.
size_t ReferenceLength(const char* text) {
    constexpr size_t kMaxDigits = 7;
    const bool hexadecimal = text[2] == 'x';
    const char* const digits = text + (hexadecimal ? 3 : 2);
    size_t count = 0;
    while (count <= kMaxDigits &&
           (hexadecimal ? std::isxdigit(static_cast<unsigned char>(digits[count]))
                        : std::isdigit(static_cast<unsigned char>(digits[count]))))
        ++count;
    if (count == 0 || count > kMaxDigits || digits[count] != ';')
        return 0;
    return static_cast<size_t>(digits - text) + count + 1;
}

/// Bytes of the named reference at `text`; 0 if that is an ampersand like any other character.
size_t NamedReferenceLength(const char* text) {
    for (const char* name : {"&amp;", "&lt;", "&gt;", "&quot;", "&apos;"}) {
        if (std::strncmp(text, name, std::strlen(name)) == 0)
            return std::strlen(name);
    }
    return 0;
}

class Scanner {
  public:
    explicit Scanner(const std::string& text) : m_position(text.c_str()) {}

    ScannedManifest Run() {
        while (Node() && IsWithinBounds(m_result.extent)) {
        }
        return std::move(m_result);
    }

  private:
    // Each step is false where the reading stops.

    bool Node() {
        SkipSpace();
        if (m_depth > 0 && *m_position != '<') {
            ++m_result.extent.nodes;
            if (!Text())
                return false;
        }
        if (*m_position != '<')
            return false;
        if (m_depth > 0 && m_position[1] == '/')
            return EndTag();
        ++m_result.extent.nodes;
        if (strncasecmp(m_position, "<?xml", 5) == 0)
            return Emptied("<?xml?>", 5, ">");
        if (std::strncmp(m_position, "<!--", 4) == 0)
            return Emptied("<!---->", 4, "-->");
        if (std::strncmp(m_position, "<![CDATA[", 9) == 0)
            return Emptied("<![CDATA[]]>", 9, "]]>");
        if (m_position[1] != '!' && IsNameStart(m_position[1]))
            return Element() || Broken();
        return Emptied("<!>", 1, ">");
    }

    bool Broken() {
        m_result.broken = IsWithinBounds(m_result.extent);
        return false;
    }

    /// Something without elements in it, which ends with `end`, `from` bytes on at the earliest.
    bool Emptied(const char* instead, size_t from, const char* end) {
        m_result.rewritten += instead;
        const char* found = std::strstr(m_position + from, end);
        if (!found)
            return false;
        m_position = found + std::strlen(end);
        return true;
    }

    bool Text() {
        for (; *m_position != '\0' && *m_position != '<'; ++m_position) {
            if (m_position[0] == '&' && m_position[1] == '#' && ReferenceLength(m_position) == 0)
                return Broken();
        }
        return *m_position != '\0';
    }

    bool EndTag() {
        m_position += 2;
        const char* const name = m_position;
        while (IsNameByte(*m_position))
            ++m_position;
        const std::string tag(name, m_position);
        SkipSpace();
        if (*m_position != '>')
            return Broken();
        ++m_position;
        --m_depth;
        m_result.rewritten += "</" + tag + '>';
        return true;
    }

    bool Element() {
        m_result.extent.depth = std::max(m_result.extent.depth, m_depth + 1);
        ++m_position;
        SkipSpace();
        m_result.rewritten += '<';
        if (!Name())
            return false;
        for (size_t attributes = 0; attributes <= kMaxManifestAttributes;) {
            SkipSpace();
            if (*m_position == '>') {
                ++m_position;
                ++m_depth;
                m_result.rewritten += '>';
                return true;
            }
            if (*m_position == '/') {
                m_position += m_position[1] == '>' ? 2 : 1;
                m_result.rewritten += "/>";
                return m_position[-1] == '>';
            }
            ++m_result.extent.nodes;
            m_result.extent.attributesOfElement =
                std::max(m_result.extent.attributesOfElement, ++attributes);
            if (!Attribute())
                return false;
        }
        return false;
    }

    bool Attribute() {
        m_result.rewritten += ' ';
        if (!Name())
            return false;
        SkipSpace();
        if (*m_position != '=')
            return false;
        ++m_position;
        SkipSpace();
        m_result.rewritten += "=\"";
        const char quote = *m_position;
        const bool quoted = quote == '"' || quote == '\'';
        if (quoted)
            ++m_position;
        while (quoted ? *m_position != quote : !EndsBareValue()) {
            if (!ValueCharacter(quoted))
                return false;
        }
        if (quoted)
            ++m_position;
        m_result.rewritten += '"';
        return *m_position != '\0';
    }

    bool EndsBareValue() const {
        return IsSpace(*m_position) || *m_position == '/' || *m_position == '>';
    }

    bool ValueCharacter(bool quoted) {
        size_t length = 1;
        switch (*m_position) {
            case '\0':
                return false;
            case '"':
            case '\'':
                if (!quoted)
                    return false;
                m_result.rewritten += *m_position == '"' ? "&quot;" : "'";
                break;
            case '<':
                m_result.rewritten += "&lt;";
                break;
            case '&':
                return Ampersand(quoted);
            default:
                // Between quotes the parser takes what follows a first byte for the rest of a
                // character, whatever it is; so a bare value must not end within one.
                length = CharacterLength(*m_position);
                for (size_t i = 1; i < length; ++i) {
                    const char c = m_position[i];
                    if (c == '\0' || (!quoted && std::strchr("\"'/> \t\n\v\f\r", c)))
                        return false;
                }
                m_result.rewritten.append(m_position, length);
        }
        m_position += length;
        return true;
    }

    /// References stand for characters between quotes only.
    bool Ampersand(bool quoted) {
        size_t length = 0;
        if (quoted && m_position[1] == '#') {
            length = ReferenceLength(m_position);
            if (length == 0)
                return false;
        } else if (quoted) {
            length = NamedReferenceLength(m_position);
        }
        if (length == 0) {
            m_result.rewritten += "&amp;";
            ++m_position;
        } else {
            m_result.rewritten.append(m_position, length);
            m_position += length;
        }
        return true;
    }

    bool Name() {
        if (!IsNameStart(*m_position))
            return false;
        const char* const start = m_position;
        while (IsNameByte(*m_position))
            ++m_position;
        m_result.rewritten.append(start, m_position);
        return *m_position != '\0';
    }

    void SkipSpace() {
        for (;;) {
            if (IsSpace(*m_position))
                ++m_position;
            else if (IsByteOrderMark())
                m_position += 3;
            else
                return;
        }
    }

    bool IsByteOrderMark() const {
        return std::strncmp(m_position, "\xEF\xBB\xBF", 3) == 0 ||
               std::strncmp(m_position, "\xEF\xBF\xBE", 3) == 0 ||
               std::strncmp(m_position, "\xEF\xBF\xBF", 3) == 0;
    }

    const char* m_position;
    size_t m_depth = 0;
    ScannedManifest m_result;
};

}  // namespace

bool IsWithinBounds(const ManifestExtent& extent) {
    return extent.depth <= kMaxManifestDepth && extent.nodes <= kMaxManifestNodes &&
           extent.attributesOfElement <= kMaxManifestAttributes;
}

ScannedManifest ScanManifest(const std::string& text) {
    return Scanner(text).Run();
}

}  // namespace opal
