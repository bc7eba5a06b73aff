#pragma once

#include <stdexcept>
#include <string>

namespace opal::package {

/// What went wrong, as the exit code that the program ends with.
enum class Failure {
    InputOutput = 1,  ///< a file cannot be read or written, an encoder is missing
    Usage = 2,        ///< the command line
    Refused = 3,      ///< the source cannot be packaged
    Damaged = 4,      ///< --dump: the file does not hold what its header promises
    Stopped = 130     ///< by a signal
};

/// The text names the file, what was wrong and what to do about it.
class PackageError : public std::runtime_error {
  public:
    PackageError(Failure failure, const std::string& text)
        : std::runtime_error(text), m_failure(failure) {}

    Failure GetFailure() const { return m_failure; }

  private:
    Failure m_failure;
};

}  // namespace opal::package
