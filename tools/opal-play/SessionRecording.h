#pragma once

#include <cstdint>
#include <fstream>
#include <memory>
#include <string>

#include "opal-play/Observer.h"
#include "opal-report/LiveServer.h"

namespace opal::play {

/// Where the lines of a session's recording go: into a file, to the live report, or nowhere. One
/// thread; the observer's writes the lines.
class SessionRecording {
  public:
    explicit SessionRecording(Observer& observer) : m_observer(observer) {}

    /// Before the session begins. An empty file and a negative port are none; `source` is what is
    /// played. Throws std::runtime_error when the file cannot be written, or the port not served.
    void Start(const std::string& file, int livePort, const std::string& source);
    /// Of the live report; empty without one.
    std::string LiveUrl() const { return m_live ? m_live->Url() : std::string(); }
    /// Once a second, the television's figures.
    void AddFiguresWhenDue();
    /// After the session. False if the file could not be written whole.
    bool End(int exitCode, const std::string& summary);

  private:
    bool IsRunning() const { return m_file.is_open() || m_live; }
    void AddFigures();

    Observer& m_observer;
    std::ofstream m_file;
    std::unique_ptr<report::LiveServer> m_live;
    int64_t m_lastFiguresMs = 0;
};

}  // namespace opal::play
