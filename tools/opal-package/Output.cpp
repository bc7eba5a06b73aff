#include "opal-package/Output.h"

#include <algorithm>
#include <deque>
#include <utility>

#include "opal-package/AudioEncoder.h"
#include "opal-package/AvcStream.h"
#include "opal-package/Error.h"
#include "opal-package/Ladder.h"
#include "opal-package/SourceFilm.h"
#include "opal-package/TimeCode.h"
#include "opal-package/TrackFile.h"
#include "opal-package/VideoEncoder.h"

namespace opal::package {
namespace {

/// Sound that goes on behind the film by less than this is no loss that anybody hears of.
constexpr int64_t kUnheardMs = 100;

ColourCodes CodesOf(const Colour& colour) {
    return {static_cast<uint32_t>(colour.primaries), static_cast<uint32_t>(colour.transfer),
            static_cast<uint32_t>(colour.matrix), static_cast<uint32_t>(colour.range)};
}

bool IsKnown(const Colour& colour) {
    return colour.primaries != AVCOL_PRI_UNSPECIFIED || colour.transfer != AVCOL_TRC_UNSPECIFIED ||
           colour.matrix != AVCOL_SPC_UNSPECIFIED || colour.range != AVCOL_RANGE_UNSPECIFIED;
}

TrackDescription VideoTrack(const Entry& entry, const ParameterSets& sets, const Colour& colour) {
    TrackDescription track;
    track.codecId = "V_MPEG4/ISO/AVC";
    track.codecPrivate = MakeConfiguration(sets);
    track.width = static_cast<uint32_t>(entry.width);
    track.height = static_cast<uint32_t>(entry.height);
    if (IsKnown(colour))
        track.colour = CodesOf(colour);
    return track;
}

uint64_t FrameDurationNs(AVRational rate) {
    return static_cast<uint64_t>(av_rescale(1000000000, rate.den, rate.num));
}

int MeanBitrate(const Entry& entry, int64_t durationMs) {
    uint64_t bytes = 0;
    for (uint64_t size : entry.clusterSizes)
        bytes += size;
    const uint64_t rate = bytes * 8000 / static_cast<uint64_t>(std::max<int64_t>(durationMs, 1));
    return static_cast<int>(std::clamp<uint64_t>(rate, 1, 1000000000));
}

/// What every kind of file shares.
class FileOutput : public Output {
  public:
    FileOutput(const OutputOptions& options, Entry entry, int64_t clusterMs)
        : m_options(options),
          m_entry(std::move(entry)),
          m_file(options.folder + "/" + m_entry.file, clusterMs, options.golden) {}

    void OnPicture(int64_t, bool, FilmPicture&) override {}
    void OnPacket(Block) override {}
    void OnSound(int64_t, const float* const*, int) override {}
    void OnText(SubtitleText) override {}

    Entry Finish(int64_t durationMs) override {
        Drain(durationMs);
        ::opal::package::Describe(m_entry, m_file.Finish(durationMs));
        Complete(durationMs);
        return m_entry;
    }

  protected:
    virtual void Drain(int64_t /*durationMs*/) {}
    /// Fills in what only the finished file tells.
    virtual void Complete(int64_t /*durationMs*/) {}

    void Note(const std::string& text) const {
        if (m_options.note)
            m_options.note(text);
    }

    OutputOptions m_options;
    Entry m_entry;
    TrackFile m_file;
};

class LevelOutput : public FileOutput {
  public:
    LevelOutput(const OutputOptions& options, const Entry& entry, unsigned number,
                const FilmInfo& film)
        : FileOutput(options, entry, kClusterMs),
          m_number(number),
          m_frameRate(film.frameRate),
          m_colour(film.colour),
          m_encoder({entry.width, entry.height, film.frameRate, entry.bitrate, false,
                     options.preset, film.colour},
                    [this](Block block) { Take(std::move(block)); }) {}

    void OnPicture(int64_t timeMs, bool key, FilmPicture& picture) override {
        m_encoder.Encode(picture.At(m_entry.width, m_entry.height, m_number), timeMs, key);
    }

  private:
    void Take(Block block) {
        if (!m_file.IsDescribed()) {
            TrackDescription track = VideoTrack(m_entry, m_encoder.Sets(), m_colour);
            track.defaultDurationNs = FrameDurationNs(m_frameRate);
            m_file.Describe(track);
        }
        m_file.Add(std::move(block));
    }

    void Drain(int64_t) override { m_encoder.Drain(); }

    unsigned m_number;
    AVRational m_frameRate;
    Colour m_colour;
    VideoEncoder m_encoder;
};

class CopyOutput : public FileOutput {
  public:
    CopyOutput(const OutputOptions& options, const Entry& entry, const FilmInfo& film)
        : FileOutput(options, entry, kClusterMs), m_film(film) {}

    void OnPacket(Block block) override {
        const int64_t clusterEnd = (m_clusterMs / kClusterMs + 1) * kClusterMs;
        const bool starts = m_clusterMs < 0 || (block.key && block.timeMs >= clusterEnd);
        if (starts) {
            TestStart(block);
            m_clusterMs = block.timeMs;
        } else if (block.timeMs < m_clusterMs) {
            Refuse(block.timeMs, "a picture in front of its key frame (open group of pictures)");
        } else if (block.timeMs >= clusterEnd + FrameMs()) {
            Refuse(clusterEnd, "no key frame");
        }
        if (!m_file.IsDescribed())
            Describe(block);
        m_file.Add(std::move(block));
    }

  private:
    int64_t FrameMs() const {
        return av_rescale(1000, m_film.frameRate.den, m_film.frameRate.num) + 1;
    }

    void Describe(const Block& block) {
        ParameterSets sets;
        std::vector<NalUnit> units;
        SplitLengthPrefixed(block.data.data(), block.data.size(), 4, units);
        CollectParameterSets(units, sets);
        TrackDescription track = VideoTrack(m_entry, sets, m_film.codedColour);
        track.defaultDurationNs = FrameDurationNs(m_film.frameRate);
        if (m_film.width != m_film.codedWidth) {
            track.displayWidth = static_cast<uint32_t>(m_film.width);
            track.displayHeight = static_cast<uint32_t>(m_film.height);
        }
        m_file.Describe(track);
    }

    void TestStart(const Block& block) const {
        const int64_t due = block.timeMs / kClusterMs * kClusterMs;
        if (!block.key || block.timeMs >= due + FrameMs())
            Refuse(due, "no key frame");
    }

    [[noreturn]] void Refuse(int64_t timeMs, const std::string& what) const {
        throw PackageError(Failure::Refused, m_film.name + ": " + what + " at " +
                                                 std::to_string(timeMs) +
                                                 " ms, where a cluster has to begin; mend it "
                                                 "with: " +
                                                 MendingCommand(m_film.name));
    }

    void Complete(int64_t durationMs) override {
        m_entry.bitrate = MeanBitrate(m_entry, durationMs);
        m_entry.vbvBits = VbvBits(m_entry.bitrate);
    }

    FilmInfo m_film;
    int64_t m_clusterMs = -1;
};

class TrickOutput : public FileOutput {
  public:
    TrickOutput(const OutputOptions& options, const Entry& entry, int64_t intervalMs,
                const FilmInfo& film)
        : FileOutput(options, entry, kTrickClusterMs),
          m_intervalMs(intervalMs),
          m_colour(film.colour),
          m_encoder({entry.width,
                     entry.height,
                     {1000, static_cast<int>(intervalMs)},
                     0,
                     true,
                     options.preset,
                     film.colour},
                    [this](Block block) { Take(std::move(block)); }) {}

    void OnPicture(int64_t timeMs, bool, FilmPicture& picture) override {
        for (; m_nextMs <= timeMs; m_nextMs += m_intervalMs) {
            m_encoder.Encode(picture.At(m_entry.width, m_entry.height, kTrickLevel), m_nextMs,
                             true);
        }
    }

  private:
    void Take(Block block) {
        if (!m_file.IsDescribed()) {
            TrackDescription track = VideoTrack(m_entry, m_encoder.Sets(), m_colour);
            track.defaultDurationNs = static_cast<uint64_t>(m_intervalMs) * 1000000;
            track.frameLists = true;
            m_file.Describe(track);
        }
        m_file.Add(std::move(block));
    }

    void Drain(int64_t) override { m_encoder.Drain(); }

    void Complete(int64_t durationMs) override {
        m_entry.bitrate = MeanBitrate(m_entry, durationMs);
        m_entry.vbvBits = VbvBits(m_entry.bitrate);
    }

    int64_t m_intervalMs;
    int64_t m_nextMs = 0;
    Colour m_colour;
    VideoEncoder m_encoder;
};

/// Coded sound waits here for the picture of its time, since only the last picture tells where the
/// film ends.
class SoundOutput : public FileOutput {
  public:
    SoundOutput(const OutputOptions& options, const Entry& entry, int sampleRate, int bitrate)
        : FileOutput(options, entry, kClusterMs),
          m_encoder(sampleRate, bitrate,
                    [this](Block block) { m_waiting.push_back(std::move(block)); }) {
        TrackDescription track;
        track.kind = TrackKind::Audio;
        track.codecId = "A_AAC";
        track.codecPrivate = m_encoder.Configuration();
        track.language = entry.language;
        track.defaultDurationNs = m_encoder.FrameDurationNs();
        track.samplingFrequency = static_cast<float>(sampleRate);
        track.channels = 2;
        m_file.Describe(track);
    }

    void OnPicture(int64_t timeMs, bool, FilmPicture&) override { WriteBefore(timeMs); }

    void OnSound(int64_t timeMs, const float* const* samples, int count) override {
        m_encoder.Encode(timeMs, samples, count);
    }

  private:
    void WriteBefore(int64_t timeMs) {
        for (; !m_waiting.empty() && m_waiting.front().timeMs < timeMs; m_waiting.pop_front())
            m_file.Add(std::move(m_waiting.front()));
    }

    void Drain(int64_t durationMs) override {
        m_encoder.Finish(durationMs);
        WriteBefore(durationMs);
        if (!m_waiting.empty()) {
            const Block& last = m_waiting.back();
            const int64_t lost = last.timeMs + last.durationMs - durationMs;
            if (lost > kUnheardMs) {
                Note(m_entry.file + ": " + std::to_string(lost) +
                     " ms of sound behind the last picture, which ends at " +
                     std::to_string(durationMs) + " ms, are left out");
            }
        }
    }

    AudioEncoder m_encoder;
    std::deque<Block> m_waiting;
};

class SubtitleOutput : public FileOutput {
  public:
    SubtitleOutput(const OutputOptions& options, const Entry& entry,
                   std::vector<SubtitleText> texts, const Attachment& font)
        : FileOutput(options, entry, kClusterMs), m_texts(std::move(texts)) {
        TrackDescription track;
        track.kind = TrackKind::Subtitle;
        track.codecId = "S_TEXT/UTF8";
        track.language = entry.language;
        track.attachment = font;
        m_file.Describe(track);
    }

    void OnText(SubtitleText text) override { m_texts.push_back(std::move(text)); }

  private:
    void Drain(int64_t durationMs) override {
        Arrange(m_texts);
        for (const Cluster& cluster : SubtitleClusters(m_texts, durationMs))
            m_file.AddCluster(cluster);
        const auto late = std::count_if(
            m_texts.begin(), m_texts.end(),
            [durationMs](const SubtitleText& text) { return text.startMs >= durationMs; });
        if (late > 0) {
            Note(m_entry.file + ": " + std::to_string(late) + " texts behind the film's end at " +
                 std::to_string(durationMs) + " ms are left out");
        }
    }

    void Complete(int64_t durationMs) override {
        m_entry.reservedBandwidth = MeanBitrate(m_entry, durationMs);
    }

    std::vector<SubtitleText> m_texts;
};

}  // namespace

std::unique_ptr<Output> NewLevelOutput(const OutputOptions& options, const Entry& entry,
                                       unsigned number, const FilmInfo& film) {
    return std::make_unique<LevelOutput>(options, entry, number, film);
}

std::unique_ptr<Output> NewCopyOutput(const OutputOptions& options, const Entry& entry,
                                      const FilmInfo& film) {
    return std::make_unique<CopyOutput>(options, entry, film);
}

std::unique_ptr<Output> NewTrickOutput(const OutputOptions& options, const Entry& entry,
                                       int64_t intervalMs, const FilmInfo& film) {
    return std::make_unique<TrickOutput>(options, entry, intervalMs, film);
}

std::unique_ptr<Output> NewSoundOutput(const OutputOptions& options, const Entry& entry,
                                       int sampleRate, int bitrate) {
    return std::make_unique<SoundOutput>(options, entry, sampleRate, bitrate);
}

std::unique_ptr<Output> NewSubtitleOutput(const OutputOptions& options, const Entry& entry,
                                          std::vector<SubtitleText> texts, const Attachment& font) {
    return std::make_unique<SubtitleOutput>(options, entry, std::move(texts), font);
}

}  // namespace opal::package
