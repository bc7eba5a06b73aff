#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "opal-package/Ladder.h"
#include "opal-package/Presentation.h"
#include "opal-package/TestFilm.h"

namespace opal::package {

struct SubtitleSource {
    std::string file;
    std::string language;
};

struct PackageOptions {
    /// Empty: the test film.
    std::string input;
    TestFilmOptions testFilm;
    /// Created when it is not there. A presentation that it holds is replaced when the new one is
    /// whole; other files in it stay.
    std::string folder;
    std::string baseUrl = "http://127.0.0.1:8090";
    /// Empty: the default ladder.
    std::vector<Rung> ladder;
    /// One level that holds the source's own coded pictures.
    bool copy = false;
    std::string preset = "superfast";
    int audioBitrate = 128000;
    std::vector<SubtitleSource> subtitles;
    /// Empty: a font found on this machine.
    std::string font;
    /// Time from one trick picture to the next; must divide the length of a trick cluster. 0: no
    /// trick track.
    int64_t trickIntervalMs = 500;
    /// Writes a golden file beside each media file, for the verification of what arrives.
    bool golden = false;
};

/// What is told while the work goes on.
struct PackageEvents {
    std::function<void(const std::string&)> note;
    /// Milliseconds of film done and in all; 0 in all when that is not known.
    std::function<void(int64_t, int64_t)> progress;
    /// Asked often; true ends the work with PackageError (Stopped).
    std::function<bool()> stopped;
};

/// Makes a presentation folder: the media files, presentation.json and, last of all, the manifest
/// presentation.smil.
///
/// Threading: works on the calling thread; encoders bring threads of their own. Several calls may
/// run at once on different folders.
/// Errors: PackageError. The folder is then as it was before.
Presentation Package(const PackageOptions& options, const PackageEvents& events = {});

}  // namespace opal::package
