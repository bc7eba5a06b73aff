#include "opal-package/TestFilm.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <iterator>
#include <random>

#include "opal-package/Error.h"
#include "opal-package/TimeCode.h"

namespace opal::package {
namespace {

constexpr int kSampleRate = 48000;
constexpr double kPi = 3.14159265358979323846;

/// Texture is cut from these bytes; they cost an encoder about what a film's grain does, so that
/// levels come out near their rates. The seed is fixed: the same options make the same film.
constexpr size_t kNoiseBytes = 1 << 20;
constexpr unsigned kNoiseSeed = 20;

constexpr int64_t kTextPeriodMs = 4000;
constexpr int64_t kTextStartMs = 500;
constexpr int64_t kTextEndMs = 3500;
constexpr const char* kTexts[] = {
    "\u00C9t\u00E9, \u00FCber, ma\u00F1ana, \u010De\u0161tina, \u0142\u00F3d\u017A, "
    "\u00E5ngstr\u00F6m",
    "\u039A\u03B1\u03BB\u03B7\u03BC\u03AD\u03C1\u03B1, \u03BA\u03CC\u03C3\u03BC\u03B5!",
    "\u041F\u0440\u0438\u0432\u0435\u0442, \u043C\u0438\u0440!",
    "The first line of two,\nand the second one.",
    "A text that is longer than any line of the picture, so that whoever draws it has to find the "
    "places where the line may be broken in two, or in three.",
    "\u201CFish & chips <hot>\u201D \u2014 {50 % off}"};

/// Draws the pictures of one size.
class Painter {
  public:
    Painter(int width, int height)
        : m_frame(NewPicture(width, height)), m_stripes(StripePattern(width)) {
        if (!m_frame) {
            throw PackageError(Failure::InputOutput, "no memory for a picture of " +
                                                         std::to_string(width) + "x" +
                                                         std::to_string(height));
        }
        std::mt19937 random(kNoiseSeed);
        m_noise.resize(kNoiseBytes);
        for (uint8_t& value : m_noise)
            value = static_cast<uint8_t>(112 + random() % 32);
    }

    AVFrame& Paint(int64_t timeMs, unsigned level) {
        if (av_frame_make_writable(m_frame.get()) < 0)
            throw PackageError(Failure::InputOutput, "no memory for a picture");
        AVFrame& frame = *m_frame;
        const PictureView view = {{frame.data[0], frame.data[1], frame.data[2]},
                                  {frame.linesize[0], frame.linesize[1], frame.linesize[2]},
                                  frame.width,
                                  frame.height};
        PaintBackground(view, timeMs);
        PaintTexture(view, timeMs);
        PaintText(view, timeMs, level);
        DrawTimeCode(view, {static_cast<uint32_t>(timeMs), level});
        return frame;
    }

  private:
    static constexpr int kPeriod = 128;

    static std::vector<uint8_t> StripePattern(int width) {
        std::vector<uint8_t> row(static_cast<size_t>(width + kPeriod));
        for (size_t x = 0; x < row.size(); ++x) {
            const double phase = 2 * kPi * static_cast<double>(x % kPeriod) / kPeriod;
            row[x] = static_cast<uint8_t>(std::lround(110 + 60 * std::sin(phase)));
        }
        return row;
    }

    /// Slanting stripes that travel once across their period in two seconds; the hue turns slowly.
    void PaintBackground(const PictureView& view, int64_t timeMs) const {
        const int64_t shift = timeMs * kPeriod / 2000;
        for (int y = 0; y < view.height; ++y) {
            std::memcpy(view.plane[0] + y * view.stride[0],
                        m_stripes.data() + (shift + y) % kPeriod, static_cast<size_t>(view.width));
        }
        for (int y = 0; y < view.height / 2; ++y) {
            const double angle =
                static_cast<double>(timeMs) / 3000 + 2 * kPi * static_cast<double>(y) / view.height;
            std::memset(view.plane[1] + y * view.stride[1],
                        static_cast<int>(128 + 40 * std::cos(angle)),
                        static_cast<size_t>(view.width / 2));
            std::memset(view.plane[2] + y * view.stride[2],
                        static_cast<int>(128 + 40 * std::sin(angle)),
                        static_cast<size_t>(view.width / 2));
        }
    }

    /// Grain in the middle half of the upper third, new with each picture.
    void PaintTexture(const PictureView& view, int64_t timeMs) const {
        const auto width = static_cast<size_t>(view.width / 2);
        size_t at = static_cast<size_t>(timeMs) * 7919;
        for (int y = view.height / 24; y < view.height / 3; ++y) {
            at = (at + 4093) % (m_noise.size() - width);
            std::memcpy(view.plane[0] + y * view.stride[0] + view.width / 4, m_noise.data() + at,
                        width);
        }
    }

    static void PaintText(const PictureView& view, int64_t timeMs, unsigned level) {
        char text[32];
        std::snprintf(text, sizeof text, "%02d:%02d:%02d.%03d", static_cast<int>(timeMs / 3600000),
                      static_cast<int>(timeMs / 60000 % 60), static_cast<int>(timeMs / 1000 % 60),
                      static_cast<int>(timeMs % 1000));
        const int scale = std::max(1, view.width * 3 / 4 / TextWidth(text, 1));
        const int top = view.height * 2 / 5;
        DrawText(view, text, (view.width - TextWidth(text, scale)) / 2, top, scale);
        if (level == kTrickLevel)
            std::snprintf(text, sizeof text, "TRICK");
        else
            std::snprintf(text, sizeof text, "LEVEL %u  %dP", level, view.height);
        const int small = std::max(1, scale / 2);
        DrawText(view, text, (view.width - TextWidth(text, small)) / 2, top + 11 * scale, small);
    }

    AvPtr<AVFrame> m_frame;
    std::vector<uint8_t> m_stripes;
    std::vector<uint8_t> m_noise;
};

class TestFilm : public Film, private FilmPicture {
  public:
    explicit TestFilm(const TestFilmOptions& options) {
        m_info.name = "test film";
        m_info.width = options.width;
        m_info.height = options.height;
        m_info.frameRate = {options.framesPerSecond, 1};
        m_info.durationMs = options.durationMs;
        for (const std::string& language : options.languages)
            m_info.sounds.push_back({language, kSampleRate});
        m_info.texts = options.texts;
    }

    const FilmInfo& Info() const override { return m_info; }
    int64_t DurationMs() const override { return m_info.durationMs; }

    /// One picture, with the sound up to the next.
    bool Step(FilmSink& sink) override {
        const int64_t rate = m_info.frameRate.num;
        m_timeMs = m_pictures * 1000 / rate;
        if (m_timeMs >= m_info.durationMs)
            return false;
        sink.OnPicture(m_timeMs, *this);
        ++m_pictures;
        if (TestText(0, m_texts).startMs <= m_timeMs) {
            for (size_t track = 0; track < m_info.texts.size(); ++track)
                sink.OnText(track, TestText(track, m_texts));
            ++m_texts;
        }
        const int64_t endMs = std::min(m_pictures * 1000 / rate, m_info.durationMs);
        const int64_t end = endMs * kSampleRate / 1000;
        for (size_t track = 0; track < m_info.sounds.size(); ++track) {
            Tone(track, m_samples, end);
            const float* const channels[2] = {m_tone.data(), m_tone.data()};
            sink.OnSound(track, m_timeMs, channels, static_cast<int>(m_tone.size()));
        }
        m_samples = end;
        return true;
    }

  private:
    AVFrame& At(int width, int height, unsigned level) override {
        auto& painter = m_painters[{width, height}];
        if (!painter)
            painter = std::make_unique<Painter>(width, height);
        return painter->Paint(m_timeMs, level);
    }

    void Tone(size_t track, int64_t begin, int64_t end) {
        m_tone.clear();
        const double pitch = TestTone(track);
        for (int64_t i = begin; i < end; ++i) {
            const bool sounds = i % kSampleRate < kSampleRate / 10 * 9;
            const double seconds = static_cast<double>(i) / kSampleRate;
            m_tone.push_back(sounds ? static_cast<float>(0.25 * std::sin(2 * kPi * pitch * seconds))
                                    : 0);
        }
    }

    FilmInfo m_info;
    int64_t m_pictures = 0;
    size_t m_texts = 0;
    int64_t m_samples = 0;
    int64_t m_timeMs = 0;
    std::vector<float> m_tone;
    std::map<std::pair<int, int>, std::unique_ptr<Painter>> m_painters;
};

}  // namespace

SubtitleText TestText(size_t track, size_t number) {
    const int64_t periodMs = static_cast<int64_t>(number) * kTextPeriodMs;
    return {periodMs + kTextStartMs, periodMs + kTextEndMs,
            kTexts[(track + number) % std::size(kTexts)]};
}

double TestTone(size_t track) {
    return 440.0 * (1.0 + 0.5 * static_cast<double>(track));
}

std::unique_ptr<Film> NewTestFilm(const TestFilmOptions& options) {
    return std::make_unique<TestFilm>(options);
}

}  // namespace opal::package
