#pragma once

#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "opal-package/Film.h"
#include "opal-package/MatroskaWriter.h"
#include "opal-package/Presentation.h"
#include "opal-package/SubtitleText.h"

namespace opal::package {

/// What all files of a presentation have in common.
struct OutputOptions {
    std::string folder;
    std::string preset;
    /// Writes a golden file beside each file.
    bool golden = false;
    /// Takes remarks that do not stop the work, one line each.
    std::function<void(const std::string&)> note;
};

/// One file of the presentation in the making. It takes what it has a use for.
///
/// Threading: one thread.
/// Errors: PackageError.
class Output {
  public:
    virtual ~Output() = default;

    virtual void OnPicture(int64_t timeMs, bool key, FilmPicture& picture) = 0;
    virtual void OnPacket(Block block) = 0;
    virtual void OnSound(int64_t timeMs, const float* const* samples, int count) = 0;
    virtual void OnText(SubtitleText text) = 0;

    /// Completes the file: what the manifest tells of it.
    virtual Entry Finish(int64_t durationMs) = 0;
};

/// One level, encoded from the film's pictures; `number` is the level's.
std::unique_ptr<Output> NewLevelOutput(const OutputOptions& options, const Entry& entry,
                                       unsigned number, const FilmInfo& film);

/// The source's own pictures. They must come with a closed group of pictures at the start of every
/// cluster, which is tested as they pass.
std::unique_ptr<Output> NewCopyOutput(const OutputOptions& options, const Entry& entry,
                                      const FilmInfo& film);

/// Key frames only, on a grid of exact times.
std::unique_ptr<Output> NewTrickOutput(const OutputOptions& options, const Entry& entry,
                                       int64_t intervalMs, const FilmInfo& film);

/// Sound, which ends with the film.
std::unique_ptr<Output> NewSoundOutput(const OutputOptions& options, const Entry& entry,
                                       int sampleRate, int bitrate);

/// A subtitle track with its font: the texts given and those that come.
std::unique_ptr<Output> NewSubtitleOutput(const OutputOptions& options, const Entry& entry,
                                          std::vector<SubtitleText> texts, const Attachment& font);

}  // namespace opal::package
