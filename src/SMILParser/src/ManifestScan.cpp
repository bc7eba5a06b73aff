#include "SMILParser/src/ManifestScan.h"

#include <strings.h>
#include <algorithm>
#include <cctype>
#include <cstring>

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

class Scanner {
  public:
    explicit Scanner(const std::string& text)
        : m_position(text.c_str()), m_end(m_position + std::strlen(m_position)) {}

    ManifestExtent Run() {
        while (Node() && IsWithinBounds(m_extent)) {
        }
        return m_extent;
    }

  private:
    // Each step is false where the parser stops: at the end of the text, or with an error.

    bool Node() {
        SkipSpace();
        if (m_depth > 0 && *m_position != '<') {
            ++m_extent.nodes;
            if (!SkipText('<'))
                return false;
        }
        if (*m_position != '<')
            return false;
        if (m_depth > 0 && m_position[1] == '/')
            return EndTag();
        ++m_extent.nodes;
        if (strncasecmp(m_position, "<?xml", 5) == 0)
            return Declaration();
        if (std::strncmp(m_position, "<!--", 4) == 0)
            return SkipPast("-->", 4);
        if (std::strncmp(m_position, "<![CDATA[", 9) == 0)
            return SkipPast("]]>", 9);
        if (m_position[1] != '!' && IsNameStart(m_position[1]))
            return Element();
        return SkipPast(">", 1);
    }

    bool EndTag() {
        --m_depth;
        return SkipPast(">", 2);
    }

    bool Declaration() {
        m_position += 5;
        while (*m_position != '\0') {
            if (*m_position == '>') {
                ++m_position;
                return true;
            }
            SkipSpace();
            if (StartsWithWord("version") || StartsWithWord("encoding") ||
                StartsWithWord("standalone")) {
                if (!Attribute())
                    return false;
                continue;
            }
            while (*m_position != '\0' && *m_position != '>' && !IsSpace(*m_position))
                ++m_position;
        }
        return false;
    }

    bool Element() {
        m_extent.depth = std::max(m_extent.depth, m_depth + 1);
        ++m_position;
        SkipSpace();
        if (!Name())
            return false;
        for (size_t attributes = 0; attributes <= kMaxManifestAttributes;) {
            SkipSpace();
            if (*m_position == '\0')
                return false;
            if (*m_position == '>') {
                ++m_position;
                ++m_depth;
                return true;
            }
            if (*m_position == '/') {
                m_position += m_position[1] == '>' ? 2 : 1;
                return m_position[-1] == '>';
            }
            ++m_extent.nodes;
            m_extent.attributesOfElement = std::max(m_extent.attributesOfElement, ++attributes);
            if (!Attribute())
                return false;
        }
        return false;
    }

    bool Attribute() {
        SkipSpace();
        if (!Name())
            return false;
        SkipSpace();
        if (*m_position != '=')
            return false;
        ++m_position;
        SkipSpace();
        const char quote = *m_position;
        if (quote == '"' || quote == '\'') {
            ++m_position;
            if (!SkipText(quote))
                return false;
            ++m_position;
            return *m_position != '\0';
        }
        while (*m_position != '\0' && !IsSpace(*m_position) && *m_position != '/' &&
               *m_position != '>') {
            if (*m_position == '"' || *m_position == '\'')
                return false;
            ++m_position;
        }
        return *m_position != '\0';
    }

    bool Name() {
        if (!IsNameStart(*m_position))
            return false;
        while (IsNameByte(*m_position))
            ++m_position;
        return *m_position != '\0';
    }

    /// To the character `end`, in steps of what the parser takes for characters: a broken one
    /// swallows what follows.
    bool SkipText(char end) {
        while (*m_position != '\0' && *m_position != end) {
            const auto left = static_cast<size_t>(m_end - m_position);
            m_position += std::min(CharacterLength(*m_position), left);
        }
        return *m_position != '\0';
    }

    bool SkipPast(const char* what, size_t from) {
        const char* found = std::strstr(m_position + from, what);
        if (!found)
            return false;
        m_position = found + std::strlen(what);
        return true;
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

    bool StartsWithWord(const char* word) const {
        return strncasecmp(m_position, word, std::strlen(word)) == 0;
    }

    const char* m_position;
    const char* m_end;
    size_t m_depth = 0;
    ManifestExtent m_extent;
};

}  // namespace

bool IsWithinBounds(const ManifestExtent& extent) {
    return extent.depth <= kMaxManifestDepth && extent.nodes <= kMaxManifestNodes &&
           extent.attributesOfElement <= kMaxManifestAttributes;
}

ManifestExtent ScanManifest(const std::string& text) {
    return Scanner(text).Run();
}

}  // namespace opal
