#pragma once

#include <map>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "opal-package/Film.h"

namespace opal::package {

struct TestFilmOptions {
    int64_t durationMs = 30000;
    int framesPerSecond = 25;
    int width = 1920;
    int height = 1080;
    /// One audio track for each, every one with a tone of its own.
    std::vector<std::string> languages = {"eng", "ger"};
    /// One track of texts for each.
    std::vector<std::string> texts;
};

/// A film that needs no source: a moving pattern, the running time burnt in for people and as a row
/// of squares for programs (TimeCode.h), and for each audio track a tone of its own that pauses for
/// the last tenth of every second. Every four seconds a text comes half a second in and stands for
/// three: letters with accents, Greek, Cyrillic, two lines, one too long for a line, and signs that
/// are markup elsewhere. Each track begins with another of them.
std::unique_ptr<Film> NewTestFilm(const TestFilmOptions& options);

/// The n-th text of a track.
SubtitleText TestText(size_t track, size_t number);

/// The pitch of the n-th audio track, in Hz.
double TestTone(size_t track);

}  // namespace opal::package
