#pragma once

#include <string>

#include "opal-package/MatroskaWriter.h"

namespace opal::package {

/// The font for subtitle files: the TrueType file at `path`, or DejaVu Sans of this machine where
/// `path` is empty. Throws PackageError for a file that is not there (InputOutput), is no font, or
/// does not fit into what a player reads of a subtitle file at once (Refused).
Attachment LoadFont(std::string path);

}  // namespace opal::package
