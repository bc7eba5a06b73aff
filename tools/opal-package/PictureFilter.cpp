#include "opal-package/PictureFilter.h"

extern "C" {
#include <libavfilter/buffersink.h>
#include <libavfilter/buffersrc.h>
#include <libavutil/display.h>
#include <libavutil/pixdesc.h>
}

#include <algorithm>
#include <cstdlib>

#include "opal-package/Error.h"

namespace opal::package {
namespace {

/// Pictures without a colour description are taken for BT.709 from this size on, as players do.
constexpr int kHdWidth = 1280;
constexpr int kHdHeight = 577;
constexpr int kFilterThreads = 2;

/// The nearest quarter turn, mirrored or not, of a display matrix: the matrix takes the picture's
/// axes to those of the screen, whose second axis points downwards.
void ReadOrientation(const int32_t* matrix, PictureProperties& properties) {
    const int64_t a = matrix[0];
    const int64_t b = matrix[1];
    const int64_t c = matrix[3];
    const int64_t d = matrix[4];
    properties.sideways = std::llabs(b) + std::llabs(c) > std::llabs(a) + std::llabs(d);
    if (properties.sideways) {
        properties.turn = b > 0 ? (c < 0 ? "transpose=clock" : "transpose=cclock_flip")
                                : (c > 0 ? "transpose=cclock" : "transpose=clock_flip");
    } else if (a < 0) {
        properties.turn = d < 0 ? "hflip,vflip" : "hflip";
    } else if (d < 0) {
        properties.turn = "vflip";
    }
}

bool IsWide(AVColorPrimaries primaries) {
    return primaries == AVCOL_PRI_BT2020 || primaries == AVCOL_PRI_SMPTE431 ||
           primaries == AVCOL_PRI_SMPTE432;
}

/// The name that the scale filter has for a matrix; empty for those that it does not know.
std::string MatrixName(AVColorSpace matrix) {
    switch (matrix) {
        case AVCOL_SPC_BT709:
            return "bt709";
        case AVCOL_SPC_BT470BG:
        case AVCOL_SPC_SMPTE170M:
            return "bt601";
        case AVCOL_SPC_FCC:
            return "fcc";
        case AVCOL_SPC_SMPTE240M:
            return "smpte240m";
        case AVCOL_SPC_BT2020_NCL:
        case AVCOL_SPC_BT2020_CL:
            return "bt2020";
        default:
            return "";
    }
}

bool IsRgb(int format) {
    const AVPixFmtDescriptor* pixels = av_pix_fmt_desc_get(static_cast<AVPixelFormat>(format));
    return pixels != nullptr && (pixels->flags & (AV_PIX_FMT_FLAG_RGB | AV_PIX_FMT_FLAG_PAL)) != 0;
}

}  // namespace

PictureProperties PropertiesOf(const AVStream& stream) {
    PictureProperties properties;
    size_t size = 0;
    const uint8_t* matrix = av_stream_get_side_data(&stream, AV_PKT_DATA_DISPLAYMATRIX, &size);
    if (matrix != nullptr && size >= 9 * sizeof(int32_t))
        ReadOrientation(reinterpret_cast<const int32_t*>(matrix), properties);
    const AVCodecParameters& parameters = *stream.codecpar;
    Colour& colour = properties.colour;
    colour = {parameters.color_primaries, parameters.color_trc, parameters.color_space,
              parameters.color_range};
    properties.highDynamicRange =
        colour.transfer == AVCOL_TRC_SMPTE2084 || colour.transfer == AVCOL_TRC_ARIB_STD_B67;
    if (colour.matrix == AVCOL_SPC_UNSPECIFIED || colour.matrix == AVCOL_SPC_RESERVED) {
        const bool hd = parameters.width >= kHdWidth || parameters.height >= kHdHeight;
        colour.matrix = properties.highDynamicRange ? AVCOL_SPC_BT2020_NCL
                        : hd                        ? AVCOL_SPC_BT709
                                                    : AVCOL_SPC_SMPTE170M;
    }
    if (properties.highDynamicRange && colour.primaries == AVCOL_PRI_UNSPECIFIED)
        colour.primaries = AVCOL_PRI_BT2020;
    if (colour.range == AVCOL_RANGE_UNSPECIFIED)
        colour.range = AVCOL_RANGE_MPEG;
    return properties;
}

void PictureFilter::Fail(const std::string& what, int code) const {
    throw PackageError(Failure::Refused, m_name + ": its pictures cannot be converted: " + what +
                                             ": " + AvErrorText(code));
}

AVFilterContext* PictureFilter::AddFilter(const char* name, const std::string& arguments) const {
    AVFilterContext* context = nullptr;
    const int code = avfilter_graph_create_filter(&context, avfilter_get_by_name(name), name,
                                                  arguments.empty() ? nullptr : arguments.c_str(),
                                                  nullptr, m_graph.get());
    if (code < 0)
        Fail(name, code);
    return context;
}

Colour PictureFilter::OutputColour() const {
    Colour colour;  // BT.709 throughout
    const Colour& source = m_properties.colour;
    if (m_properties.highDynamicRange || IsWide(source.primaries))
        return colour;
    // Matrix and range are converted; the rest of an ordinary picture is kept and said.
    if (source.primaries != AVCOL_PRI_UNSPECIFIED && source.primaries != AVCOL_PRI_RESERVED &&
        source.primaries != AVCOL_PRI_RESERVED0)
        colour.primaries = source.primaries;
    if (source.transfer != AVCOL_TRC_UNSPECIFIED && source.transfer != AVCOL_TRC_RESERVED &&
        source.transfer != AVCOL_TRC_RESERVED0)
        colour.transfer = source.transfer;
    return colour;
}

std::string PictureFilter::ColourChain(const Shape& shape) const {
    const Colour& colour = m_properties.colour;
    const bool full = colour.range == AVCOL_RANGE_JPEG || shape.format == AV_PIX_FMT_YUVJ420P ||
                      shape.format == AV_PIX_FMT_YUVJ422P || shape.format == AV_PIX_FMT_YUVJ444P;
    if (m_properties.highDynamicRange || IsWide(colour.primaries)) {
        if (avfilter_get_by_name("zscale") == nullptr) {
            throw PackageError(
                Failure::Refused,
                m_name +
                    ": its pictures are of high dynamic range or wide gamut, and this "
                    "FFmpeg has no zscale filter to convert them");
        }
        const AVColorTransferCharacteristic transfer =
            colour.transfer == AVCOL_TRC_UNSPECIFIED ? AVCOL_TRC_BT709 : colour.transfer;
        // zscale takes no halves of colour samples.
        std::string chain =
            (shape.width % 2 + shape.height % 2 > 0 ? "crop=trunc(iw/2)*2:trunc(ih/2)*2," : "") +
            std::string("zscale=pin=") + std::to_string(colour.primaries) +
            ":tin=" + std::to_string(transfer) + ":min=" + std::to_string(colour.matrix) +
            ":rin=" + (full ? "full" : "limited");
        if (m_properties.highDynamicRange) {
            chain +=
                ":t=linear:npl=100,format=gbrpf32le,zscale=p=bt709,"
                "tonemap=tonemap=mobius:desat=0,zscale=t=bt709:m=bt709:r=limited";
        } else {
            chain += ":p=bt709:t=bt709:m=bt709:r=limited";
        }
        return chain + ",format=yuv420p";
    }
    if (IsRgb(shape.format))
        return "scale=out_color_matrix=bt709:out_range=limited,format=yuv420p";
    std::string matrix = MatrixName(colour.matrix);
    if (matrix.empty())
        matrix = "auto";
    if (matrix == "bt709" && !full)
        return shape.format == AV_PIX_FMT_YUV420P ? "" : "format=yuv420p";
    return "scale=in_color_matrix=" + matrix + ":in_range=" + (full ? "full" : "limited") +
           ":out_color_matrix=bt709:out_range=limited,format=yuv420p";
}

std::string PictureFilter::Chain(const Shape& shape) const {
    std::string chain;
    const auto add = [&chain](const std::string& filter) {
        if (!filter.empty())
            chain += (chain.empty() ? "" : ",") + filter;
    };
    // Lines of two moments must be parted before anything mixes them.
    add(shape.interlaced ? "bwdif=mode=send_frame:deint=interlaced" : "");
    add(ColourChain(shape));
    add(m_properties.turn);
    return chain;
}

void PictureFilter::Build(const AVFrame& picture, const Shape& shape) {
    m_graph.reset();
    m_shape = shape;
    const std::string chain = Chain(shape);
    if (chain.empty())
        return;
    m_graph.reset(avfilter_graph_alloc());
    if (!m_graph)
        Fail("filter", AVERROR(ENOMEM));
    m_graph->nb_threads = kFilterThreads;
    const AVRational aspect = picture.sample_aspect_ratio;
    m_source = AddFilter("buffer", "width=" + std::to_string(shape.width) +
                                       ":height=" + std::to_string(shape.height) +
                                       ":pix_fmt=" + std::to_string(shape.format) +
                                       ":time_base=1/1000:sar=" + std::to_string(aspect.num) + "/" +
                                       std::to_string(std::max(aspect.den, 1)));
    m_sink = AddFilter("buffersink", "");
    AVFilterInOut* inputs = nullptr;
    AVFilterInOut* outputs = nullptr;
    int code = avfilter_graph_parse2(m_graph.get(), chain.c_str(), &inputs, &outputs);
    if (code >= 0 && (inputs == nullptr || outputs == nullptr))
        code = AVERROR_BUG;
    if (code >= 0) {
        code =
            avfilter_link(m_source, 0, inputs->filter_ctx, static_cast<unsigned>(inputs->pad_idx));
    }
    if (code >= 0) {
        code =
            avfilter_link(outputs->filter_ctx, static_cast<unsigned>(outputs->pad_idx), m_sink, 0);
    }
    avfilter_inout_free(&inputs);
    avfilter_inout_free(&outputs);
    code = code < 0 ? code : avfilter_graph_config(m_graph.get(), nullptr);
    if (code < 0)
        Fail(chain, code);
}

void PictureFilter::Push(AVFrame& picture, const Take& take) {
    const Shape shape = {picture.width, picture.height, picture.format,
                         m_shape.interlaced || picture.interlaced_frame != 0};
    const bool same = shape.width == m_shape.width && shape.height == m_shape.height &&
                      shape.format == m_shape.format && shape.interlaced == m_shape.interlaced;
    if (!same) {
        Finish(take);
        Build(picture, shape);
    }
    if (!m_graph) {
        take(picture);
        return;
    }
    const int code = av_buffersrc_add_frame_flags(m_source, &picture, AV_BUFFERSRC_FLAG_KEEP_REF);
    if (code < 0)
        Fail("picture at " + std::to_string(picture.pts) + " ms", code);
    Pull(take);
}

void PictureFilter::Finish(const Take& take) {
    if (m_graph) {
        const int code = av_buffersrc_add_frame_flags(m_source, nullptr, 0);
        if (code < 0)
            Fail("last picture", code);
        Pull(take);
        m_graph.reset();
    }
}

void PictureFilter::Pull(const Take& take) {
    const AvPtr<AVFrame> picture(av_frame_alloc());
    int code = picture ? 0 : AVERROR(ENOMEM);
    while (code >= 0 && (code = av_buffersink_get_frame(m_sink, picture.get())) >= 0) {
        picture->pts =
            av_rescale_q(picture->pts, av_buffersink_get_time_base(m_sink), AVRational{1, 1000});
        take(*picture);
        av_frame_unref(picture.get());
    }
    if (code != AVERROR(EAGAIN) && code != AVERROR_EOF)
        Fail("picture", code);
}

}  // namespace opal::package
