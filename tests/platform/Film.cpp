#include "Film.h"

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavutil/channel_layout.h>
#include <libavutil/opt.h>
}

#include <cmath>
#include <cstring>
#include <memory>
#include <stdexcept>

namespace film {
namespace {

struct ContextFree {
    void operator()(AVCodecContext* c) const { avcodec_free_context(&c); }
};
struct FrameFree {
    void operator()(AVFrame* f) const { av_frame_free(&f); }
};
using Context = std::unique_ptr<AVCodecContext, ContextFree>;
using Frame = std::unique_ptr<AVFrame, FrameFree>;

void Check(bool good, const char* what) {
    if (!good) {
        throw std::runtime_error(what);
    }
}

int LumaOf(int n) {
    return 40 + 2 * n;
}

/// Sends a frame (null: the end) and takes what comes; `msPerTick` scales the packets' PTS.
void Encode(AVCodecContext& encoder, const AVFrame* frame, double msPerTick, Stream& out) {
    Check(avcodec_send_frame(&encoder, frame) >= 0, "encoder refuses a frame");
    AVPacket* packet = av_packet_alloc();
    while (avcodec_receive_packet(&encoder, packet) >= 0) {
        AccessUnit unit;
        unit.bytes.assign(packet->data, packet->data + packet->size);
        unit.pts = static_cast<uint32_t>(
            std::lround(std::max(0.0, static_cast<double>(packet->pts) * msPerTick)));
        unit.key = (packet->flags & AV_PKT_FLAG_KEY) != 0;
        out.push_back(std::move(unit));
        av_packet_unref(packet);
    }
    av_packet_free(&packet);
}

Stream EncodeVideo(int width, int height, int count) {
    av_log_set_level(AV_LOG_ERROR);  // the encoder reports at length
    const AVCodec* codec = avcodec_find_encoder_by_name("libx264");
    Check(codec != nullptr, "no libx264");
    const Context encoder(avcodec_alloc_context3(codec));
    encoder->width = width;
    encoder->height = height;
    encoder->pix_fmt = AV_PIX_FMT_YUV420P;
    encoder->time_base = {1, 25};
    encoder->framerate = {25, 1};
    encoder->gop_size = 25;
    encoder->max_b_frames = 2;
    encoder->thread_count = 1;
    Check(av_opt_set(encoder->priv_data, "preset", "veryfast", 0) >= 0 &&
              av_opt_set(encoder->priv_data, "crf", "10", 0) >= 0 &&
              av_opt_set(encoder->priv_data, "x264-params",
                         "b-adapt=0:scenecut=0:keyint=25:min-keyint=25:open-gop=0", 0) >= 0,
          "libx264's options");
    Check(avcodec_open2(encoder.get(), codec, nullptr) >= 0, "libx264 does not open");
    const Frame frame(av_frame_alloc());
    frame->format = AV_PIX_FMT_YUV420P;
    frame->width = width;
    frame->height = height;
    Stream stream;
    for (int n = 0; n < count; ++n) {
        av_frame_unref(frame.get());
        frame->format = AV_PIX_FMT_YUV420P;
        frame->width = width;
        frame->height = height;
        Check(av_frame_get_buffer(frame.get(), 0) >= 0, "no frame");
        for (int plane = 0; plane < 3; ++plane) {
            const int rows = plane == 0 ? height : height / 2;
            std::memset(frame->data[plane], plane == 0 ? LumaOf(n) : 128,
                        static_cast<size_t>(frame->linesize[plane]) * static_cast<size_t>(rows));
        }
        frame->pts = n;
        Encode(*encoder, frame.get(), kFrameMs, stream);
    }
    Encode(*encoder, nullptr, kFrameMs, stream);
    return stream;
}

}  // namespace

int GreyOf(int n) {
    return static_cast<int>(std::lround((LumaOf(n) - 16) * 255.0 / 219.0));
}

const Stream& Video() {
    static const Stream stream = EncodeVideo(kWidth, kHeight, 75);
    return stream;
}

Stream SmallVideo(int width, int height) {
    return EncodeVideo(width, height, 25);
}

Stream Audio(int ms, int sampleRate, int channels) {
    av_log_set_level(AV_LOG_ERROR);
    const AVCodec* codec = avcodec_find_encoder_by_name("aac");
    Check(codec != nullptr, "no AAC encoder");
    const Context encoder(avcodec_alloc_context3(codec));
    encoder->sample_fmt = AV_SAMPLE_FMT_FLTP;
    encoder->sample_rate = sampleRate;
    encoder->time_base = {1, sampleRate};
    av_channel_layout_default(&encoder->ch_layout, channels);
    encoder->flags |= AV_CODEC_FLAG_GLOBAL_HEADER;  // raw access units, no ADTS
    Check(avcodec_open2(encoder.get(), codec, nullptr) >= 0, "the AAC encoder does not open");
    Stream stream;
    const Frame frame(av_frame_alloc());
    for (int64_t at = 0; at * 1000 < int64_t{ms} * sampleRate; at += encoder->frame_size) {
        av_frame_unref(frame.get());
        frame->format = AV_SAMPLE_FMT_FLTP;
        frame->nb_samples = encoder->frame_size;
        frame->sample_rate = sampleRate;
        Check(av_channel_layout_copy(&frame->ch_layout, &encoder->ch_layout) >= 0 &&
                  av_frame_get_buffer(frame.get(), 0) >= 0,
              "no frame");
        for (int channel = 0; channel < channels; ++channel) {
            auto* samples = reinterpret_cast<float*>(frame->extended_data[channel]);
            for (int i = 0; i < frame->nb_samples; ++i) {
                samples[i] = 0.3F * std::sin(static_cast<float>(at + i) * 0.06F);
            }
        }
        frame->pts = at;
        Encode(*encoder, frame.get(), 1000.0 / sampleRate, stream);
    }
    Encode(*encoder, nullptr, 1000.0 / sampleRate, stream);
    return stream;
}

}  // namespace film
