#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "Decoder.h"
#include "Subtitles.h"

struct SwsContext;

namespace tvset {

/// Pixels of a decoded picture in another size and RGB order.
///
/// Threading: one thread at a time. Ownership: keeps its tables between calls.
class Converter {
  public:
    Converter() = default;
    ~Converter();
    Converter(const Converter&) = delete;
    Converter& operator=(const Converter&) = delete;

    /// `format`: an AVPixelFormat with one plane. False where libswscale cannot.
    bool Convert(const AVFrame& frame, int format, int width, int height, uint8_t* pixels,
                 int pitch);

  private:
    SwsContext* m_context = nullptr;
    std::vector<uint8_t> m_rows;  ///< of a picture whose rows have no room behind them
};

struct Area {
    int x, y, width, height;
};

/// Width of a picture at its height when its pixels are made square.
int DisplayWidth(const AVFrame& frame);

/// The picture as large as it fits into the area, its sides in proportion.
Area Fit(const AVFrame& frame, const Area& area);

/// Writes `picture` as PNG; black of 1280 by 720 where it was never decoded, black of its own size
/// when `black` is set. With a text the panel with the picture in it and the text above.
bool WritePng(const Picture& picture, bool black, const Overlay* text, const std::string& path,
              std::string& error);

}  // namespace tvset
