#include "opal-package/VideoEncoder.h"

#include <utility>

#include "opal-package/Error.h"

namespace opal::package {
namespace {

/// Groups of pictures end where a key frame is asked for; this only bounds what happens if none is.
constexpr int kLongestGroup = 100000;
constexpr int kThreads = 2;
/// The encoder's reports are for those who raise libavutil's log level.
constexpr int kQuieter = AV_LOG_DEBUG - AV_LOG_INFO;
/// Quality of a trick picture, which is seen for a fraction of a second.
constexpr const char* kTrickQuality = "28";

[[noreturn]] void Fail(const std::string& what, int code) {
    throw PackageError(Failure::InputOutput, "H.264 encoder: " + what + ": " + AvErrorText(code));
}

}  // namespace

VideoEncoder::VideoEncoder(const VideoEncoderOptions& options, Output output)
    : m_output(std::move(output)), m_packet(av_packet_alloc()) {
    const AVCodec* codec = avcodec_find_encoder_by_name("libx264");
    if (codec == nullptr) {
        throw PackageError(Failure::InputOutput,
                           "this FFmpeg has no libx264 encoder; install libavcodec with x264");
    }
    m_context.reset(avcodec_alloc_context3(codec));
    AVCodecContext& context = *m_context;
    context.width = options.width;
    context.height = options.height;
    context.pix_fmt = AV_PIX_FMT_YUV420P;
    context.sample_aspect_ratio = {1, 1};
    context.color_primaries = options.colour.primaries;
    context.color_trc = options.colour.transfer;
    context.colorspace = options.colour.matrix;
    context.color_range = options.colour.range;
    context.time_base = {1, 1000};
    context.framerate = options.frameRate;
    context.gop_size = options.allKey ? 1 : kLongestGroup;
    context.max_b_frames = options.allKey ? 0 : 2;
    context.thread_count = kThreads;
    context.log_level_offset = kQuieter;
    AVDictionary* settings = nullptr;
    av_dict_set(&settings, "preset", options.preset.c_str(), 0);
    av_dict_set(&settings, "profile", "high", 0);
    av_dict_set(&settings, "forced-idr", "1", 0);
    av_dict_set(&settings, "x264-params", "scenecut=0:open-gop=0:repeat-headers=1:annexb=1", 0);
    if (options.bitrate > 0) {
        context.bit_rate = int64_t{options.bitrate} * 9 / 10;
        context.rc_max_rate = options.bitrate;
        context.rc_buffer_size = VbvBits(options.bitrate);
    } else {
        av_dict_set(&settings, "crf", kTrickQuality, 0);
    }
    const int code = avcodec_open2(&context, codec, &settings);
    av_dict_free(&settings);
    if (code < 0) {
        Fail(std::to_string(options.width) + "x" + std::to_string(options.height) +
                 " with preset '" + options.preset + "' cannot be opened",
             code);
    }
}

void VideoEncoder::Encode(AVFrame& picture, int64_t timeMs, bool key) {
    picture.pts = timeMs;
    picture.pict_type = key ? AV_PICTURE_TYPE_I : AV_PICTURE_TYPE_NONE;
    const int code = avcodec_send_frame(m_context.get(), &picture);
    if (code < 0)
        Fail("picture at " + std::to_string(timeMs) + " ms", code);
    Receive();
}

void VideoEncoder::Drain() {
    const int code = avcodec_send_frame(m_context.get(), nullptr);
    if (code < 0 && code != AVERROR_EOF)
        Fail("end of the film", code);
    Receive();
}

void VideoEncoder::Receive() {
    int code = 0;
    while ((code = avcodec_receive_packet(m_context.get(), m_packet.get())) >= 0) {
        const auto units = SplitAnnexB(m_packet->data, static_cast<size_t>(m_packet->size));
        CollectParameterSets(units, m_sets);
        Block block;
        block.timeMs = m_packet->pts;
        block.key = (m_packet->flags & AV_PKT_FLAG_KEY) != 0;
        block.data = MakeAccessUnit(units, block.key, m_sets);
        av_packet_unref(m_packet.get());
        m_output(std::move(block));
    }
    if (code != AVERROR(EAGAIN) && code != AVERROR_EOF)
        Fail("access unit", code);
}

}  // namespace opal::package
