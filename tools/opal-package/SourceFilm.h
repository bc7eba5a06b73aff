#pragma once

#include <functional>
#include <memory>
#include <string>

#include "opal-package/Film.h"

namespace opal::package {

/// A player that waits for pictures must not wait longer.
constexpr int64_t kLongestHoldMs = 500;

struct SourceFilmOptions {
    std::string input;  ///< a path, or any URL that libavformat opens
    /// Passes the coded pictures on as well (FilmSink::OnPacket), and refuses a source whose
    /// pictures a television set does not decode as they are.
    bool copy = false;
    /// Takes remarks that do not stop the work, one line each.
    std::function<void(const std::string&)> warn;
    /// True ends a wait for the source with PackageError (Stopped).
    std::function<bool()> stopped;
};

/// A film that FFmpeg's libraries read: the first video stream, every audio stream and every
/// stream of texts. Where more
/// than kLongestHoldMs pass without a new picture, the last one is passed on again, to the end of
/// the film. Throws
/// PackageError for a source that is not there (InputOutput) or that cannot be packaged (Refused),
/// naming the file and, where there is one, the command that mends it.
std::unique_ptr<Film> OpenSourceFilm(const SourceFilmOptions& options);

/// The command that turns a source into one that can be packaged with --copy.
std::string MendingCommand(const std::string& input);

}  // namespace opal::package
