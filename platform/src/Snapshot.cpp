#include "Snapshot.h"

extern "C" {
#include <libavutil/frame.h>
#include <libavutil/imgutils.h>
#include <libswscale/swscale.h>
}
#include <png.h>

#include <algorithm>

#include "StatusText.h"

namespace tvset {
namespace {

constexpr int kEmptyWidth = 1280;
constexpr int kEmptyHeight = 720;
/// libswscale writes its rows in steps of this many pixels.
constexpr int kStep = 16;

/// What the bitstream says. Where it says nothing, high definition's own, at whatever height: the
/// levels of a ladder are one film, and its colours must not change with the level.
int ColourSpace(const AVFrame& frame) {
    const bool known =
        frame.colorspace != AVCOL_SPC_UNSPECIFIED && frame.colorspace != AVCOL_SPC_RGB;
    return known ? frame.colorspace : SWS_CS_ITU709;
}

/// Pixels of a picture or a panel, 24 bit RGB.
struct Canvas {
    Canvas(int canvasWidth, int canvasHeight)
        : width(canvasWidth),
          height(canvasHeight),
          pixels(static_cast<size_t>(width) * static_cast<size_t>(height) * 3) {}
    uint8_t* At(int x, int y) {
        return pixels.data() + (static_cast<ptrdiff_t>(y) * width + x) * 3;
    }

    int width;
    int height;
    std::vector<uint8_t> pixels;
};

/// How much the text covers the canvas' pixel, between the text's own pixels in proportion.
unsigned Coverage(const Overlay& text, const Canvas& canvas, int x, int y) {
    if (static_cast<int>(text.width) == canvas.width &&
        static_cast<int>(text.height) == canvas.height)
        return text.coverage[static_cast<size_t>(y) * text.width + static_cast<size_t>(x)];
    constexpr uint64_t kOne = 256;
    const auto place = [](int at, int size, unsigned from, uint64_t& part) {
        const uint64_t scaled =
            static_cast<uint64_t>(at) * kOne * from / static_cast<uint64_t>(size);
        part = scaled % kOne;
        return static_cast<size_t>(scaled / kOne);
    };
    uint64_t right = 0;
    uint64_t down = 0;
    const size_t column = place(x, canvas.width, text.width, right);
    const size_t row = place(y, canvas.height, text.height, down);
    const size_t nextColumn = std::min<size_t>(column + 1, text.width - 1);
    const size_t nextRow = std::min<size_t>(row + 1, text.height - 1);
    const auto at = [&](size_t r, size_t c) -> uint64_t {
        return text.coverage[r * text.width + c];
    };
    const uint64_t upper = at(row, column) * (kOne - right) + at(row, nextColumn) * right;
    const uint64_t lower = at(nextRow, column) * (kOne - right) + at(nextRow, nextColumn) * right;
    return static_cast<unsigned>((upper * (kOne - down) + lower * down) / (kOne * kOne));
}

/// White letters over what is there.
void Blend(const Overlay& text, Canvas& canvas) {
    for (int y = 0; y < canvas.height; ++y) {
        for (int x = 0; x < canvas.width; ++x) {
            const unsigned cover = Coverage(text, canvas, x, y);
            uint8_t* pixel = canvas.At(x, y);
            for (int i = 0; cover != 0 && i < 3; ++i)
                pixel[i] = static_cast<uint8_t>((pixel[i] * (255 - cover) + 255 * cover) / 255);
        }
    }
}

/// The panel, or a larger one of its shape where the picture has more rows or columns.
Canvas PanelFor(const AVFrame* frame) {
    int height = kEmptyHeight;
    if (frame != nullptr) {
        const int wide = static_cast<int>(int64_t{DisplayWidth(*frame)} * 9 / 16);
        height = std::max({height, frame->height, wide}) / 9 * 9;
    }
    return Canvas(height * 16 / 9, height);
}

}  // namespace

Converter::~Converter() {
    sws_freeContext(m_context);
}

bool Converter::Convert(const AVFrame& frame, int format, int width, int height, uint8_t* pixels,
                        int pitch) {
    m_context = sws_getCachedContext(
        m_context, frame.width, frame.height, static_cast<AVPixelFormat>(frame.format), width,
        height, static_cast<AVPixelFormat>(format), SWS_BILINEAR, nullptr, nullptr, nullptr);
    if (m_context == nullptr)
        return false;
    const bool full = frame.color_range == AVCOL_RANGE_JPEG || frame.format == AV_PIX_FMT_YUVJ420P;
    const int* coefficients = sws_getCoefficients(ColourSpace(frame));
    (void)sws_setColorspaceDetails(m_context, coefficients, full ? 1 : 0,
                                   sws_getCoefficients(SWS_CS_DEFAULT), 1, 0, 1 << 16, 1 << 16);
    uint8_t* target = pixels;
    int targetPitch = pitch;
    const bool spills = width % kStep != 0;
    if (spills) {
        const int rounded = (width + kStep - 1) / kStep * kStep;
        targetPitch = av_image_get_linesize(static_cast<AVPixelFormat>(format), rounded, 0);
        m_rows.resize(static_cast<size_t>(targetPitch) * static_cast<size_t>(height) + 64);
        target = m_rows.data();
    }
    uint8_t* const planes[4] = {target, nullptr, nullptr, nullptr};
    const int pitches[4] = {targetPitch, 0, 0, 0};
    if (sws_scale(m_context, frame.data, frame.linesize, 0, frame.height, planes, pitches) !=
        height)
        return false;
    if (spills) {
        const int bytes = av_image_get_linesize(static_cast<AVPixelFormat>(format), width, 0);
        av_image_copy_plane(pixels, pitch, target, targetPitch, bytes, height);
    }
    return true;
}

int DisplayWidth(const AVFrame& frame) {
    const AVRational aspect = frame.sample_aspect_ratio;
    if (aspect.num <= 0 || aspect.den <= 0)
        return frame.width;
    const int64_t width = int64_t{frame.width} * aspect.num / aspect.den;
    return static_cast<int>(std::clamp<int64_t>(width, 1, 16384));
}

Area Fit(const AVFrame& frame, const Area& area) {
    const int64_t width = DisplayWidth(frame);
    const int64_t height = frame.height;
    Area fit = area;
    if (width * area.height > height * area.width)
        fit.height = std::max(static_cast<int>(height * area.width / width), 1);
    else
        fit.width = std::max(static_cast<int>(width * area.height / height), 1);
    fit.x += (area.width - fit.width) / 2;
    fit.y += (area.height - fit.height) / 2;
    return fit;
}

bool WritePng(const Picture& picture, bool black, const Overlay* text, const std::string& path,
              std::string& error) {
    const AVFrame* frame = picture.frame.get();
    Canvas canvas = text != nullptr    ? PanelFor(frame)
                    : frame != nullptr ? Canvas(DisplayWidth(*frame), frame->height)
                                       : Canvas(kEmptyWidth, kEmptyHeight);
    if (frame != nullptr && !black) {
        const Area fit = Fit(*frame, {0, 0, canvas.width, canvas.height});
        Converter converter;
        if (!converter.Convert(*frame, AV_PIX_FMT_RGB24, fit.width, fit.height,
                               canvas.At(fit.x, fit.y), canvas.width * 3)) {
            error = "the picture's pixel format cannot be converted";
            return false;
        }
    }
    if (text != nullptr)
        Blend(*text, canvas);
    DrawStatusText({canvas.pixels.data(), canvas.width * 3, 3, canvas.width, canvas.height});
    png_image image{};
    image.version = PNG_IMAGE_VERSION;
    image.width = static_cast<png_uint_32>(canvas.width);
    image.height = static_cast<png_uint_32>(canvas.height);
    image.format = PNG_FORMAT_RGB;
    if (png_image_write_to_file(&image, path.c_str(), 0, canvas.pixels.data(), canvas.width * 3,
                                nullptr) == 0) {
        error = path + ": " + image.message;
        return false;
    }
    return true;
}

}  // namespace tvset
