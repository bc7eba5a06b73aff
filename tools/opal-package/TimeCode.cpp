#include "opal-package/TimeCode.h"

#include <algorithm>
#include <cstring>
#include <iterator>

namespace opal::package {
namespace {

constexpr int kSquares = 32;
constexpr uint8_t kBlack = 16;
constexpr uint8_t kWhite = 235;
constexpr uint8_t kNoColour = 128;

constexpr int kGlyphWidth = 5;
constexpr int kGlyphHeight = 7;

struct Glyph {
    char letter;
    uint8_t rows[kGlyphHeight];  ///< five bits each, the leftmost dot highest
};

constexpr Glyph kGlyphs[] = {
    {'0', {0x0E, 0x11, 0x13, 0x15, 0x19, 0x11, 0x0E}},
    {'1', {0x04, 0x0C, 0x04, 0x04, 0x04, 0x04, 0x0E}},
    {'2', {0x0E, 0x11, 0x01, 0x02, 0x04, 0x08, 0x1F}},
    {'3', {0x1F, 0x02, 0x04, 0x02, 0x01, 0x11, 0x0E}},
    {'4', {0x02, 0x06, 0x0A, 0x12, 0x1F, 0x02, 0x02}},
    {'5', {0x1F, 0x10, 0x1E, 0x01, 0x01, 0x11, 0x0E}},
    {'6', {0x06, 0x08, 0x10, 0x1E, 0x11, 0x11, 0x0E}},
    {'7', {0x1F, 0x01, 0x02, 0x04, 0x08, 0x08, 0x08}},
    {'8', {0x0E, 0x11, 0x11, 0x0E, 0x11, 0x11, 0x0E}},
    {'9', {0x0E, 0x11, 0x11, 0x0F, 0x01, 0x02, 0x0C}},
    {':', {0x00, 0x04, 0x04, 0x00, 0x04, 0x04, 0x00}},
    {'.', {0x00, 0x00, 0x00, 0x00, 0x00, 0x0C, 0x0C}},
    {'L', {0x10, 0x10, 0x10, 0x10, 0x10, 0x10, 0x1F}},
    {'E', {0x1F, 0x10, 0x10, 0x1E, 0x10, 0x10, 0x1F}},
    {'V', {0x11, 0x11, 0x11, 0x11, 0x11, 0x0A, 0x04}},
    {'T', {0x1F, 0x04, 0x04, 0x04, 0x04, 0x04, 0x04}},
    {'R', {0x1E, 0x11, 0x11, 0x1E, 0x14, 0x12, 0x11}},
    {'I', {0x0E, 0x04, 0x04, 0x04, 0x04, 0x04, 0x0E}},
    {'C', {0x0E, 0x11, 0x10, 0x10, 0x10, 0x11, 0x0E}},
    {'K', {0x11, 0x12, 0x14, 0x18, 0x14, 0x12, 0x11}},
    {'P', {0x1E, 0x11, 0x11, 0x1E, 0x10, 0x10, 0x10}},
};

/// Fills the part of the rectangle that lies in the picture; edges are rounded to even pixels in
/// the colour planes.
void Fill(const PictureView& picture, int x, int y, int width, int height, uint8_t luma) {
    const int left = std::clamp(x, 0, picture.width);
    const int right = std::clamp(x + width, left, picture.width);
    const int top = std::clamp(y, 0, picture.height);
    const int bottom = std::clamp(y + height, top, picture.height);
    for (int row = top; row < bottom; ++row) {
        std::memset(picture.plane[0] + row * picture.stride[0] + left, luma,
                    static_cast<size_t>(right - left));
    }
    for (int plane = 1; plane < 3; ++plane) {
        for (int row = top / 2; row < bottom / 2; ++row) {
            std::memset(picture.plane[plane] + row * picture.stride[plane] + left / 2, kNoColour,
                        static_cast<size_t>(right / 2 - left / 2));
        }
    }
}

unsigned CheckSum(uint32_t value) {
    unsigned ones = 0;
    for (; value != 0; value >>= 1)
        ones += value & 1;
    return ones % 4;
}

int StripTop(int height) {
    return (height - height / 12) / 2 * 2;
}

}  // namespace

void DrawTimeCode(const PictureView& picture, const TimeCode& code) {
    const uint32_t value = (code.timeMs & 0xFFFFFF) << 4 | (code.level & 15);
    const uint32_t bits = 2u << 30 | value << 2 | CheckSum(value);
    const int top = StripTop(picture.height);
    for (int i = 0; i < kSquares; ++i) {
        const int left = picture.width * i / kSquares;
        const int right = picture.width * (i + 1) / kSquares;
        const bool white = (bits >> (kSquares - 1 - i) & 1) != 0;
        Fill(picture, left, top, right - left, picture.height - top, white ? kWhite : kBlack);
    }
}

bool ReadTimeCode(const uint8_t* pixels, int stride, int step, int width, int height,
                  TimeCode& code) {
    if (width < kSquares || height < 12)
        return false;
    const int row = (StripTop(height) + height) / 2;
    uint8_t squares[kSquares];
    for (int i = 0; i < kSquares; ++i) {
        const int column = width * (2 * i + 1) / (2 * kSquares);
        squares[i] = pixels[row * stride + column * step];
    }
    const int threshold = (squares[0] + squares[1]) / 2;
    if (squares[0] < squares[1] + 64)
        return false;
    uint32_t bits = 0;
    for (uint8_t square : squares)
        bits = bits << 1 | (square > threshold ? 1 : 0);
    const uint32_t value = bits >> 2 & 0xFFFFFFF;
    code.timeMs = value >> 4;
    code.level = value & 15;
    return (bits & 3) == CheckSum(value);
}

void DrawText(const PictureView& picture, const char* text, int x, int y, int scale) {
    x = x / 2 * 2;
    y = y / 2 * 2;
    Fill(picture, x, y, TextWidth(text, scale), (kGlyphHeight + 2) * scale, kBlack);
    for (int position = x + scale; *text != 0; ++text, position += (kGlyphWidth + 1) * scale) {
        const auto glyph = std::find_if(std::begin(kGlyphs), std::end(kGlyphs),
                                        [text](const Glyph& g) { return g.letter == *text; });
        if (glyph == std::end(kGlyphs))
            continue;
        for (int row = 0; row < kGlyphHeight; ++row) {
            for (int column = 0; column < kGlyphWidth; ++column) {
                if ((glyph->rows[row] >> (kGlyphWidth - 1 - column) & 1) != 0) {
                    Fill(picture, position + column * scale, y + (row + 1) * scale, scale, scale,
                         kWhite);
                }
            }
        }
    }
}

int TextWidth(const char* text, int scale) {
    return (static_cast<int>(std::strlen(text)) * (kGlyphWidth + 1) + 1) * scale;
}

}  // namespace opal::package
