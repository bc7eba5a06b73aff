#pragma once

#include <cstdint>

namespace opal::play {

/// How fast the position moves against real time while nothing interferes.
class Pace {
  public:
    /// A position that was reported while playing at normal speed.
    void Report(int64_t positionMs, int64_t nowMs);
    /// A jump, a pause or an underflow: the next report begins anew.
    void Interrupt() { m_running = false; }
    /// Media time over real time; 0 while less than two seconds were watched.
    double Value() const;

  private:
    bool m_running = false;
    int64_t m_positionMs = 0;
    int64_t m_atMs = 0;
    int64_t m_mediaMs = 0;
    int64_t m_realMs = 0;
};

}  // namespace opal::play
