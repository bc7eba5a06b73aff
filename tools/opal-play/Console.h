#pragma once

#include <cstdint>
#include <cstdio>
#include <string>

namespace opal::play {

/// The program's own output. Library and set print to standard output as they like; that goes to a
/// file of its own, so that what a person or a script reads stays clean.
class Console {
  public:
    /// `quiet`: only Print and Error say anything. Throws std::runtime_error when `logFile` cannot
    /// be written.
    Console(bool quiet, bool leaveLibraryOutput, const std::string& logFile);
    ~Console();
    Console(const Console&) = delete;
    Console& operator=(const Console&) = delete;

    /// How often a progress line is of use.
    int64_t ProgressIntervalMs() const { return m_terminal ? 100 : 1000; }
    /// Room for a progress line.
    size_t ProgressWidth() const;
    /// On a terminal the lines replace those before.
    void Progress(const std::string& text);
    /// Something that happened.
    void Line(const std::string& text);
    void Print(const std::string& text);
    /// Whether all that was printed could be written.
    bool AllWritten() const { return m_written; }
    /// To standard error, with the program's name before it.
    void Error(const std::string& text);

  private:
    void ClearProgress();

    const bool m_quiet;
    FILE* m_out;
    bool m_terminal;
    size_t m_progressLines = 0;  ///< on the terminal now
    bool m_written = true;
};

}  // namespace opal::play
