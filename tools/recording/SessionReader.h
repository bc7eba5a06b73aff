#pragma once

#include <cstddef>
#include <iosfwd>
#include <string>
#include <string_view>
#include <vector>

#include "recording/SessionRecords.h"

namespace opal::recording {

/// A recording that was read, as far as it was good.
struct Session {
    Header header;
    std::vector<Record> records;  ///< in the order of the file
    size_t skipped = 0;           ///< lines of unknown kinds or with words that are not known
    size_t unreadable = 0;        ///< lines that are none of a recording, a cut last one included
    bool partial = false;         ///< longer than what is read; the rest was left out
};

/// Reads recordings, line by line. Whatever the bytes are, they cost bounded memory and no crash.
///
/// Units: `timeUs` of a record is absolute, `start_us` included.
///
/// Errors: texts for people. What can be skipped is skipped and counted.
class SessionReader {
  public:
    static constexpr size_t kMaxLine = size_t{8} << 20;
    static constexpr size_t kMaxBytes = size_t{256} << 20;
    static constexpr size_t kMaxRecords = 1'000'000;

    /// Takes one line without its end: the first is the header, each further one a record or
    /// counted as skipped. False with a text: this is no recording, or one of a version that is not
    /// known; no more lines are wanted.
    [[nodiscard]] bool Take(std::string_view line, std::string* error);

    const Session& Get() const { return m_session; }
    Session& Get() { return m_session; }

    [[nodiscard]] static bool Read(std::istream& in, Session* session, std::string* error);
    [[nodiscard]] static bool ReadFile(const std::string& path, Session* session,
                                       std::string* error);

  private:
    Session m_session;
    bool m_started = false;
};

}  // namespace opal::recording
