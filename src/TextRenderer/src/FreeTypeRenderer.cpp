#include "TextRenderer/FreeTypeRenderer.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <limits>
#include <utility>

#include "Common/logging/Logger.h"
#include "TextRenderer/src/FreeTypeRendererPimpl.h"

// FreeType's macro for its own header needs ft2build.h first.
#include FT_GLYPH_H

namespace {

constexpr FT_UInt kDotsPerInch = 96;
constexpr FT_F26Dot6 kPointFraction = 64;

// No font of good faith comes near these; a hostile one would fill the memory.
constexpr FT_Pos kMaxGlyphSide = 2048;
constexpr size_t kMaxCachedBytes = 32u << 20;
constexpr size_t kEntryBytes = 128;  // of a cache, beside a bitmap's

/// A web font, which would be inflated to whatever size it tells.
bool IsCompressed(const void* data, size_t size) {
    return size >= 4 && (std::memcmp(data, "wOFF", 4) == 0 || std::memcmp(data, "wOF2", 4) == 0);
}

size_t BytesPerPixel(uint32_t format) {
    switch (format) {
        case FreeTypeRenderer::kRGBA32:
            return 4;
        case FreeTypeRenderer::kAlpha:
            return 1;
        default:
            return 0;
    }
}

void RenderGlyphInFormat(uint32_t format, const uint8_t* src, int srcw, int srch, void* dst,
                         int dstx, int dsty, int dstw, int dsth) {
    if (format == FreeTypeRenderer::kRGBA32)
        opal::SlowRenderGlyphRGBA32(src, srcw, srch, static_cast<uint32_t*>(dst), dstx, dsty, dstw,
                                    dsth);
    else if (format == FreeTypeRenderer::kAlpha)
        opal::SlowRenderGlyphAlpha(src, srcw, srch, static_cast<uint8_t*>(dst), dstx, dsty, dstw,
                                   dsth);
}

bool IsInt(int64_t value) {
    return value >= std::numeric_limits<int>::min() && value <= std::numeric_limits<int>::max();
}

// Of an outline that has not been drawn yet; drawing it takes that much memory.
bool IsTooLarge(FT_Glyph glyph) {
    FT_BBox box = {};
    FT_Glyph_Get_CBox(glyph, FT_GLYPH_BBOX_PIXELS, &box);
    return box.xMax - box.xMin > kMaxGlyphSide || box.yMax - box.yMin > kMaxGlyphSide;
}

}  // namespace

FreeTypeRenderer::PIMPL::PIMPL()
    : logger(getLogger("opal.FreeTypeRenderer")), renderGlyph(&RenderGlyphInFormat) {
    LoggerPropertyConfigure("log4cxx.properties");
}

FreeTypeRenderer::PIMPL::~PIMPL() {
    Release();
}

void FreeTypeRenderer::PIMPL::Release() {
    if (face)
        FT_Done_Face(face);
    if (library)
        FT_Done_FreeType(library);
    face = nullptr;
    library = nullptr;
    glyphs.clear();
    kerning.clear();
    cachedBytes = 0;
    pointSize = 0;
}

OPALError FreeTypeRenderer::PIMPL::_FTError2OPALError(FT_Error error, const char* /*file*/,
                                                      int line) {
    if (error == 0)
        return OPAL_OK;
    LOG4CXX_ERROR(logger, "FTError2OPALError:FT_Error [" << error << "] @ line:" << line);
    return OPAL_ERROR_GENERAL;
}
#define FT_RESULT(error) _FTError2OPALError((error), __FILE__, __LINE__)

OPALError FreeTypeRenderer::PIMPL::Initialize(const std::string* path, const void* data,
                                              size_t size, int points) {
    if (library || face)
        return OPAL_ERROR_NOT_READY;
    OPALError error = FT_RESULT(FT_Init_FreeType(&library));
    if (error == OPAL_OK && !library)
        error = OPAL_ERROR_GENERAL;
    if (error == OPAL_OK) {
        error = FT_RESULT(path ? FT_New_Face(library, path->c_str(), 0, &face)
                               : FT_New_Memory_Face(library, static_cast<const FT_Byte*>(data),
                                                    static_cast<FT_Long>(size), 0, &face));
    }
    if (error == OPAL_OK && !face)
        error = OPAL_ERROR_GENERAL;
    if (error == OPAL_OK) {
        error = FT_RESULT(FT_Set_Char_Size(face, 0, FT_F26Dot6{points} * kPointFraction,
                                           kDotsPerInch, kDotsPerInch));
    }
    if (error == OPAL_OK)
        pointSize = points;
    else
        Release();
    return error;
}

OPALError FreeTypeRenderer::PIMPL::CacheText() {
    if (cachedBytes > kMaxCachedBytes) {
        glyphs.clear();
        kerning.clear();
        cachedBytes = 0;
    }
    uint32_t previous = 0;
    for (const unsigned long character : characters) {
        const uint32_t code = static_cast<uint32_t>(character);
        OPALError error = IsStopped() ? OPAL_ERROR_TERMINATED : CacheGlyph(code);
        if (error == OPAL_OK)
            error = CacheKerning(code, previous);
        if (error == OPAL_OK && cachedBytes > 2 * kMaxCachedBytes)
            error = OPAL_ERROR_NO_MEMORY;
        if (error != OPAL_OK)
            return error;
        previous = code;
    }
    return OPAL_OK;
}

OPALError FreeTypeRenderer::PIMPL::CacheGlyph(uint32_t character) {
    if (character == 0)
        return OPAL_ERROR_INVALID_ARGUMENT;
    if (glyphs.count(character) != 0)
        return OPAL_OK;
    // Pictures in a font may be of any size, and are decoded before anyone can look at it.
    const FT_Int32 flags =
        FT_HAS_COLOR(face) || FT_HAS_SBIX(face) ? FT_LOAD_NO_BITMAP : FT_LOAD_DEFAULT;
    OPALError error = FT_RESULT(FT_Load_Glyph(face, FT_Get_Char_Index(face, character), flags));
    if (error != OPAL_OK)
        return error;
    FT_Glyph image = nullptr;
    error = FT_RESULT(FT_Get_Glyph(face->glyph, &image));
    if (error == OPAL_OK && (!image || IsTooLarge(image)))
        error = OPAL_ERROR_GENERAL;
    if (error == OPAL_OK)
        error = FT_RESULT(FT_Glyph_To_Bitmap(&image, FT_RENDER_MODE_NORMAL, nullptr, 1));
    if (error == OPAL_OK) {
        const FT_Bitmap& bitmap = reinterpret_cast<FT_BitmapGlyph>(image)->bitmap;
        // Upward bitmaps have a negative pitch, and their bytes begin at the buffer all the same.
        const size_t width = static_cast<size_t>(std::abs(bitmap.pitch));
        const size_t bytes = width * bitmap.rows;
        Glyph glyph;
        glyph.width = static_cast<uint32_t>(width);
        glyph.rows = bitmap.rows;
        glyph.left = static_cast<int>(face->glyph->metrics.horiBearingX >> 6);
        glyph.top = pointSize - static_cast<int>(face->glyph->metrics.horiBearingY >> 6);
        glyph.bitmap.Assign(bitmap.buffer, bytes, 0, false);
        if (glyph.bitmap.GetSize() == bytes) {
            glyphs[character].bitmap.Attach(glyph.bitmap);
            Glyph& cached = glyphs[character];
            cached.width = glyph.width;
            cached.rows = glyph.rows;
            cached.left = glyph.left;
            cached.top = glyph.top;
            cachedBytes += bytes + kEntryBytes;
        } else {
            error = OPAL_ERROR_NO_MEMORY;
        }
    }
    if (image)
        FT_Done_Glyph(image);
    return error;
}

OPALError FreeTypeRenderer::PIMPL::CacheKerning(uint32_t character, uint32_t previous) {
    if (previous == 0 || !FT_HAS_KERNING(face) || kerning.count({character, previous}) != 0)
        return OPAL_OK;
    FT_Vector delta = {};
    const OPALError error =
        FT_RESULT(FT_Get_Kerning(face, FT_Get_Char_Index(face, previous),
                                 FT_Get_Char_Index(face, character), FT_KERNING_DEFAULT, &delta));
    if (error != OPAL_OK)
        return error;
    kerning[{character, previous}] = static_cast<int>(delta.x >> 6);
    cachedBytes += kEntryBytes;
    return OPAL_OK;
}

OPALError FreeTypeRenderer::PIMPL::Render(const std::string& text, int width, int height,
                                          const Rect& rect, uint32_t alignment, uint32_t format,
                                          void* buffer) {
    if (!library || !face)
        return OPAL_ERROR_NOT_READY;
    if (width < 1 || height < 1 || !buffer)
        return OPAL_ERROR_INVALID_ARGUMENT;
    if (text.empty() || rect.IsEmpty())
        return OPAL_OK;
    std::memset(buffer, 0,
                BytesPerPixel(format) * static_cast<size_t>(width) * static_cast<size_t>(height));
    const OPALError error = Layout(text, rect.Width());
    if (error == OPAL_OK)
        Draw(width, height, rect, alignment, format, buffer);
    return error;
}

// Lines and words are walked together. A line above the rectangle, as an overlong text has them
// that stands at the bottom, is counted and not drawn.
void FreeTypeRenderer::PIMPL::Draw(int width, int height, const Rect& rect, uint32_t alignment,
                                   uint32_t format, void* buffer) const {
    const int64_t lineHeight = int64_t{pointSize} * 130 / 100;
    const int64_t spare = rect.Height() - lineHeight * static_cast<int64_t>(lines.size());
    int64_t y = rect.top;
    if (alignment & kMiddle)
        y += spare / 2;
    else if (alignment & kBottom)
        y += spare;

    auto word = words.begin();
    size_t index = 0;
    const auto stepOverEnd = [&] {
        if (word != words.end() && index >= word->glyphs.size()) {
            ++word;
            index = 0;
        }
    };
    for (auto line = lines.begin();
         line != lines.end() && word != words.end() && y + lineHeight <= rect.bottom; ++line) {
        const bool visible = rect.top <= y;
        int64_t x = rect.left;
        if (alignment & kCentre)
            x += (rect.Width() - line->width) / 2;
        else if (alignment & kRight)
            x += rect.Width() - line->width;
        for (uint32_t i = 0; i < line->glyphCount; ++i, ++index) {
            stepOverEnd();
            if (word == words.end() || IsStopped())
                return;
            const auto& [glyph, advance] = word->glyphs[index];
            if (visible && glyph && IsInt(x) && IsInt(y + glyph->top)) {
                renderGlyph(format, glyph->bitmap.GetData(), static_cast<int>(glyph->width),
                            static_cast<int>(glyph->rows), buffer, static_cast<int>(x),
                            static_cast<int>(y + glyph->top), width, height);
            }
            x += advance;
        }
        stepOverEnd();
        y += lineHeight;
    }
}

FreeTypeRenderer::FreeTypeRenderer() : m_pimpl(new PIMPL) {}

FreeTypeRenderer::~FreeTypeRenderer() = default;

OPALError FreeTypeRenderer::InitializeFromFile(const std::string& path, int pointSize) {
    if (path.empty() || pointSize < 1)
        return OPAL_ERROR_INVALID_ARGUMENT;
    return m_pimpl->Initialize(&path, nullptr, 0, pointSize);
}

OPALError FreeTypeRenderer::InitializeFromMemory(const void* data, size_t size, int pointSize) {
    if (!data || size == 0 || size > static_cast<size_t>(std::numeric_limits<FT_Long>::max()) ||
        pointSize < 1)
        return OPAL_ERROR_INVALID_ARGUMENT;
    if (IsCompressed(data, size))
        return OPAL_ERROR_GENERAL;
    return m_pimpl->Initialize(nullptr, data, size, pointSize);
}

void FreeTypeRenderer::SetStop(std::function<bool()> stop) {
    m_pimpl->stop = std::move(stop);
}

OPALError FreeTypeRenderer::Render(const std::string& text, int width, int height, const Rect& rect,
                                   uint32_t alignment, uint32_t format, void* buffer) {
    (void)m_pimpl->Render(text, width, height, rect, alignment, format, buffer);
    return OPAL_OK;
}
