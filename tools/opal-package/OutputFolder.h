#pragma once

#include <string>

#include "opal-package/Presentation.h"

namespace opal::package {

/// The folder of a presentation while it is made: files are written into FOLDER.part beside it, and
/// take their place when all of them are whole. Until then FOLDER stays as it was.
///
/// Ownership and lifetime: FOLDER.part goes with the object unless Commit has been called; a lock
/// on it keeps a second maker away.
/// Errors: PackageError (InputOutput).
class OutputFolder {
  public:
    explicit OutputFolder(const std::string& folder);
    ~OutputFolder();
    OutputFolder(const OutputFolder&) = delete;
    OutputFolder& operator=(const OutputFolder&) = delete;

    /// Creates FOLDER.part, in place of one that was left behind.
    void Begin();

    /// Where files are to be written.
    const std::string& Working() const { return m_working; }

    /// Puts the files in place. Files of the presentation that FOLDER held before go; whatever else
    /// lies there stays.
    void Commit();

    /// True for a file that lies in FOLDER, or is FOLDER.
    bool Holds(const std::string& path) const;

  private:
    void ClearLeftover() const;
    void Move(const std::string& name) const;

    std::string m_folder;
    std::string m_working;
    int m_lock = -1;
};

}  // namespace opal::package
