#include "opal-package/Packager.h"

#include <algorithm>
#include <memory>
#include <utility>

#include "opal-package/Error.h"
#include "opal-package/Font.h"
#include "opal-package/Output.h"
#include "opal-package/OutputFolder.h"
#include "opal-package/SourceFilm.h"
#include "opal-package/SubtitleText.h"

namespace opal::package {
namespace {

constexpr int kTrickHeight = 240;

/// Spreads what a film yields over the files of a presentation.
class Work : public FilmSink {
  public:
    Work(const PackageOptions& options, const PackageEvents& events)
        : m_options(options), m_events(events), m_folder(options.folder) {}

    Presentation Run() {
        if (m_folder.Holds(m_options.input)) {
            throw PackageError(Failure::Usage, m_options.input + ": lies in the folder " +
                                                   m_options.folder +
                                                   " that is to be made; name another with -o");
        }
        m_film = OpenFilm();
        PlanFiles();
        while (m_film->Step(*this)) {
            if (m_events.stopped && m_events.stopped())
                throw PackageError(Failure::Stopped, m_options.folder + ": not made, as asked");
        }
        Presentation presentation;
        presentation.durationMs = m_film->DurationMs();
        for (const auto& output : m_outputs)
            presentation.entries.push_back(output->Finish(presentation.durationMs));
        WritePresentation(m_folder.Working(), presentation, m_options.baseUrl);
        m_outputs.clear();
        m_folder.Commit();
        Progress(presentation.durationMs, presentation.durationMs);
        return presentation;
    }

    void OnPicture(int64_t timeMs, FilmPicture& picture) override {
        // The same question for all levels, so that their clusters begin with the same picture.
        const bool key = timeMs >= m_nextKeyMs;
        if (key)
            m_nextKeyMs = (timeMs / kClusterMs + 1) * kClusterMs;
        for (const auto& output : m_outputs)
            output->OnPicture(timeMs, key, picture);
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

    void OnText(size_t track, SubtitleText text) override {
        m_texts[track]->OnText(std::move(text));
    }

  private:
    void Note(const std::string& text) const {
        if (m_events.note)
            m_events.note(text);
    }

    void Progress(int64_t doneMs, int64_t allMs) const {
        if (m_events.progress)
            m_events.progress(doneMs, allMs);
    }

    std::unique_ptr<Film> OpenFilm() {
        if (!m_options.input.empty()) {
            return OpenSourceFilm(
                {m_options.input, m_options.copy, m_events.note, m_events.stopped});
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
        for (const SubtitleSource& source : m_options.subtitles)
            texts.push_back(ReadSubtitleFile(source.file));
        Attachment font;
        if (!texts.empty() || !m_film->Info().texts.empty())
            font = LoadFont(m_options.font);
        m_folder.Begin();
        m_common = {m_folder.Working(), m_options.preset, m_options.golden, m_events.note};
        if (m_options.copy)
            PlanCopy();
        else
            PlanLevels();
        PlanTrick();
        PlanSounds();
        for (size_t i = 0; i < texts.size(); ++i)
            PlanSubtitle(m_options.subtitles[i].language, std::move(texts[i]), font);
        for (const std::string& language : m_film->Info().texts)
            m_texts.push_back(&PlanSubtitle(language, {}, font));
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
            Add(NewLevelOutput(m_common, entry, number, info));
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
        Add(NewCopyOutput(m_common, entry, info));
    }

    void PlanTrick() {
        if (m_options.trickIntervalMs == 0)
            return;
        const FilmInfo& info = m_film->Info();
        Entry entry;
        entry.kind = EntryKind::Trick;
        const Rung size = Scaled({0, info.width, info.height}, std::min(info.height, kTrickHeight));
        entry.width = size.width;
        entry.height = size.height;
        entry.file = "trick.mkv";
        entry.mime = "video/x-matroska";
        Add(NewTrickOutput(m_common, entry, m_options.trickIntervalMs, info));
    }

    void PlanSounds() {
        std::vector<FilmSound> sounds = m_film->Info().sounds;
        if (sounds.empty()) {
            // A television starts its picture together with the sound, so there must be one.
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
            m_sounds.push_back(&Add(
                NewSoundOutput(m_common, entry, sounds[i].sampleRate, m_options.audioBitrate)));
        }
    }

    Output& PlanSubtitle(const std::string& language, std::vector<SubtitleText> texts,
                         const Attachment& font) {
        Entry entry;
        entry.kind = EntryKind::Subtitle;
        entry.language = language;
        entry.file = "text" + std::to_string(m_subtitles++) + "-" + entry.language + ".mks";
        entry.assetId = ++m_assets;
        entry.mime = "application/x-matroska";
        return Add(NewSubtitleOutput(m_common, entry, std::move(texts), font));
    }

    Output& Add(std::unique_ptr<Output> output) {
        m_outputs.push_back(std::move(output));
        return *m_outputs.back();
    }

    const PackageOptions& m_options;
    const PackageEvents& m_events;
    OutputFolder m_folder;
    OutputOptions m_common;
    std::unique_ptr<Film> m_film;
    std::vector<std::unique_ptr<Output>> m_outputs;
    std::vector<Output*> m_sounds;
    std::vector<Output*> m_texts;  ///< of the film's own tracks
    int m_subtitles = 0;
    int64_t m_nextKeyMs = 0;
    int64_t m_assets = 0;
};

void Check(const PackageOptions& options) {
    const auto refuse = [](const std::string& text) { throw PackageError(Failure::Usage, text); };
    if (options.folder.empty())
        refuse("name the folder to be made with -o");
    if (options.copy && (options.input.empty() || !options.ladder.empty()))
        refuse("--copy needs an INPUT, and makes one level, so it does not go with --levels");
    if (options.trickIntervalMs != 0 &&
        (options.trickIntervalMs < 40 || kTrickClusterMs % options.trickIntervalMs != 0)) {
        refuse("--trick-interval must divide " + std::to_string(kTrickClusterMs) +
               " ms and be at least 40, or be 0 for no trick track");
    }
    std::vector<std::string> languages;
    for (const SubtitleSource& source : options.subtitles)
        languages.push_back(source.language);
    for (const auto* list : {&options.testFilm.languages, &options.testFilm.texts})
        languages.insert(languages.end(), list->begin(), list->end());
    for (const std::string& language : languages) {
        // It becomes part of a file's name.
        const bool letters = std::all_of(language.begin(), language.end(),
                                         [](char c) { return c >= 'a' && c <= 'z'; });
        if (language.size() != 3 || !letters)
            refuse("'" + language + "' is no language code of three small letters");
    }
    if (options.input.empty() &&
        (options.testFilm.durationMs < 1 || options.testFilm.framesPerSecond < 2 ||
         options.testFilm.framesPerSecond > 120))
        refuse("the test film needs a duration above 0 and 2 to 120 frames a second");
}

}  // namespace

Presentation Package(const PackageOptions& options, const PackageEvents& events) {
    Check(options);
    return Work(options, events).Run();
}

}  // namespace opal::package
