#pragma once

#include <boost/noncopyable.hpp>
#include <cstdint>

#include "Common/Mutex.h"

/// How often what playback is doing is reported to the content session; process-wide, off until a
/// content session sets it.
///
/// Threading: any operation from any thread.
/// Units: milliseconds.
class PlayReportConfig : boost::noncopyable {
  public:
    static PlayReportConfig& Instance();

    /// Switches reporting on. More than a day counts as 300 s; 0: no periodic reports.
    void Set(int64_t intervalMs);
    bool IsEnabled() const;
    int64_t GetInterval() const;

    /// For tests: off again.
    void Reset();

  private:
    PlayReportConfig() = default;

    mutable opal::Mutex m_mutex;
    int64_t interval OPAL_GUARDED_BY(m_mutex) = 0;
    bool enabled OPAL_GUARDED_BY(m_mutex) = false;
};
