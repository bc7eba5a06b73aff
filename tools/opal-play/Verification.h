#pragma once

#include <string>
#include <vector>

#include "Common/OPALStreamType.h"
#include "Common/StopSignal.h"

namespace opal::play {

/// A stream that a manifest names.
struct MediaFile {
    OPALStreamType type = OPAL_STREAM_NONE;
    std::string url;
};

/// The streams of a manifest's text, in its order; none for what is no manifest.
std::vector<MediaFile> FindMediaFiles(const std::string& manifest);

/// Has every block compared with the golden file that lies beside its media file, and tells what
/// came of it.
///
/// Threading: Attach before playback begins, Report and Faults after the session has ended.
class Verification {
  public:
    ~Verification();

    /// Fetches the manifest once more, and the golden files: those of a whole film may take a
    /// while. GiveUp ends it.
    void Attach(const std::string& manifestUrl);
    /// Any thread.
    void GiveUp() { m_stop.Raise(); }
    /// A flush has failed because of a mismatch before it. Any thread.
    static bool FlushFailed();
    /// What was verified, line by line.
    std::vector<std::string> Report() const;
    /// What was not as it should be; also a stream without a golden file, and nothing verified.
    std::vector<std::string> Faults() const;

  private:
    StopSignal m_stop;
    std::vector<std::string> m_missing;
    bool m_noStreams = false;
    bool m_attached = false;
};

}  // namespace opal::play
