#include "opal-package/Packager.h"

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <memory>
#include <sstream>
#include <utility>

#include "opal-package/AudioEncoder.h"
#include "opal-package/Error.h"
#include "opal-package/SourceFilm.h"
#include "opal-package/SubRip.h"
#include "opal-package/TimeCode.h"
#include "opal-package/TrackFile.h"
#include "opal-package/VideoEncoder.h"

namespace opal::package {
namespace {

constexpr const char* kFonts[] = {
    "/usr/share/fonts/truetype/dejavu/DejaVuSans.ttf", "/usr/share/fonts/TTF/DejaVuSans.ttf",
    "/usr/share/fonts/dejavu/DejaVuSans.ttf", "/usr/share/fonts/dejavu-sans-fonts/DejaVuSans.ttf"};
constexpr int kTrickHeight = 240;

std::string ReadFile(const std::string& path, const std::string& advice) {
    std::ifstream in(path, std::ios::binary);
    std::ostringstream content;
    content << in.rdbuf();
    if (!in) {
        throw PackageError(Failure::InputOutput, path + ": cannot be read; " + advice);
    }
    return content.str();
}

TrackDescription VideoTrack(int width, int height, const ParameterSets& sets) {
    TrackDescription track;
    track.codecId = "V_MPEG4/ISO/AVC";
    track.codecPrivate = MakeConfiguration(sets);
    track.width = static_cast<uint32_t>(width);
    track.height = static_cast<uint32_t>(height);
    return track;
}

uint64_t FrameDurationNs(AVRational rate) {
    return static_cast<uint64_t>(av_rescale(1000000000, rate.den, rate.num));
}

int MeanBitrate(const Entry& entry, int64_t durationMs) {
    uint64_t bytes = 0;
    for (uint64_t size : entry.clusterSizes) {
        bytes += size;
    }
    const uint64_t rate = bytes * 8000 / static_cast<uint64_t>(std::max<int64_t>(durationMs, 1));
    return static_cast<int>(std::clamp<uint64_t>(rate, 1, 1000000000));
}

/// One file of the presentation in the making.
class Output {
  public:
    Output(Entry entry, const std::string& folder, int64_t clusterMs)
        : m_entry(std::move(entry)), m_file(folder + "/" + m_entry.file, clusterMs) {}
    virtual ~Output() = default;

    virtual void OnPicture(int64_t /*timeMs*/, bool /*key*/, FilmPicture& /*picture*/) {}
    virtual void OnPacket(Block /*block*/) {}
    virtual void OnSound(int64_t /*timeMs*/, const float* const* /*samples*/, int /*count*/) {}

    Entry Finish(int64_t durationMs) {
        Drain(durationMs);
        ::opal::package::Describe(m_entry, m_file.Finish(durationMs));
        Complete(durationMs);
        return m_entry;
    }

  protected:
    virtual void Drain(int64_t /*durationMs*/) {}
    /// Fills in what only the finished file tells.
    virtual void Complete(int64_t /*durationMs*/) {}

    Entry m_entry;
    TrackFile m_file;
};

class LevelOutput : public Output {
  public:
    LevelOutput(Entry entry, const std::string& folder, unsigned number, AVRational frameRate,
                const std::string& preset)
        : Output(std::move(entry), folder, kClusterMs),
          m_number(number),
          m_frameRate(frameRate),
          m_encoder({m_entry.width, m_entry.height, frameRate, m_entry.bitrate, false, preset},
                    [this](Block block) { Take(std::move(block)); }) {}

    void OnPicture(int64_t timeMs, bool key, FilmPicture& picture) override {
        m_encoder.Encode(picture.At(m_entry.width, m_entry.height, m_number), timeMs, key);
    }

  private:
    void Take(Block block) {
        if (!m_file.IsDescribed()) {
            TrackDescription track = VideoTrack(m_entry.width, m_entry.height, m_encoder.Sets());
            track.defaultDurationNs = FrameDurationNs(m_frameRate);
            m_file.Describe(track);
        }
        m_file.Add(std::move(block));
    }

    void Drain(int64_t) override { m_encoder.Drain(); }

    unsigned m_number;
    AVRational m_frameRate;
    VideoEncoder m_encoder;
};

/// The source's own pictures. They must come with a closed group of pictures at the start of every
/// cluster, which is tested as they pass.
class CopyOutput : public Output {
  public:
    CopyOutput(Entry entry, const std::string& folder, const std::string& input,
               AVRational frameRate)
        : Output(std::move(entry), folder, kClusterMs), m_input(input), m_frameRate(frameRate) {}

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
        if (!m_file.IsDescribed()) {
            ParameterSets sets;
            std::vector<NalUnit> units;
            SplitLengthPrefixed(block.data.data(), block.data.size(), 4, units);
            CollectParameterSets(units, sets);
            TrackDescription track = VideoTrack(m_entry.width, m_entry.height, sets);
            track.defaultDurationNs = FrameDurationNs(m_frameRate);
            m_file.Describe(track);
        }
        m_file.Add(std::move(block));
    }

  private:
    int64_t FrameMs() const { return av_rescale(1000, m_frameRate.den, m_frameRate.num) + 1; }

    void TestStart(const Block& block) const {
        const int64_t due = block.timeMs / kClusterMs * kClusterMs;
        if (!block.key || block.timeMs >= due + FrameMs()) {
            Refuse(due, "no key frame");
        }
    }

    [[noreturn]] void Refuse(int64_t timeMs, const std::string& what) const {
        throw PackageError(
            Failure::Refused,
            m_input + ": " + what + " at " + std::to_string(timeMs) +
                " ms, where a cluster has to begin; mend it with: " + MendingCommand(m_input));
    }

    void Complete(int64_t durationMs) override {
        m_entry.bitrate = MeanBitrate(m_entry, durationMs);
        m_entry.vbvBits = VbvBits(m_entry.bitrate);
    }

    std::string m_input;
    AVRational m_frameRate;
    int64_t m_clusterMs = -1;
};

/// Key frames only, on a grid of exact times.
class TrickOutput : public Output {
  public:
    TrickOutput(Entry entry, const std::string& folder, int64_t intervalMs,
                const std::string& preset)
        : Output(std::move(entry), folder, kTrickClusterMs),
          m_intervalMs(intervalMs),
          m_encoder({m_entry.width,
                     m_entry.height,
                     {1000, static_cast<int>(intervalMs)},
                     0,
                     true,
                     preset},
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
            TrackDescription track = VideoTrack(m_entry.width, m_entry.height, m_encoder.Sets());
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
    VideoEncoder m_encoder;
};

class SoundOutput : public Output {
  public:
    SoundOutput(Entry entry, const std::string& folder, int sampleRate, int bitrate)
        : Output(std::move(entry), folder, kClusterMs),
          m_encoder(sampleRate, bitrate, [this](Block block) { m_file.Add(std::move(block)); }) {
        TrackDescription track;
        track.kind = TrackKind::Audio;
        track.codecId = "A_AAC";
        track.codecPrivate = m_encoder.Configuration();
        track.language = m_entry.language;
        track.defaultDurationNs = m_encoder.FrameDurationNs();
        track.samplingFrequency = static_cast<float>(sampleRate);
        track.channels = 2;
        m_file.Describe(track);
    }

    void OnSound(int64_t timeMs, const float* const* samples, int count) override {
        m_encoder.Encode(timeMs, samples, count);
    }

  private:
    void Drain(int64_t durationMs) override { m_encoder.Finish(durationMs); }

    AudioEncoder m_encoder;
};

class SubtitleOutput : public Output {
  public:
    SubtitleOutput(Entry entry, const std::string& folder, std::vector<SubtitleText> texts,
                   const Attachment& font)
        : Output(std::move(entry), folder, kClusterMs), m_texts(std::move(texts)) {
        TrackDescription track;
        track.kind = TrackKind::Subtitle;
        track.codecId = "S_TEXT/UTF8";
        track.language = m_entry.language;
        track.attachment = font;
        m_file.Describe(track);
    }

  private:
    void Drain(int64_t durationMs) override {
        for (const Cluster& cluster : SubtitleClusters(m_texts, durationMs)) {
            m_file.AddCluster(cluster);
        }
    }

    void Complete(int64_t durationMs) override {
        m_entry.reservedBandwidth = MeanBitrate(m_entry, durationMs);
    }

    std::vector<SubtitleText> m_texts;
};

/// Spreads what a film yields over the files of a presentation.
class Work : public FilmSink {
  public:
    Work(const PackageOptions& options, const PackageEvents& events)
        : m_options(options), m_events(events) {}

    Presentation Run() {
        m_film = OpenFilm();
        PlanFiles();
        while (m_film->Step(*this)) {
        }
        Presentation presentation;
        presentation.durationMs = m_film->DurationMs();
        for (const auto& output : m_outputs) {
            presentation.entries.push_back(output->Finish(presentation.durationMs));
        }
        WritePresentation(m_options.folder, presentation, m_options.baseUrl);
        Progress(presentation.durationMs, presentation.durationMs);
        return presentation;
    }

    void RemoveFiles() const {
        std::error_code ignored;
        for (const std::string& file : m_files) {
            std::filesystem::remove(m_options.folder + "/" + file, ignored);
        }
    }

    void OnPicture(int64_t timeMs, FilmPicture& picture) override {
        // The same question for all levels, so that their clusters begin with the same picture.
        const bool key = timeMs >= m_nextKeyMs;
        if (key) {
            m_nextKeyMs = (timeMs / kClusterMs + 1) * kClusterMs;
        }
        for (const auto& output : m_outputs) {
            output->OnPicture(timeMs, key, picture);
        }
        Progress(timeMs, m_film->Info().durationMs);
    }

    void OnPacket(int64_t timeMs, bool key, const uint8_t* data, size_t size) override {
        for (const auto& output : m_outputs) {
            Block block;
            block.timeMs = timeMs;
            block.key = key;
            block.data.assign(data, data + size);
            output->OnPacket(std::move(block));
        }
    }

    void OnSound(size_t track, int64_t timeMs, const float* const* samples, int count) override {
        m_sounds[track]->OnSound(timeMs, samples, count);
    }

  private:
    void Note(const std::string& text) const {
        if (m_events.note) {
            m_events.note(text);
        }
    }

    void Progress(int64_t doneMs, int64_t allMs) const {
        if (m_events.progress) {
            m_events.progress(doneMs, allMs);
        }
    }

    std::unique_ptr<Film> OpenFilm() {
        if (!m_options.input.empty()) {
            return OpenSourceFilm({m_options.input, m_options.copy, m_events.note});
        }
        TestFilmOptions film = m_options.testFilm;
        for (const Rung& rung : m_options.ladder) {
            film.width = std::max(film.width, rung.width);
            film.height = std::max(film.height, rung.height);
        }
        return NewTestFilm(film);
    }

    void PlanFiles() {
        // Whatever the command line names is read before anything is encoded.
        std::vector<std::vector<SubtitleText>> texts;
        for (const SubtitleSource& source : m_options.subtitles) {
            texts.push_back(ParseSubRip(ReadFile(source.file, "is the name right?"), source.file));
        }
        Attachment font;
        if (!texts.empty()) {
            font = LoadFont();
        }
        std::error_code error;
        std::filesystem::create_directories(m_options.folder, error);
        if (error) {
            throw PackageError(Failure::InputOutput,
                               m_options.folder + ": cannot be created: " + error.message());
        }
        // A manifest of an earlier run must not describe the files of this one.
        std::filesystem::remove(m_options.folder + "/" + kManifestName, error);
        if (m_options.copy) {
            PlanCopy();
        } else {
            PlanLevels();
        }
        PlanTrick();
        PlanSounds();
        for (size_t i = 0; i < texts.size(); ++i) {
            PlanSubtitle(i, std::move(texts[i]), font);
        }
    }

    void PlanLevels() {
        const FilmInfo& info = m_film->Info();
        const std::vector<Rung> ladder =
            m_options.ladder.empty()
                ? DefaultLadder(info.width, info.height, av_q2d(info.frameRate))
                : CutToSource(m_options.ladder, info.width, info.height);
        unsigned number = 0;
        for (const Rung& rung : ladder) {
            Entry entry;
            entry.bitrate = rung.bitrate;
            entry.width = rung.width;
            entry.height = rung.height;
            entry.vbvBits = VbvBits(rung.bitrate);
            entry.file = "level" + std::to_string(number) + "-" + std::to_string(rung.height) +
                         "p-" + std::to_string(rung.bitrate / 1000) + "k.mkv";
            entry.mime = "video/x-matroska";
            Note("level " + std::to_string(number) + ": " + std::to_string(rung.width) + "x" +
                 std::to_string(rung.height) + " at " + std::to_string(rung.bitrate / 1000) +
                 " kbit/s");
            Add<LevelOutput>(entry, number, info.frameRate, m_options.preset);
            ++number;
        }
    }

    void PlanCopy() {
        const FilmInfo& info = m_film->Info();
        Entry entry;
        entry.width = info.codedWidth;
        entry.height = info.height;
        entry.file = "level0-" + std::to_string(info.height) + "p-copy.mkv";
        entry.mime = "video/x-matroska";
        Note("level 0: " + std::to_string(info.codedWidth) + "x" + std::to_string(info.height) +
             ", copied");
        Add<CopyOutput>(entry, m_options.input, info.frameRate);
    }

    void PlanTrick() {
        if (m_options.trickIntervalMs == 0) {
            return;
        }
        const FilmInfo& info = m_film->Info();
        Entry entry;
        entry.kind = EntryKind::Trick;
        const Rung size = Scaled({0, info.width, info.height}, std::min(info.height, kTrickHeight));
        entry.width = size.width;
        entry.height = size.height;
        entry.file = "trick.mkv";
        entry.mime = "video/x-matroska";
        Add<TrickOutput>(entry, m_options.trickIntervalMs, m_options.preset);
    }

    void PlanSounds() {
        std::vector<FilmSound> sounds = m_film->Info().sounds;
        if (sounds.empty()) {
            // A set starts its picture together with the sound, so there must be one.
            Note("the source has no sound; a silent track is added");
            sounds.push_back({"und", 48000});
        }
        for (size_t i = 0; i < sounds.size(); ++i) {
            Entry entry;
            entry.kind = EntryKind::Audio;
            entry.language = sounds[i].language;
            entry.file = "audio" + std::to_string(i) + "-" + entry.language + ".mka";
            entry.reservedBandwidth = m_options.audioBitrate;
            entry.assetId = ++m_assets;
            entry.mime = "audio/x-matroska";
            m_sounds.push_back(
                &Add<SoundOutput>(entry, sounds[i].sampleRate, m_options.audioBitrate));
        }
    }

    void PlanSubtitle(size_t number, std::vector<SubtitleText> texts, const Attachment& font) {
        Entry entry;
        entry.kind = EntryKind::Subtitle;
        entry.language = m_options.subtitles[number].language;
        entry.file = "text" + std::to_string(number) + "-" + entry.language + ".mks";
        entry.assetId = ++m_assets;
        entry.mime = "application/x-matroska";
        Add<SubtitleOutput>(entry, std::move(texts), font);
    }

    Attachment LoadFont() const {
        std::string path = m_options.font;
        if (path.empty()) {
            for (const char* candidate : kFonts) {
                if (std::filesystem::exists(candidate)) {
                    path = candidate;
                    break;
                }
            }
        }
        if (path.empty()) {
            throw PackageError(Failure::InputOutput,
                               "no DejaVu font found for the subtitles; install fonts-dejavu-core, "
                               "or name a TrueType file with --font");
        }
        const std::string data = ReadFile(path, "name a TrueType file with --font");
        const bool trueType = data.compare(0, 4, std::string("\0\1\0\0", 4)) == 0 ||
                              data.compare(0, 4, "true") == 0 || data.compare(0, 4, "OTTO") == 0;
        if (!trueType) {
            throw PackageError(Failure::Refused, path + ": is no TrueType font");
        }
        if (data.size() + 1024 > kLongestSubtitleHeader) {
            throw PackageError(Failure::Refused,
                               path + ": " + std::to_string(data.size()) +
                                   " bytes are more than a player takes as a subtitle header (" +
                                   std::to_string(kLongestSubtitleHeader) +
                                   "); name a smaller one with --font");
        }
        Attachment font;
        font.fileName = std::filesystem::path(path).filename().string();
        font.data.assign(data.begin(), data.end());
        return font;
    }

    template <typename Kind, typename... Arguments>
    Kind& Add(const Entry& entry, Arguments&&... arguments) {
        m_files.push_back(entry.file);
        m_outputs.push_back(
            std::make_unique<Kind>(entry, m_options.folder, std::forward<Arguments>(arguments)...));
        return static_cast<Kind&>(*m_outputs.back());
    }

    const PackageOptions& m_options;
    const PackageEvents& m_events;
    std::unique_ptr<Film> m_film;
    std::vector<std::string> m_files;
    std::vector<std::unique_ptr<Output>> m_outputs;
    std::vector<Output*> m_sounds;
    int64_t m_nextKeyMs = 0;
    int64_t m_assets = 0;
};

void Check(const PackageOptions& options) {
    const auto refuse = [](const std::string& text) { throw PackageError(Failure::Usage, text); };
    if (options.folder.empty()) {
        refuse("name the folder to be made with -o");
    }
    if (options.copy && (options.input.empty() || !options.ladder.empty())) {
        refuse("--copy needs an INPUT, and makes one level, so it does not go with --levels");
    }
    if (options.trickIntervalMs != 0 &&
        (options.trickIntervalMs < 40 || kTrickClusterMs % options.trickIntervalMs != 0)) {
        refuse("--trick-interval must divide " + std::to_string(kTrickClusterMs) +
               " ms and be at least 40, or be 0 for no trick track");
    }
    for (const SubtitleSource& source : options.subtitles) {
        if (source.language.size() != 3) {
            refuse("'" + source.language + "' is no language code of three letters (" +
                   source.file + ")");
        }
    }
    if (options.input.empty() &&
        (options.testFilm.durationMs < 1 || options.testFilm.framesPerSecond < 1 ||
         options.testFilm.framesPerSecond > 120)) {
        refuse("the test film needs a duration above 0 and 1 to 120 frames a second");
    }
}

}  // namespace

Presentation Package(const PackageOptions& options, const PackageEvents& events) {
    Check(options);
    Work work(options, events);
    try {
        return work.Run();
    } catch (...) {
        work.RemoveFiles();
        throw;
    }
}

}  // namespace opal::package
