#include "opal-package/SourceFilm.h"

extern "C" {
#include <libavutil/pixdesc.h>
}

#include <algorithm>
#include <cmath>
#include <optional>
#include <utility>

#include "opal-package/AvcStream.h"
#include "opal-package/Error.h"
#include "opal-package/PictureFilter.h"
#include "opal-package/ScaledPicture.h"
#include "opal-package/TextDecoder.h"

namespace opal::package {
namespace {

constexpr AVRational kMilliseconds = {1, 1000};
/// Longer pauses between two pictures or two pieces of sound are taken for broken time stamps.
constexpr int64_t kLongestPauseMs = 60 * 1000;
constexpr int64_t kLongestSilenceMs = 3600 * 1000;
constexpr int kSmallestSide = 16;
constexpr int kLargestSide = 8192;
constexpr int kDecoderThreads = 2;

std::string Language(const AVStream& stream) {
    const AVDictionaryEntry* tag = av_dict_get(stream.metadata, "language", nullptr, 0);
    const std::string language = tag == nullptr ? "" : tag->value;
    const bool usable =
        language.size() == 3 &&
        std::all_of(language.begin(), language.end(), [](char c) { return c >= 'a' && c <= 'z'; });
    return usable ? language : "und";
}

/// Rates that televisions play; anything else is converted to 48 kHz.
int OutputRate(int sourceRate) {
    return sourceRate == 32000 || sourceRate == 44100 ? sourceRate : 48000;
}

/// One decoded stream of the source.
struct Decoder {
    int index = -1;
    AvPtr<AVCodecContext> context;
    AVRational timeBase = {1, 1};
    int64_t nextTimeMs = 0;
    /// Sound only: the track it becomes, and what the converter was made for.
    size_t track = 0;
    int outputRate = 0;
    AvPtr<SwrContext> resampler;
    int format = -1;
    int rate = 0;
    int channels = 0;
};

struct TextTrack {
    int index = -1;
    TextDecoder decoder;
};

class SourceFilm : public Film {
  public:
    explicit SourceFilm(SourceFilmOptions options)
        : m_options(std::move(options)),
          m_packet(av_packet_alloc()),
          m_frame(av_frame_alloc()),
          m_shown(av_frame_alloc()) {
        OpenInput();
        OpenVideo();
        for (unsigned i = 0; i < m_input->nb_streams; ++i)
            OpenOther(*m_input->streams[i]);
        for (unsigned i = 0; i < m_input->nb_streams; ++i) {
            const int index = static_cast<int>(i);
            const bool wanted = index == m_video.index || FindAudio(index) != nullptr ||
                                FindText(index) < m_texts.size();
            m_input->streams[i]->discard = wanted ? AVDISCARD_DEFAULT : AVDISCARD_ALL;
        }
    }

    const FilmInfo& Info() const override { return m_info; }
    int64_t DurationMs() const override { return m_video.nextTimeMs; }

    bool Step(FilmSink& sink) override {
        const int code = av_read_frame(m_input.get(), m_packet.get());
        if (code == AVERROR_EOF) {
            Finish(sink);
            return false;
        }
        ThrowIfStopped();
        if (code < 0) {
            throw PackageError(Failure::Refused, m_info.name + ": cannot be read on behind " +
                                                     std::to_string(m_video.nextTimeMs) + " ms: " +
                                                     AvErrorText(code) + "; is the file whole?");
        }
        if (m_packet->stream_index == m_video.index) {
            if (m_options.copy)
                CopyPacket(sink);
            Decode(m_video, m_packet.get(), sink);
        } else if (Decoder* audio = FindAudio(m_packet->stream_index)) {
            Decode(*audio, m_packet.get(), sink);
        } else if (const size_t track = FindText(m_packet->stream_index); track < m_texts.size()) {
            PassTexts(track, sink);
        }
        av_packet_unref(m_packet.get());
        return true;
    }

  private:
    [[noreturn]] void Refuse(const std::string& text) const {
        throw PackageError(Failure::Refused, m_options.input + ": " + text);
    }

    void ThrowIfStopped() const {
        if (m_options.stopped && m_options.stopped())
            throw PackageError(Failure::Stopped, m_options.input + ": not read on, as asked");
    }

    static int IsStopped(void* film) {
        const auto& stopped = static_cast<SourceFilm*>(film)->m_options.stopped;
        return stopped && stopped() ? 1 : 0;
    }

    void OpenInput() {
        AVFormatContext* context = avformat_alloc_context();
        if (context == nullptr)
            throw PackageError(Failure::InputOutput, "no memory for " + m_options.input);
        context->interrupt_callback = {&SourceFilm::IsStopped, this};
        int code = avformat_open_input(&context, m_options.input.c_str(), nullptr, nullptr);
        ThrowIfStopped();
        if (code < 0) {
            const bool unknown = code == AVERROR_INVALIDDATA || code == AVERROR_EOF;
            throw PackageError(unknown ? Failure::Refused : Failure::InputOutput,
                               m_options.input + ": cannot be opened: " + AvErrorText(code) +
                                   (unknown ? "; is it a video file?" : ""));
        }
        m_input.reset(context);
        code = avformat_find_stream_info(context, nullptr);
        if (code < 0)
            Refuse("its streams cannot be told apart: " + AvErrorText(code));
        m_info.name = m_options.input;
    }

    void OpenVideo() {
        const int index =
            av_find_best_stream(m_input.get(), AVMEDIA_TYPE_VIDEO, -1, -1, nullptr, 0);
        if (index < 0)
            Refuse("holds no video stream; a presentation needs one");
        AVStream& stream = *m_input->streams[index];
        const int code = OpenDecoder(m_video, stream);
        if (code < 0) {
            Refuse("stream " + std::to_string(index) + " (" +
                   avcodec_get_name(stream.codecpar->codec_id) +
                   ") cannot be decoded: " + AvErrorText(code));
        }
        const AVCodecParameters& parameters = *stream.codecpar;
        if (parameters.width < kSmallestSide || parameters.height < kSmallestSide ||
            parameters.width > kLargestSide || parameters.height > kLargestSide) {
            Refuse("pictures of " + std::to_string(parameters.width) + "x" +
                   std::to_string(parameters.height) + " cannot be packaged; from 16 to 8192 can");
        }
        AVRational aspect = av_guess_sample_aspect_ratio(m_input.get(), &stream, nullptr);
        if (aspect.num <= 0 || aspect.den <= 0)
            aspect = {1, 1};
        m_info.width = std::clamp(static_cast<int>(std::lround(parameters.width * av_q2d(aspect))),
                                  kSmallestSide, kLargestSide);
        m_info.height = parameters.height;
        m_info.codedWidth = parameters.width;
        m_info.codedColour = {parameters.color_primaries, parameters.color_trc,
                              parameters.color_space, parameters.color_range};
        PrepareFilter(stream);
        const AVRational rate = av_guess_frame_rate(m_input.get(), &stream, nullptr);
        if (rate.num > 0 && rate.den > 0 && av_q2d(rate) <= 240)
            m_info.frameRate = rate;
        if (m_input->duration > 0)
            m_info.durationMs = av_rescale(m_input->duration, 1000, AV_TIME_BASE);
        m_startMs = stream.start_time == AV_NOPTS_VALUE
                        ? 0
                        : av_rescale_q(stream.start_time, stream.time_base, kMilliseconds);
        if (m_options.copy)
            PrepareCopy(stream);
    }

    void PrepareFilter(const AVStream& stream) {
        const PictureProperties properties = PropertiesOf(stream);
        m_filter.emplace(m_options.input, properties);
        m_info.colour = m_filter->OutputColour();
        if (m_options.copy && (!properties.turn.empty() || properties.highDynamicRange)) {
            Refuse(std::string("its pictures are ") +
                   (properties.highDynamicRange ? "of high dynamic range" : "to be turned") +
                   ", which televisions do not do; leave out --copy");
        }
        if (properties.sideways)
            std::swap(m_info.width, m_info.height);
        if (properties.highDynamicRange)
            Warn("its pictures of high dynamic range are mapped to the usual range of BT.709");
    }

    void OpenText(const AVStream& stream) {
        TextTrack track{stream.index, {}};
        const bool text = TextDecoder::IsText(stream);
        const int code = text ? track.decoder.Open(stream) : AVERROR_DECODER_NOT_FOUND;
        if (code < 0) {
            Warn("text track " + std::to_string(stream.index) + " (" + Language(stream) + ", " +
                 avcodec_get_name(stream.codecpar->codec_id) + ") is left out" +
                 (text ? ", for it cannot be decoded: " + AvErrorText(code)
                       : ": its texts are pictures"));
            return;
        }
        m_info.texts.push_back(Language(stream));
        m_texts.push_back(std::move(track));
    }

    void PrepareCopy(const AVStream& stream) {
        const AVCodecParameters& parameters = *stream.codecpar;
        if (parameters.codec_id != AV_CODEC_ID_H264) {
            Refuse(std::string("its video is ") + avcodec_get_name(parameters.codec_id) +
                   ", which televisions do not decode; leave out --copy, or convert it with: " +
                   MendingCommand(m_options.input));
        }
        const bool plain =
            parameters.format == AV_PIX_FMT_YUV420P || parameters.format == AV_PIX_FMT_YUVJ420P;
        if (!plain) {
            const char* name = av_get_pix_fmt_name(static_cast<AVPixelFormat>(parameters.format));
            Refuse(std::string("its pictures are ") +
                   (name == nullptr ? "of no known format" : name) +
                   " and sets decode 8 bits in 4:2:0; convert it with: " +
                   MendingCommand(m_options.input));
        }
        const auto size = static_cast<size_t>(std::max(parameters.extradata_size, 0));
        if (size > 0 && parameters.extradata[0] == 1 &&
            !ParseConfiguration(parameters.extradata, size, m_sets, m_lengthSize)) {
            Refuse("its H.264 configuration record is damaged; mend it with: " +
                   MendingCommand(m_options.input));
        }
        if (m_lengthSize == 0 && size > 0)
            CollectParameterSets(SplitAnnexB(parameters.extradata, size), m_sets);
    }

    /// Any stream but the film's pictures.
    void OpenOther(const AVStream& stream) {
        const AVMediaType type = stream.codecpar->codec_type;
        if (type == AVMEDIA_TYPE_AUDIO) {
            OpenAudio(stream);
        } else if (type == AVMEDIA_TYPE_SUBTITLE) {
            OpenText(stream);
        } else if (type == AVMEDIA_TYPE_VIDEO && stream.index != m_video.index &&
                   (stream.disposition & AV_DISPOSITION_ATTACHED_PIC) == 0) {
            Warn("video stream " + std::to_string(stream.index) +
                 " is left out: a presentation has one picture");
        }
    }

    void OpenAudio(const AVStream& stream) {
        if (stream.codecpar->sample_rate <= 0 || stream.codecpar->ch_layout.nb_channels <= 0) {
            Warn("audio stream " + std::to_string(stream.index) + " is left out: it is empty");
            return;
        }
        Decoder audio;
        const int code = OpenDecoder(audio, stream);
        if (code < 0) {
            Warn("audio stream " + std::to_string(stream.index) + " (" + Language(stream) + ", " +
                 avcodec_get_name(stream.codecpar->codec_id) +
                 ") is left out, for it cannot be decoded: " + AvErrorText(code));
            return;
        }
        audio.track = m_info.sounds.size();
        audio.outputRate = OutputRate(stream.codecpar->sample_rate);
        m_info.sounds.push_back({Language(stream), audio.outputRate});
        m_audio.push_back(std::move(audio));
    }

    static int OpenDecoder(Decoder& decoder, const AVStream& stream) {
        decoder.index = stream.index;
        decoder.timeBase = stream.time_base;
        const AVCodec* codec = avcodec_find_decoder(stream.codecpar->codec_id);
        if (codec == nullptr)
            return AVERROR_DECODER_NOT_FOUND;
        decoder.context.reset(avcodec_alloc_context3(codec));
        if (!decoder.context)
            return AVERROR(ENOMEM);
        decoder.context->thread_count = kDecoderThreads;
        decoder.context->pkt_timebase = stream.time_base;
        const int code = avcodec_parameters_to_context(decoder.context.get(), stream.codecpar);
        return code < 0 ? code : avcodec_open2(decoder.context.get(), codec, nullptr);
    }

    Decoder* FindAudio(int index) {
        for (Decoder& audio : m_audio) {
            if (audio.index == index)
                return &audio;
        }
        return nullptr;
    }

    /// The number of the track, or that of tracks.
    size_t FindText(int index) const {
        const auto found = std::find_if(m_texts.begin(), m_texts.end(),
                                        [index](auto& track) { return track.index == index; });
        return static_cast<size_t>(found - m_texts.begin());
    }

    void PassTexts(size_t track, FilmSink& sink) {
        std::vector<SubtitleText> texts;
        if (m_texts[track].decoder.Decode(*m_packet, texts) < 0 && m_damaged++ == 0) {
            Warn("a text near " + std::to_string(m_video.nextTimeMs) +
                 " ms cannot be decoded and is left out");
        }
        for (SubtitleText& text : texts) {
            text.startMs = std::max<int64_t>(0, text.startMs - m_startMs);
            text.endMs -= m_startMs;
            if (text.endMs > text.startMs)
                sink.OnText(track, std::move(text));
        }
    }

    void Warn(const std::string& text) const {
        if (m_options.warn)
            m_options.warn(m_options.input + ": " + text);
    }

    /// `packet` null: sends what the decoder holds back.
    void Decode(Decoder& decoder, const AVPacket* packet, FilmSink& sink) {
        const int sent = avcodec_send_packet(decoder.context.get(), packet);
        if (sent < 0 && sent != AVERROR_EOF) {
            // As players do: a damaged piece is left out and the film goes on.
            if (m_damaged++ == 0) {
                Warn("a piece near " + std::to_string(decoder.nextTimeMs) +
                     " ms cannot be decoded and is left out: " + AvErrorText(sent));
            }
            return;
        }
        while (avcodec_receive_frame(decoder.context.get(), m_frame.get()) >= 0) {
            if (decoder.outputRate > 0)
                PassSound(decoder, sink);
            else
                PassPicture(sink);
            av_frame_unref(m_frame.get());
        }
    }

    int64_t TimeMs(const Decoder& decoder, int64_t stamp) const {
        return stamp == AV_NOPTS_VALUE
                   ? decoder.nextTimeMs
                   : av_rescale_q(stamp, decoder.timeBase, kMilliseconds) - m_startMs;
    }

    void PassPicture(FilmSink& sink) {
        const int64_t timeMs = TimeMs(m_video, m_frame->best_effort_timestamp);
        if (timeMs < 0 || (m_pictures > 0 && timeMs <= m_lastPictureMs)) {
            return;  // before the start, or a picture for a moment that has one
        }
        if (timeMs > (m_pictures > 0 ? m_lastPictureMs : 0) + kLongestPauseMs) {
            Refuse("no picture between " + std::to_string(m_lastPictureMs) + " ms and " +
                   std::to_string(timeMs) +
                   " ms; mend the time stamps with: " + MendingCommand(m_options.input));
        }
        ++m_pictures;
        m_lastPictureMs = timeMs;
        // A picture of a slide show says how long it stands, its frame rate does not.
        const int64_t saidMs = av_rescale_q(m_frame->pkt_duration, m_video.timeBase, kMilliseconds);
        const double frameMs = 1000.0 / av_q2d(m_info.frameRate);
        m_video.nextTimeMs = timeMs + std::max<int64_t>(1, std::llround(frameMs));
        if (saidMs > kLongestHoldMs && saidMs <= kLongestPauseMs)
            m_video.nextTimeMs = timeMs + saidMs;
        m_frame->pts = timeMs;
        m_filter->Push(*m_frame, [&](AVFrame& picture) { ShowPicture(picture, sink); });
    }

    void ShowPicture(AVFrame& picture, FilmSink& sink) {
        const int64_t timeMs = picture.pts;
        const bool first = m_shown->data[0] == nullptr;
        if (!first)
            RepeatUntil(timeMs, sink);
        av_frame_unref(m_shown.get());
        if (av_frame_ref(m_shown.get(), &picture) < 0)
            throw PackageError(Failure::InputOutput, "no memory for a picture");
        m_picture.Set(*m_shown);
        if (first && timeMs > kLongestHoldMs) {
            m_shownMs = 0;
            sink.OnPicture(0, m_picture);
            RepeatUntil(timeMs, sink);
        }
        m_shownMs = timeMs;
        sink.OnPicture(timeMs, m_picture);
    }

    /// Shows the last picture again, at even distances, up to what comes at `endMs`.
    void RepeatUntil(int64_t endMs, FilmSink& sink) {
        const int64_t beginMs = m_shownMs;
        const int64_t pieces = (endMs - beginMs + kLongestHoldMs - 1) / kLongestHoldMs;
        for (int64_t i = 1; i < pieces; ++i) {
            m_shownMs = beginMs + (endMs - beginMs) * i / pieces;
            sink.OnPicture(m_shownMs, m_picture);
        }
    }

    /// Sound that goes on behind the last picture keeps that picture standing.
    int64_t EndMs() const {
        int64_t endMs = m_video.nextTimeMs;
        int64_t soundMs = 0;
        for (const Decoder& audio : m_audio)
            soundMs = std::max(soundMs, audio.nextTimeMs);
        const bool standing = !m_options.copy && soundMs > endMs + kLongestHoldMs &&
                              soundMs <= endMs + kLongestPauseMs;
        return standing ? soundMs : endMs;
    }

    /// A source may change its sound's format on the way (broadcast recordings do).
    void PrepareResampler(Decoder& audio, const AVFrame& frame) const {
        const int channels = frame.ch_layout.nb_channels;
        if (audio.resampler && audio.format == frame.format && audio.rate == frame.sample_rate &&
            audio.channels == channels)
            return;
        AVChannelLayout stereo;
        av_channel_layout_default(&stereo, 2);
        AVChannelLayout from = frame.ch_layout;
        if (from.order == AV_CHANNEL_ORDER_UNSPEC)
            av_channel_layout_default(&from, channels);
        SwrContext* context = nullptr;
        int code = swr_alloc_set_opts2(&context, &stereo, AV_SAMPLE_FMT_FLTP, audio.outputRate,
                                       &from, static_cast<AVSampleFormat>(frame.format),
                                       frame.sample_rate, 0, nullptr);
        audio.resampler.reset(context);
        code = code < 0 ? code : swr_init(context);
        if (code < 0) {
            Refuse("audio stream " + std::to_string(audio.index) +
                   " cannot be converted to stereo: " + AvErrorText(code));
        }
        audio.format = frame.format;
        audio.rate = frame.sample_rate;
        audio.channels = channels;
    }

    void PassSound(Decoder& audio, FilmSink& sink) {
        const AVFrame& frame = *m_frame;
        PrepareResampler(audio, frame);
        // Where the first sample that comes out belongs: behind those the converter still holds.
        const int64_t timeMs =
            TimeMs(audio, frame.best_effort_timestamp) - swr_get_delay(audio.resampler.get(), 1000);
        if (timeMs > audio.nextTimeMs + kLongestSilenceMs) {
            Refuse("no sound between " + std::to_string(audio.nextTimeMs) + " ms and " +
                   std::to_string(timeMs) +
                   " ms; mend the time stamps with: " + MendingCommand(m_options.input));
        }
        const int room = swr_get_out_samples(audio.resampler.get(), frame.nb_samples);
        m_sound[0].resize(static_cast<size_t>(std::max(room, 1)));
        m_sound[1].resize(m_sound[0].size());
        uint8_t* out[2] = {reinterpret_cast<uint8_t*>(m_sound[0].data()),
                           reinterpret_cast<uint8_t*>(m_sound[1].data())};
        const int count =
            swr_convert(audio.resampler.get(), out, room,
                        const_cast<const uint8_t**>(frame.extended_data), frame.nb_samples);
        if (count < 0) {
            Warn("sound at " + std::to_string(timeMs) + " ms is left out: " + AvErrorText(count));
            return;
        }
        audio.nextTimeMs = timeMs + int64_t{count} * 1000 / audio.outputRate;
        const float* const channels[2] = {m_sound[0].data(), m_sound[1].data()};
        sink.OnSound(audio.track, timeMs, channels, count);
    }

    void CopyPacket(FilmSink& sink) {
        const AVPacket& packet = *m_packet;
        std::vector<NalUnit> units;
        const auto size = static_cast<size_t>(packet.size);
        if (m_lengthSize == 0)
            units = SplitAnnexB(packet.data, size);
        const int64_t timeMs = TimeMs(m_video, packet.pts);
        if ((m_lengthSize > 0 && !SplitLengthPrefixed(packet.data, size, m_lengthSize, units)) ||
            units.empty() || packet.pts == AV_NOPTS_VALUE) {
            Refuse("the access unit near " + std::to_string(timeMs) +
                   " ms is damaged or without a time; mend it with: " +
                   MendingCommand(m_options.input));
        }
        CollectParameterSets(units, m_sets);
        const bool key = (packet.flags & AV_PKT_FLAG_KEY) != 0;
        const auto unit = MakeAccessUnit(units, key, m_sets);
        sink.OnPacket(timeMs, key, unit.data(), unit.size());
    }

    void Finish(FilmSink& sink) {
        Decode(m_video, nullptr, sink);
        m_filter->Finish([&](AVFrame& picture) { ShowPicture(picture, sink); });
        for (Decoder& audio : m_audio)
            Decode(audio, nullptr, sink);
        if (m_pictures > 0) {
            m_video.nextTimeMs = EndMs();
            RepeatUntil(m_video.nextTimeMs, sink);
        }
        if (m_damaged > 1)
            Warn(std::to_string(m_damaged) + " pieces could not be decoded");
        if (m_pictures == 0)
            Refuse("yields no picture: its duration is zero or nothing in it can be decoded");
    }

    SourceFilmOptions m_options;
    FilmInfo m_info;
    AvPtr<AVFormatContext> m_input;
    AvPtr<AVPacket> m_packet;
    AvPtr<AVFrame> m_frame;
    Decoder m_video;
    std::vector<Decoder> m_audio;
    std::vector<TextTrack> m_texts;
    std::optional<PictureFilter> m_filter;
    /// What was passed on last, and when.
    AvPtr<AVFrame> m_shown;
    int64_t m_shownMs = 0;
    ScaledPicture m_picture;
    std::vector<float> m_sound[2];
    int64_t m_startMs = 0;
    int64_t m_lastPictureMs = 0;
    uint64_t m_pictures = 0;
    uint64_t m_damaged = 0;
    /// Copying: bytes of a length prefix, 0 with start codes, and the sets seen last.
    unsigned m_lengthSize = 0;
    ParameterSets m_sets;
};

}  // namespace

std::string MendingCommand(const std::string& input) {
    return "ffmpeg -i '" + input +
           "' -c:v libx264 -pix_fmt yuv420p -force_key_frames 'expr:gte(t,n_forced*2)' "
           "-x264-params scenecut=0:open-gop=0 -c:a copy mended.mp4";
}

std::unique_ptr<Film> OpenSourceFilm(const SourceFilmOptions& options) {
    return std::make_unique<SourceFilm>(options);
}

}  // namespace opal::package
