#pragma once

#include <ft2build.h>
#include <log4cxx/logger.h>
#include FT_FREETYPE_H

#include <functional>
#include <map>
#include <string>
#include <utility>
#include <vector>

#include "Common/MemoryBuffer.h"
#include "TextRenderer/FreeTypeRenderer.h"

/// The font, the caches and the layout behind FreeTypeRenderer.
struct FreeTypeRenderer::PIMPL {
    /// A text in 32-bit characters.
    using Text = std::basic_string<unsigned long>;

    struct Glyph {
        uint32_t width = 0;  ///< bytes a row of the bitmap
        uint32_t rows = 0;
        int left = 0;
        int top = 0;  ///< the bitmap's first row, below the line's top
        qutl::MemoryBuffer<unsigned char> bitmap;
    };

    enum class WordType { Word, Spaces, LineFeeds };

    /// The unit of line breaking.
    struct Word {
        WordType type = WordType::Word;
        const unsigned long* first = nullptr;
        std::vector<std::pair<const Glyph*, int>> glyphs;  ///< null for a space; advance
        int64_t width = 0;
    };

    /// Refers to the words by counting their glyphs.
    struct Line {
        uint32_t glyphCount = 0;
        int64_t width = 0;
    };

    /// Draws `src` at dstx, dsty of `dst`, clipped to dstw x dsth.
    using RenderGlyph = void (*)(uint32_t format, const uint8_t* src, int srcw, int srch, void* dst,
                                 int dstx, int dsty, int dstw, int dsth);

    PIMPL();
    virtual ~PIMPL();
    PIMPL(const PIMPL&) = delete;
    PIMPL& operator=(const PIMPL&) = delete;

    /// From the file, or from the bytes if `path` is null.
    OPALError Initialize(const std::string* path, const void* data, size_t size, int points);
    OPALError Render(const std::string& text, int width, int height, const Rect& rect,
                     uint32_t alignment, uint32_t format, void* buffer);
    /// Fills `words` and `lines`.
    OPALError Layout(const std::string& utf8, int64_t limit);

    log4cxx::LoggerPtr logger;
    FT_Library library = nullptr;
    FT_Face face = nullptr;
    int pointSize = 0;
    RenderGlyph renderGlyph;
    std::map<uint32_t, Glyph> glyphs;
    std::map<std::pair<uint32_t, uint32_t>, int> kerning;  ///< of a character and the one before

    std::function<bool()> stop;  ///< may be empty
    size_t cachedBytes = 0;      ///< what both caches hold, roughly
    Text characters;
    std::vector<Word> words;
    std::vector<Line> lines;

  private:
    void Release();
    bool IsStopped() const { return stop && stop(); }
    OPALError _FTError2OPALError(FT_Error error, const char* file, int line);
    OPALError CacheText();
    OPALError CacheGlyph(uint32_t character);
    OPALError CacheKerning(uint32_t character, uint32_t previous);
    OPALError BuildWords();
    OPALError BuildLines(int64_t limit);
    OPALError BreakWord(const Word& word, int64_t limit);
    void Draw(int width, int height, const Rect& rect, uint32_t alignment, uint32_t format,
              void* buffer) const;
};

namespace opal {

/// The text in 32-bit characters, up to its first NUL. -1 for a text that is not UTF-8 throughout,
/// and for an empty one.
OPALError DecodeUTF8(const std::string& utf8, std::basic_string<unsigned long>& text);

/// Overlapping glyphs do not add up: the greater coverage stays.
void SlowRenderGlyphRGBA32(const uint8_t* src, int srcw, int srch, uint32_t* dst, int dstx,
                           int dsty, int dstw, int dsth);
void SlowRenderGlyphAlpha(const uint8_t* src, int srcw, int srch, uint8_t* dst, int dstx, int dsty,
                          int dstw, int dsth);

}  // namespace opal
