#include "StatusText.h"

#include <ft2build.h>
#include FT_FREETYPE_H

#include <algorithm>
#include <memory>
#include <string>

#include "Common/Mutex.h"
#include "TvSet.h"

namespace tvset {
namespace {

constexpr const char* kFonts[] = {"/usr/share/fonts/truetype/dejavu/DejaVuSansMono.ttf",
                                  "/usr/share/fonts/TTF/DejaVuSansMono.ttf",
                                  "/usr/share/fonts/dejavu-sans-mono-fonts/DejaVuSansMono.ttf"};
constexpr size_t kLongestText = 4096;
constexpr int kRowsOfPicture = 32;  ///< lines of text that would fill a picture
constexpr int kSmallestSize = 8;
constexpr unsigned kGround = 90;  ///< of 255: what is left of the picture's light below the text

/// The font, opened once.
///
/// Threading: none; under g_mutex.
class Font {
  public:
    static Font& Get() {
        static Font font;
        return font;
    }
    bool IsOpen() const { return m_face != nullptr; }
    void SetSize(int pixels) { (void)FT_Set_Pixel_Sizes(m_face, 0, static_cast<FT_UInt>(pixels)); }
    FT_GlyphSlot Glyph(char c) {
        const bool loaded =
            FT_Load_Char(m_face, static_cast<unsigned char>(c), FT_LOAD_RENDER) == 0;
        return loaded ? m_face->glyph : nullptr;
    }

  private:
    Font() {
        if (FT_Init_FreeType(&m_library) != 0)
            return;
        for (const char* file : kFonts) {
            if (m_face == nullptr && FT_New_Face(m_library, file, 0, &m_face) != 0)
                m_face = nullptr;
        }
    }
    ~Font() {
        if (m_library != nullptr)
            (void)FT_Done_FreeType(m_library);
    }

    FT_Library m_library = nullptr;
    FT_Face m_face = nullptr;
};

opal::Mutex g_mutex;
std::string g_text OPAL_GUARDED_BY(g_mutex);

uint8_t* At(const Pixels& pixels, int x, int y) {
    return pixels.data + static_cast<ptrdiff_t>(y) * pixels.pitch +
           static_cast<ptrdiff_t>(x) * pixels.bytesPerPixel;
}

void Darken(const Pixels& pixels, int width, int height) {
    for (int y = 0; y < std::min(height, pixels.height); ++y) {
        for (int x = 0; x < std::min(width, pixels.width); ++x) {
            uint8_t* pixel = At(pixels, x, y);
            for (int i = 0; i < 3; ++i)
                pixel[i] = static_cast<uint8_t>(pixel[i] * kGround / 255);
        }
    }
}

void Blend(const Pixels& pixels, const FT_Bitmap& glyph, int left, int top) {
    for (int row = 0; row < static_cast<int>(glyph.rows); ++row) {
        for (int column = 0; column < static_cast<int>(glyph.width); ++column) {
            const int x = left + column;
            const int y = top + row;
            if (x < 0 || y < 0 || x >= pixels.width || y >= pixels.height)
                continue;
            const unsigned cover = glyph.buffer[static_cast<ptrdiff_t>(row) * glyph.pitch + column];
            uint8_t* pixel = At(pixels, x, y);
            for (int i = 0; i < 3; ++i)
                pixel[i] = static_cast<uint8_t>((pixel[i] * (255 - cover) + 255 * cover) / 255);
        }
    }
}

}  // namespace

void DrawStatusText(const Pixels& pixels) {
    const opal::MutexLock lock(g_mutex);
    if (g_text.empty() || !Font::Get().IsOpen())
        return;
    Font& font = Font::Get();
    const int line = std::max(pixels.height / kRowsOfPicture, kSmallestSize + 2);
    font.SetSize(std::max(line * 4 / 5, kSmallestSize));
    const FT_GlyphSlot zero = font.Glyph('0');
    const int advance =
        zero != nullptr ? std::max(static_cast<int>(zero->advance.x >> 6), 1) : line;
    int columns = 0;
    int longest = 0;
    for (const char c : g_text) {
        columns = c == '\n' ? 0 : columns + 1;
        longest = std::max(longest, columns);
    }
    const int lines = 1 + static_cast<int>(std::count(g_text.begin(), g_text.end(), '\n'));
    Darken(pixels, (longest + 2) * advance, lines * line + line / 2);
    int x = advance;
    int baseline = line;
    for (const char c : g_text) {
        if (c == '\n') {
            x = advance;
            baseline += line;
            continue;
        }
        if (const FT_GlyphSlot glyph = c == ' ' ? nullptr : font.Glyph(c))
            Blend(pixels, glyph->bitmap, x + glyph->bitmap_left, baseline - glyph->bitmap_top);
        x += advance;
    }
}

bool SetStatusText(const std::string& text) {
    const opal::MutexLock lock(g_mutex);
    g_text = text.substr(0, kLongestText);
    return g_text.empty() || Font::Get().IsOpen();
}

}  // namespace tvset
