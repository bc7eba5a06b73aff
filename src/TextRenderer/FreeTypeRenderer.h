#pragma once

#include <boost/noncopyable.hpp>
#include <boost/scoped_ptr.hpp>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>

#include "Common/OPALError.h"

/// Draws a UTF-8 text, broken into lines, into a rectangle of a caller's pixels: white letters
/// whose alpha is their coverage. No shaping, and no text from right to left.
///
/// Threading: one thread at a time.
/// Ownership: the font's bytes are the caller's and outlive the renderer; pixels too are the
/// caller's.
/// Units: sizes of fonts in points at 96 dots an inch, all else in pixels.
/// Errors: -2 for arguments, -4 for a second font, -1 for a font that cannot be read.
class FreeTypeRenderer : boost::noncopyable {
  public:
    struct Rect {
        int32_t left = 0;
        int32_t top = 0;
        int32_t right = 0;
        int32_t bottom = 0;

        int64_t Width() const { return int64_t{right} - left; }
        int64_t Height() const { return int64_t{bottom} - top; }
        bool IsEmpty() const { return left >= right || top >= bottom; }
    };

    /// Bits of an alignment. Without one: left, and top. 1 wins over 2, 4 over 8.
    enum : uint32_t { kCentre = 1, kRight = 2, kMiddle = 4, kBottom = 8 };
    /// Any other format has no pixels: nothing is cleared or drawn.
    enum : uint32_t { kRGBA32 = 0, kAlpha = 1 };

    FreeTypeRenderer();
    virtual ~FreeTypeRenderer();

    OPALError InitializeFromFile(const std::string& path, int pointSize);
    OPALError InitializeFromMemory(const void* data, size_t size, int pointSize);

    /// Asked at every character of a text that is drawn: true gives that text up, and leaves the
    /// pixels as far as they have come. A text may be long, and a font slow.
    void SetStop(std::function<bool()> stop);

    /// Clears the whole buffer of width x height pixels and draws what fits into `rect`; of an
    /// overlong text with kBottom the last lines. An empty text or rectangle leaves the buffer as
    /// it is. Always 0, deliberately: a text that cannot be laid out (broken UTF-8, a glyph wider
    /// than the rectangle, a font that fails) shows as a cleared buffer.
    OPALError Render(const std::string& text, int width, int height, const Rect& rect,
                     uint32_t alignment, uint32_t format, void* buffer);

    struct PIMPL;
    /// For tests; the type is private to this folder.
    PIMPL& GetPimpl() { return *m_pimpl; }

  private:
    boost::scoped_ptr<PIMPL> m_pimpl;
};
