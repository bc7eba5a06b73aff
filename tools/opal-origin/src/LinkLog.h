#pragma once

#include <chrono>
#include <cstdint>
#include <fstream>
#include <string>

#include "opal-origin/RateScript.h"

namespace opal::origin {

/// Writes the link's true rate as events of a recording (docs/RECORDING.md), with the time of day,
/// so that a session's report draws it.
///
/// Threading: one thread.
class LinkLog {
  public:
    explicit LinkLog(const RateScript& script) : m_script(script) {}

    /// Writes the header and the rate before the script's start.
    [[nodiscard]] bool Open(const std::string& path);
    /// Writes each step that has begun since the last call. The script has run for `scriptTime`;
    /// negative: it has not begun.
    void Follow(std::chrono::nanoseconds scriptTime);

  private:
    void Write(int64_t atUs, int64_t bitsPerSecond);

    const RateScript m_script;
    std::ofstream m_file;
    std::chrono::steady_clock::time_point m_start;
    int64_t m_scriptStartUs = -1;  // since m_start; -1: not yet
    size_t m_next = 0;             // the step that is to be written
    int64_t m_loopMs = 0;          // where in the script's time its loop began
};

}  // namespace opal::origin
