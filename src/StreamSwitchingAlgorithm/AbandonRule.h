#pragma once

#include <cstddef>
#include <cstdint>
#include <deque>
#include <optional>
#include <vector>

namespace opal::playback {

/// When a video transfer is given up, and for which level.
///
/// A transfer is given up if its rest, at the throughput of its own last second, would take longer
/// than the buffer lasts, and the same cluster from the level that is affordable now is smaller
/// than that rest, so that it comes sooner although the bytes received so far are thrown away. A
/// transfer younger than a second is left alone. A cluster is given up once: the transfer that
/// follows runs to its end.
///
/// Affordable is the highest level below the present one whose bitrate the throughput carries and
/// whose cluster comes before the buffer is spent; the lowest level if there is none.
///
/// Threading: none; whoever paces the downloads asks, every few milliseconds. Units: milliseconds,
/// bytes, bits per second.
class AbandonRule {
  public:
    /// The present cluster as one of the levels has it.
    struct Level {
        int bitrate = 0;
        int64_t clusterBytes = 0;  ///< 0: not known, such a level is not chosen
    };

    /// The transfer that runs now.
    struct Transfer {
        int64_t nowMs = 0;       ///< of any clock that is not set back
        size_t cluster = 0;      ///< its number in the film
        size_t level = 0;        ///< where it comes from
        int64_t received = 0;    ///< so far
        int64_t bufferedMs = 0;  ///< video buffered, buffer and writer together
    };

    /// The level to fetch the cluster from instead; none: the transfer goes on. `levels`: by
    /// ascending bitrate, the transfer's own among them.
    std::optional<size_t> Ask(const Transfer& transfer, const std::vector<Level>& levels);
    /// The video goes on elsewhere: the cluster that was given up may be given up again.
    void Reset();

  private:
    struct Point {
        int64_t ms;
        int64_t received;
    };

    bool Observe(const Transfer& transfer);
    static size_t Affordable(const Transfer& transfer, const std::vector<Level>& levels,
                             double bytesPerMs);

    std::deque<Point> m_lastSecond;  ///< oldest first
    std::optional<size_t> m_cluster;
    size_t m_level = 0;
    std::optional<size_t> m_abandoned;  ///< the cluster given up last
};

}  // namespace opal::playback
