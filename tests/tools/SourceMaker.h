#pragma once

#include <cmath>
#include <cstring>
#include <functional>
#include <stdexcept>
#include <string>
#include <vector>

#include "opal-package/Av.h"
#include "opal-package/SubtitleText.h"

namespace opal::test {

/// An odd film, made with FFmpeg's libraries; the container goes by the file's ending.
struct OddSource {
    int width = 128;
    int height = 96;
    AVPixelFormat format = AV_PIX_FMT_YUV420P;
    std::vector<int64_t> timesMs;
    std::function<void(AVFrame& picture, size_t number)> paint;
    /// Sets what the header says: colour, aspect, interlaced coding.
    std::function<void(AVCodecContext&)> describe = [](AVCodecContext&) {};
    bool interlaced = false;
    /// The upper left 2x2 of the display matrix, in its order a b c d.
    std::vector<int32_t> matrix;
    /// Mono sound from and to a time, silent until `toneMs`; none when both are 0.
    int64_t soundBeginMs = 0;
    int64_t soundEndMs = 0;
    int64_t toneMs = 0;
    /// A SubRip track, where there is any text; "deu" is its language.
    std::vector<package::SubtitleText> texts;
};

inline void Fill(AVFrame& picture, int y, int cb, int cr) {
    const int values[] = {y, cb, cr};
    const bool deep = picture.format == AV_PIX_FMT_YUV420P10;
    for (int plane = 0; plane < 3; ++plane) {
        const int rows = plane == 0 ? picture.height : picture.height / 2;
        const int columns = plane == 0 ? picture.width : picture.width / 2;
        for (int row = 0; row < rows; ++row) {
            uint8_t* line = picture.data[plane] + row * picture.linesize[plane];
            for (int column = 0; column < columns; ++column) {
                if (deep)
                    reinterpret_cast<uint16_t*>(line)[column] =
                        static_cast<uint16_t>(values[plane]);
                else
                    line[column] = static_cast<uint8_t>(values[plane]);
            }
        }
    }
}

class SourceMaker {
  public:
    static std::string Make(const OddSource& source, const std::string& path) {
        SourceMaker maker(source, path);
        maker.Write();
        return path;
    }

  private:
    static constexpr int kRate = 48000;

    SourceMaker(const OddSource& source, const std::string& path) : m_source(source) {
        AVFormatContext* context = nullptr;
        Expect(avformat_alloc_output_context2(&context, nullptr, nullptr, path.c_str()));
        m_file = context;
        OpenVideo();
        if (source.soundEndMs > source.soundBeginMs)
            OpenAudio();
        if (!source.texts.empty())
            OpenTexts();
        Expect(avio_open(&m_file->pb, path.c_str(), AVIO_FLAG_WRITE));
        m_file->avoid_negative_ts = 0;
        Expect(avformat_write_header(m_file, nullptr));
    }
    ~SourceMaker() {
        avio_closep(&m_file->pb);
        avformat_free_context(m_file);
    }

    static int Expect(int code) {
        if (code < 0)
            throw std::runtime_error("odd source: " + package::AvErrorText(code));
        return code;
    }

    AVStream& Open(package::AvPtr<AVCodecContext>& context, const char* name) {
        if (m_file->oformat->flags & AVFMT_GLOBALHEADER)
            context->flags |= AV_CODEC_FLAG_GLOBAL_HEADER;
        AVDictionary* options = nullptr;
        av_dict_set(&options, "preset", "ultrafast", 0);
        av_dict_set(&options, "crf", "8", 0);
        const int code = avcodec_open2(context.get(), avcodec_find_encoder_by_name(name), &options);
        av_dict_free(&options);
        Expect(code);
        AVStream& stream = *avformat_new_stream(m_file, nullptr);
        stream.time_base = context->time_base;
        Expect(avcodec_parameters_from_context(stream.codecpar, context.get()));
        return stream;
    }

    void OpenVideo() {
        m_video.reset(avcodec_alloc_context3(avcodec_find_encoder_by_name("libx264")));
        m_video->width = m_source.width;
        m_video->height = m_source.height;
        m_video->pix_fmt = m_source.format;
        m_video->time_base = {1, 1000};
        m_video->framerate = {25, 1};
        m_video->max_b_frames = 0;
        m_video->gop_size = 50;
        m_video->log_level_offset = AV_LOG_DEBUG;
        if (m_source.interlaced)
            m_video->flags |= AV_CODEC_FLAG_INTERLACED_DCT | AV_CODEC_FLAG_INTERLACED_ME;
        m_source.describe(*m_video);
        AVStream& stream = Open(m_video, "libx264");
        stream.avg_frame_rate = {25, 1};
        stream.sample_aspect_ratio = m_video->sample_aspect_ratio;
        if (!m_source.matrix.empty()) {
            const int32_t one = 1 << 16;
            const int32_t matrix[9] = {m_source.matrix[0] * one,
                                       m_source.matrix[1] * one,
                                       0,
                                       m_source.matrix[2] * one,
                                       m_source.matrix[3] * one,
                                       0,
                                       0,
                                       0,
                                       1 << 30};
            std::memcpy(av_stream_new_side_data(&stream, AV_PKT_DATA_DISPLAYMATRIX, sizeof matrix),
                        matrix, sizeof matrix);
        }
    }

    void OpenAudio() {
        m_audio.reset(avcodec_alloc_context3(avcodec_find_encoder_by_name("pcm_s16le")));
        m_audio->sample_fmt = AV_SAMPLE_FMT_S16;
        m_audio->sample_rate = kRate;
        m_audio->time_base = {1, kRate};
        av_channel_layout_default(&m_audio->ch_layout, 1);
        Open(m_audio, "pcm_s16le");
    }

    void OpenTexts() {
        AVStream& stream = *avformat_new_stream(m_file, nullptr);
        stream.time_base = {1, 1000};
        stream.codecpar->codec_type = AVMEDIA_TYPE_SUBTITLE;
        stream.codecpar->codec_id = AV_CODEC_ID_SUBRIP;
        av_dict_set(&stream.metadata, "language", "deu", 0);
    }

    void WriteTexts() {
        const int last = static_cast<int>(m_file->nb_streams) - 1;
        for (const package::SubtitleText& text : m_source.texts) {
            const package::AvPtr<AVPacket> packet(av_packet_alloc());
            Expect(av_new_packet(packet.get(), static_cast<int>(text.text.size())));
            std::memcpy(packet->data, text.text.data(), text.text.size());
            packet->stream_index = last;
            packet->pts = packet->dts = text.startMs;
            packet->duration = text.endMs - text.startMs;
            av_packet_rescale_ts(packet.get(), {1, 1000}, m_file->streams[last]->time_base);
            Expect(av_interleaved_write_frame(m_file, packet.get()));
        }
    }

    void Write() {
        WriteTexts();
        const package::AvPtr<AVFrame> picture(av_frame_alloc());
        picture->format = m_source.format;
        picture->width = m_source.width;
        picture->height = m_source.height;
        picture->interlaced_frame = m_source.interlaced ? 1 : 0;
        picture->top_field_first = picture->interlaced_frame;
        Expect(av_frame_get_buffer(picture.get(), 0));
        int64_t soundMs = m_source.soundBeginMs;
        for (size_t i = 0; i < m_source.timesMs.size(); ++i) {
            for (; m_audio && soundMs < std::min(m_source.timesMs[i], m_source.soundEndMs);)
                soundMs = Sound(soundMs);
            Expect(av_frame_make_writable(picture.get()));
            m_source.paint(*picture, i);
            picture->pts = m_source.timesMs[i];
            Pass(*m_video, picture.get(), 0);
        }
        Pass(*m_video, nullptr, 0);
        while (m_audio && soundMs < m_source.soundEndMs)
            soundMs = Sound(soundMs);
        Expect(av_write_trailer(m_file));
    }

    /// 10 ms; the time behind them.
    int64_t Sound(int64_t timeMs) {
        const package::AvPtr<AVFrame> frame(av_frame_alloc());
        frame->format = AV_SAMPLE_FMT_S16;
        frame->sample_rate = kRate;
        frame->nb_samples = kRate / 100;
        av_channel_layout_default(&frame->ch_layout, 1);
        Expect(av_frame_get_buffer(frame.get(), 0));
        for (int i = 0; i < frame->nb_samples; ++i)
            reinterpret_cast<int16_t*>(frame->data[0])[i] = static_cast<int16_t>(
                timeMs < m_source.toneMs ? 0 : 12000 * std::sin(i * 2 * M_PI / 48));
        frame->pts = timeMs * kRate / 1000;
        Pass(*m_audio, frame.get(), 1);
        return timeMs + 10;
    }

    void Pass(AVCodecContext& encoder, const AVFrame* frame, int stream) {
        Expect(avcodec_send_frame(&encoder, frame));
        const package::AvPtr<AVPacket> packet(av_packet_alloc());
        while (avcodec_receive_packet(&encoder, packet.get()) >= 0) {
            packet->stream_index = stream;
            av_packet_rescale_ts(packet.get(), encoder.time_base,
                                 m_file->streams[stream]->time_base);
            Expect(av_interleaved_write_frame(m_file, packet.get()));
        }
    }

    const OddSource& m_source;
    AVFormatContext* m_file = nullptr;
    package::AvPtr<AVCodecContext> m_video;
    package::AvPtr<AVCodecContext> m_audio;
};

}  // namespace opal::test
