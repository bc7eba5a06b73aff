extern "C" {
#include <libavcodec/avcodec.h>
#include <libswresample/swresample.h>
}

#include <algorithm>
#include <array>
#include <cstring>

#include "AudioOut.h"
#include "Decoder.h"

namespace tvset {
namespace {

constexpr uint32_t kUsualRate = 48000;
constexpr uint32_t kUsualChannels = 2;
constexpr int64_t kSamplesInUnit = 1024;

struct PacketFree {
    void operator()(AVPacket* packet) const { av_packet_free(&packet); }
};
struct FrameFree {
    void operator()(AVFrame* frame) const { av_frame_free(&frame); }
};
struct ContextFree {
    void operator()(AVCodecContext* context) const { avcodec_free_context(&context); }
};
struct ResamplerFree {
    void operator()(SwrContext* context) const { swr_free(&context); }
};

/// AudioSpecificConfig: object type 2 (LC), frequency index, channel configuration.
std::vector<uint8_t> MakeConfig(uint32_t rate, uint32_t channels) {
    static constexpr std::array<uint32_t, 13> rates = {
        96000, 88200, 64000, 48000, 44100, 32000, 24000, 22050, 16000, 12000, 11025, 8000, 7350};
    const uint32_t layout = channels == 8 ? 7 : channels;
    const auto found = std::find(rates.begin(), rates.end(), rate);
    if (found != rates.end()) {
        const auto index = static_cast<uint32_t>(found - rates.begin());
        const uint32_t bits = 2u << 11 | index << 7 | layout << 3;
        return {static_cast<uint8_t>(bits >> 8), static_cast<uint8_t>(bits)};
    }
    const uint64_t bits = uint64_t{2} << 35 | uint64_t{15} << 31 |
                          static_cast<uint64_t>(rate & 0xFFFFFF) << 7 | uint64_t{layout} << 3;
    return {static_cast<uint8_t>(bits >> 32), static_cast<uint8_t>(bits >> 24),
            static_cast<uint8_t>(bits >> 16), static_cast<uint8_t>(bits >> 8),
            static_cast<uint8_t>(bits)};
}

/// The item's description names no channels at first. Where the usual two do not decode, the other
/// common layouts are tried in turn until the first unit has decoded.
class LibavAudioDecoder : public AudioDecoder {
  public:
    void Open(uint32_t sampleRate, uint32_t channels) override {
        m_rate = sampleRate >= 1 && sampleRate <= 96000 ? sampleRate : kUsualRate;
        m_candidates = {6, 1, 8, 4, 3, 5};
        m_proven = channels != 0;
        OpenWith(channels >= 1 && channels <= 8 ? channels : kUsualChannels);
    }

    bool Decode(const Unit& unit, bool wantSamples, Sound& out) override {
        bool done = Try(unit, wantSamples, out);
        while (!done && !m_proven && !m_candidates.empty()) {
            OpenWith(m_candidates.front());
            m_candidates.erase(m_candidates.begin());
            done = Try(unit, wantSamples, out);
        }
        if (!done && !m_proven) {
            Open(m_rate, 0);  // all tried: this unit is at fault, not the layout
        }
        m_proven = m_proven || done;
        return done;
    }

  private:
    void OpenWith(uint32_t channels) {
        m_resampler.reset();
        m_context.reset();
        const AVCodec* codec = avcodec_find_decoder(AV_CODEC_ID_AAC);
        std::unique_ptr<AVCodecContext, ContextFree> context(
            codec != nullptr ? avcodec_alloc_context3(codec) : nullptr);
        const std::vector<uint8_t> config = MakeConfig(m_rate, channels);
        auto* extradata =
            static_cast<uint8_t*>(av_mallocz(config.size() + AV_INPUT_BUFFER_PADDING_SIZE));
        if (!context || extradata == nullptr) {
            av_free(extradata);
            return;
        }
        std::memcpy(extradata, config.data(), config.size());
        context->extradata = extradata;
        context->extradata_size = static_cast<int>(config.size());
        context->thread_count = 1;
        context->log_level_offset = AV_LOG_TRACE;
        if (avcodec_open2(context.get(), codec, nullptr) >= 0)
            m_context = std::move(context);
    }

    bool Try(const Unit& unit, bool wantSamples, Sound& out) {
        if (!m_context || !m_packet || !m_frame)
            return false;
        m_packet->data = unit.data.get();
        m_packet->size = static_cast<int>(unit.size);
        const int sent = avcodec_send_packet(m_context.get(), m_packet.get());
        m_packet->data = nullptr;
        m_packet->size = 0;
        bool any = false;
        while (sent >= 0 && avcodec_receive_frame(m_context.get(), m_frame.get()) >= 0) {
            any = true;
            if (m_frame->sample_rate > 0) {
                out.durationUs +=
                    int64_t{m_frame->nb_samples} * 1000000 / int64_t{m_frame->sample_rate};
            }
            if (wantSamples)
                Resample(out.samples);
            av_frame_unref(m_frame.get());
        }
        return any;
    }

    void Resample(std::vector<int16_t>& out) {
        if (!m_resampler || m_resamplerRate != m_frame->sample_rate ||
            m_resamplerChannels != m_frame->ch_layout.nb_channels) {
            SwrContext* made = nullptr;
            AVChannelLayout stereo = AV_CHANNEL_LAYOUT_STEREO;
            const int result = swr_alloc_set_opts2(
                &made, &stereo, AV_SAMPLE_FMT_S16, AudioOut::kRate, &m_frame->ch_layout,
                static_cast<AVSampleFormat>(m_frame->format), m_frame->sample_rate, 0, nullptr);
            m_resampler.reset(made);
            if (result < 0 || swr_init(made) < 0) {
                m_resampler.reset();
                return;
            }
            m_resamplerRate = m_frame->sample_rate;
            m_resamplerChannels = m_frame->ch_layout.nb_channels;
        }
        const int room = swr_get_out_samples(m_resampler.get(), m_frame->nb_samples);
        if (room <= 0)
            return;
        const size_t before = out.size();
        out.resize(before + static_cast<size_t>(room) * AudioOut::kChannels);
        auto* target = reinterpret_cast<uint8_t*>(out.data() + before);
        const int made =
            swr_convert(m_resampler.get(), &target, room,
                        const_cast<const uint8_t**>(m_frame->extended_data), m_frame->nb_samples);
        out.resize(before + static_cast<size_t>(std::max(made, 0)) * AudioOut::kChannels);
    }

    std::unique_ptr<AVCodecContext, ContextFree> m_context;
    std::unique_ptr<SwrContext, ResamplerFree> m_resampler;
    std::unique_ptr<AVPacket, PacketFree> m_packet{av_packet_alloc()};
    std::unique_ptr<AVFrame, FrameFree> m_frame{av_frame_alloc()};
    uint32_t m_rate = kUsualRate;
    bool m_proven = false;  ///< the channel layout is known
    std::vector<uint32_t> m_candidates;
    int m_resamplerRate = 0;
    int m_resamplerChannels = 0;
};

class PassThroughAudioDecoder : public AudioDecoder {
  public:
    void Open(uint32_t sampleRate, uint32_t) override {
        m_rate = sampleRate != 0 ? sampleRate : kUsualRate;
    }
    bool Decode(const Unit&, bool, Sound& out) override {
        out.durationUs = kSamplesInUnit * 1000000 / int64_t{m_rate};
        return true;
    }

  private:
    uint32_t m_rate = kUsualRate;
};

}  // namespace

std::unique_ptr<AudioDecoder> NewLibavAudioDecoder() {
    return std::make_unique<LibavAudioDecoder>();
}

std::unique_ptr<AudioDecoder> NewPassThroughAudioDecoder() {
    return std::make_unique<PassThroughAudioDecoder>();
}

}  // namespace tvset
