#pragma once

#include <cstdint>

namespace tvset {

/// Pixels to draw on: `bytesPerPixel` bytes each, of which the first three are colours.
struct Pixels {
    uint8_t* data;
    int pitch;
    int bytesPerPixel;
    int width;
    int height;
};

/// Draws the text of SetStatusText into the upper left corner, on a dark ground, in letters whose
/// size goes with the picture's height. Nothing where there is no text. Any thread.
void DrawStatusText(const Pixels& pixels);

}  // namespace tvset
