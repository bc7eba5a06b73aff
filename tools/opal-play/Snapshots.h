#pragma once

#include <atomic>
#include <string>
#include <vector>

#include "opal-play/Report.h"
#include "opal-play/Wake.h"

namespace opal::play {

/// Pictures of the screen at given media times, and the longest time without one. The television
/// tells of each picture it shows; one that is due wakes the main loop, which writes the file.
class Snapshots {
  public:
    /// Makes the folder. Throws std::runtime_error if that fails.
    Snapshots(const Wake& wake, const std::string& folder, std::vector<int64_t> timesMs);
    ~Snapshots();
    Snapshots(const Snapshots&) = delete;
    Snapshots& operator=(const Snapshots&) = delete;

    /// Whether the television's picture times are media times: at 1x, once a jump is over.
    void SetLive(bool live) { m_live = live; }
    /// Takes the ones that are due; false with the reason if a file cannot be written.
    bool TakeDue(std::string& error);
    /// One of what is on the screen now.
    bool TakeNow(int64_t positionMs, std::string& error);
    const std::vector<Snapshot>& Taken() const { return m_taken; }
    /// Times that were never shown.
    std::vector<int64_t> Missing() const;
    /// Media time between two pictures that were shown one after the other, at most; and the time
    /// of the second. Says something of what is played straight through.
    int64_t LongestGapMs() const { return m_longestGapMs; }
    int64_t GapEndMs() const { return m_gapEndMs; }

  private:
    void OnPicture(uint32_t ptsMs);

    const Wake& m_wake;
    const std::string m_folder;
    std::vector<int64_t> m_due;  ///< rising
    std::vector<int64_t> m_missed;
    std::vector<Snapshot> m_taken;
    std::atomic<bool> m_live{false};
    std::atomic<int64_t> m_nextMs;
    std::atomic<int64_t> m_shownMs{-1};  ///< of a picture shown while live
    int64_t m_lastMs = -1;               ///< of the last picture; the television's display thread's
    std::atomic<int64_t> m_longestGapMs{0};
    std::atomic<int64_t> m_gapEndMs{0};
};

}  // namespace opal::play
