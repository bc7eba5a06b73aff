#include "opal-package/AudioEncoder.h"

#include <algorithm>
#include <cstring>
#include <utility>

#include "opal-package/Error.h"

namespace opal::package {
namespace {

/// Pieces whose times are this close to where the last one ended are taken to follow it: time
/// stamps in milliseconds are not exact to the sample.
constexpr int64_t kToleranceMs = 30;
constexpr int kFrameSamples = 1024;

[[noreturn]] void Fail(const std::string& what, int code) {
    throw PackageError(Failure::InputOutput, "AAC encoder: " + what + ": " + AvErrorText(code));
}

}  // namespace

AudioEncoder::AudioEncoder(int sampleRate, int bitrate, Output output)
    : m_output(std::move(output)),
      m_frame(av_frame_alloc()),
      m_packet(av_packet_alloc()),
      m_rate(sampleRate) {
    const AVCodec* codec = avcodec_find_encoder_by_name("aac");
    if (codec == nullptr)
        throw PackageError(Failure::InputOutput, "this FFmpeg has no AAC encoder");
    m_context.reset(avcodec_alloc_context3(codec));
    AVCodecContext& context = *m_context;
    context.sample_fmt = AV_SAMPLE_FMT_FLTP;
    context.sample_rate = sampleRate;
    context.bit_rate = bitrate;
    context.profile = FF_PROFILE_AAC_LOW;
    context.time_base = {1, sampleRate};
    context.log_level_offset = AV_LOG_DEBUG - AV_LOG_INFO;
    context.flags |= AV_CODEC_FLAG_GLOBAL_HEADER;
    av_channel_layout_default(&context.ch_layout, 2);
    const int code = avcodec_open2(&context, codec, nullptr);
    if (code < 0)
        Fail(std::to_string(sampleRate) + " Hz at " + std::to_string(bitrate) + " bit/s", code);
    m_frame->format = context.sample_fmt;
    m_frame->sample_rate = sampleRate;
    m_frame->nb_samples = kFrameSamples;
    if (context.frame_size != kFrameSamples ||
        av_channel_layout_copy(&m_frame->ch_layout, &context.ch_layout) < 0 ||
        av_frame_get_buffer(m_frame.get(), 0) < 0)
        Fail("frame", AVERROR(ENOMEM));
}

void AudioEncoder::Encode(int64_t timeMs, const float* const* samples, int count) {
    const int64_t ahead = timeMs - m_taken * 1000 / m_rate;
    // The first piece follows nothing: it is placed exactly.
    const int64_t tolerance = m_taken == 0 ? 0 : kToleranceMs;
    int64_t skip = 0;
    if (ahead > tolerance)
        Silence(timeMs * m_rate / 1000 - m_taken);
    else if (ahead < -tolerance)
        skip = std::min<int64_t>(count, m_taken - timeMs * m_rate / 1000);
    const float* const rest[2] = {samples[0] + skip, samples[1] + skip};
    Append(rest, count - skip);
}

void AudioEncoder::Finish(int64_t durationMs) {
    const int64_t end = durationMs * m_rate / 1000;
    if (end > m_taken)
        Silence(end - m_taken);
    if (m_filled > 0)
        Silence(kFrameSamples - m_filled);
    const int code = avcodec_send_frame(m_context.get(), nullptr);
    if (code < 0 && code != AVERROR_EOF)
        Fail("end of the film", code);
    Receive();
}

std::vector<uint8_t> AudioEncoder::Configuration() const {
    return {m_context->extradata, m_context->extradata + m_context->extradata_size};
}

uint64_t AudioEncoder::FrameDurationNs() const {
    return uint64_t{kFrameSamples} * 1000000000 / static_cast<uint64_t>(m_rate);
}

void AudioEncoder::Append(const float* const* samples, int64_t count) {
    for (int64_t done = 0; done < count;) {
        const int64_t part = std::min<int64_t>(count - done, kFrameSamples - m_filled);
        for (int channel = 0; channel < 2; ++channel) {
            std::memcpy(reinterpret_cast<float*>(m_frame->data[channel]) + m_filled,
                        samples[channel] + done, static_cast<size_t>(part) * sizeof(float));
        }
        m_filled += static_cast<int>(part);
        m_taken += part;
        done += part;
        if (m_filled == kFrameSamples)
            SendFrame();
    }
}

void AudioEncoder::Silence(int64_t count) {
    static const float kZeros[kFrameSamples] = {};
    static const float* const kChannels[2] = {kZeros, kZeros};
    for (; count > 0; count -= kFrameSamples)
        Append(kChannels, std::min<int64_t>(count, kFrameSamples));
}

void AudioEncoder::SendFrame() {
    m_frame->pts = m_taken - kFrameSamples;
    int code = avcodec_send_frame(m_context.get(), m_frame.get());
    if (code < 0)
        Fail("frame at " + std::to_string(FrameTimeMs(m_frame->pts)) + " ms", code);
    Receive();
    m_filled = 0;
    code = av_frame_make_writable(m_frame.get());
    if (code < 0)
        Fail("frame", code);
}

void AudioEncoder::Receive() {
    int code = 0;
    while ((code = avcodec_receive_packet(m_context.get(), m_packet.get())) >= 0) {
        // The encoder's run-in lies before the film.
        if (m_packet->pts >= 0) {
            Block block;
            block.timeMs = FrameTimeMs(m_packet->pts);
            block.durationMs = FrameTimeMs(m_packet->pts + kFrameSamples) - block.timeMs;
            block.data.assign(m_packet->data, m_packet->data + m_packet->size);
            m_output(std::move(block));
        }
        av_packet_unref(m_packet.get());
    }
    if (code != AVERROR(EAGAIN) && code != AVERROR_EOF)
        Fail("frame", code);
}

int64_t AudioEncoder::FrameTimeMs(int64_t firstSample) const {
    return (firstSample * 1000 + m_rate / 2) / m_rate;
}

}  // namespace opal::package
