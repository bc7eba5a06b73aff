#include "opal-package/ScaledPicture.h"

extern "C" {
#include <libavutil/pixdesc.h>
}

#include <string>

#include "opal-package/Error.h"

namespace opal::package {

AVFrame& ScaledPicture::At(int width, int height, unsigned) {
    Size& size = m_sizes[{width, height}];
    bool& done = m_upToDate[{width, height}];
    if (!size.frame)
        size.frame = NewPicture(width, height);
    if (!size.frame || av_frame_make_writable(size.frame.get()) < 0)
        throw PackageError(Failure::InputOutput, "no memory for a picture");
    if (!done) {
        Scale(size);
        done = true;
    }
    return *size.frame;
}

void ScaledPicture::Scale(Size& size) const {
    AVFrame& to = *size.frame;
    // Gives the same context back as long as the source's format stays.
    size.scaler.reset(sws_getCachedContext(size.scaler.release(), m_source->width, m_source->height,
                                           static_cast<AVPixelFormat>(m_source->format), to.width,
                                           to.height, AV_PIX_FMT_YUV420P, SWS_BILINEAR, nullptr,
                                           nullptr, nullptr));
    if (!size.scaler || sws_scale(size.scaler.get(), m_source->data, m_source->linesize, 0,
                                  m_source->height, to.data, to.linesize) != to.height) {
        throw PackageError(Failure::Refused,
                           std::string("pictures of format ") +
                               av_get_pix_fmt_name(static_cast<AVPixelFormat>(m_source->format)) +
                               " cannot be scaled");
    }
}

}  // namespace opal::package
