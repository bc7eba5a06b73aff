#pragma once

#include <string>

namespace opal::play {

/// Lets the sessions to come write their log into a file, every level of it: each document that
/// would be uploaded becomes a line. Throws std::runtime_error if the file cannot be written.
void WriteLogsTo(const std::string& path);

/// After the last session: closes the file. False if it was not written whole.
bool EndLog();

}  // namespace opal::play
