#pragma once

#include <cstdint>

namespace opal::package {

/// The planes of a 4:2:0 picture in memory that belongs to someone else.
struct PictureView {
    uint8_t* plane[3] = {};
    int stride[3] = {};
    int width = 0;
    int height = 0;
};

/// What a time code says: the time of the picture and the number of its level.
struct TimeCode {
    uint32_t timeMs = 0;
    unsigned level = 0;
};

/// The number that pictures of a trick track bear instead of a level's.
constexpr unsigned kTrickLevel = 15;

/// Draws the code as a row of black and white squares along the lower edge: white, black, 24 bits
/// of time (ms, highest first), 4 bits of level, 2 bits of check sum, 32 squares over the whole
/// width and a twelfth of the height. It outlives scaling, compression and a snapshot.
void DrawTimeCode(const PictureView& picture, const TimeCode& code);

/// Reads the code back from a luminance plane, or from one channel of an RGB picture (`step` bytes
/// from pixel to pixel). False when the squares do not make a code.
bool ReadTimeCode(const uint8_t* pixels, int stride, int step, int width, int height,
                  TimeCode& code);

/// Draws text in a built-in 5x7 type, white on black, digits, capitals of "LEVTRICKP", ':' and '.';
/// other characters leave a gap. `scale` is the side of one dot in pixels; x and y are made even.
/// What would lie outside the picture is left out.
void DrawText(const PictureView& picture, const char* text, int x, int y, int scale);

/// Pixels that DrawText covers across.
int TextWidth(const char* text, int scale);

}  // namespace opal::package
