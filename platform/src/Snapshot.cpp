#include "Snapshot.h"

extern "C" {
#include <libavutil/frame.h>
#include <libswscale/swscale.h>
}
#include <png.h>

#include <algorithm>

namespace tvset {
namespace {

constexpr int kEmptyWidth = 1280;
constexpr int kEmptyHeight = 720;
/// From this height on, material without a colour description is taken for BT.709.
constexpr int kHdHeight = 720;

int ColourSpace(const AVFrame& frame) {
    if (frame.colorspace != AVCOL_SPC_UNSPECIFIED && frame.colorspace != AVCOL_SPC_RGB) {
        return frame.colorspace;
    }
    return frame.height >= kHdHeight ? SWS_CS_ITU709 : SWS_CS_ITU601;
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
    if (m_context == nullptr) {
        return false;
    }
    const bool full = frame.color_range == AVCOL_RANGE_JPEG || frame.format == AV_PIX_FMT_YUVJ420P;
    const int* coefficients = sws_getCoefficients(ColourSpace(frame));
    (void)sws_setColorspaceDetails(m_context, coefficients, full ? 1 : 0,
                                   sws_getCoefficients(SWS_CS_DEFAULT), 1, 0, 1 << 16, 1 << 16);
    uint8_t* const planes[4] = {pixels, nullptr, nullptr, nullptr};
    const int pitches[4] = {pitch, 0, 0, 0};
    return sws_scale(m_context, frame.data, frame.linesize, 0, frame.height, planes, pitches) ==
           height;
}

int DisplayWidth(const AVFrame& frame) {
    const AVRational aspect = frame.sample_aspect_ratio;
    if (aspect.num <= 0 || aspect.den <= 0) {
        return frame.width;
    }
    const int64_t width = int64_t{frame.width} * aspect.num / aspect.den;
    return static_cast<int>(std::clamp<int64_t>(width, 1, 16384));
}

bool WritePng(const Picture& picture, bool black, const std::string& path, std::string& error) {
    const int width = picture.frame ? picture.frame->width : kEmptyWidth;
    const int height = picture.frame ? picture.frame->height : kEmptyHeight;
    // libswscale may write past the last row's end.
    std::vector<uint8_t> pixels(static_cast<size_t>(width) * static_cast<size_t>(height) * 3 + 64);
    if (picture.frame && !black) {
        Converter converter;
        if (!converter.Convert(*picture.frame, AV_PIX_FMT_RGB24, width, height, pixels.data(),
                               width * 3)) {
            error = "the picture's pixel format cannot be converted";
            return false;
        }
    }
    png_image image{};
    image.version = PNG_IMAGE_VERSION;
    image.width = static_cast<png_uint_32>(width);
    image.height = static_cast<png_uint_32>(height);
    image.format = PNG_FORMAT_RGB;
    if (png_image_write_to_file(&image, path.c_str(), 0, pixels.data(), width * 3, nullptr) == 0) {
        error = path + ": " + image.message;
        return false;
    }
    return true;
}

}  // namespace tvset
