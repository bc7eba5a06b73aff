#pragma once

#include <ostream>
#include <string>

namespace opal::package {

/// Prints what a media file holds: header, index with cluster sizes and frame lists, and every
/// block with time, size and check sum. Reads the file as a player does, through the library's own
/// classes, and says where the file does not hold what it promises.
///
/// Returns 0, or the number of Failure::Damaged. Throws PackageError (InputOutput) when the file
/// cannot be read.
int Dump(const std::string& path, std::ostream& out);

}  // namespace opal::package
