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
/// than the buffer lasts, and the same cluster from a level that is affordable now is smaller than
/// that rest, so that it comes sooner although the bytes received so far are thrown away. A
/// transfer younger than a second is left alone. A cluster is given up once: the transfer that
/// follows runs to its end.
///
/// The last second tells that the link has fallen, but not for how long. So a level below the
/// present one is affordable if its cluster, at the throughput of the whole transfer so far, takes
/// no more than half of the buffer's time; the lowest level always is. The highest affordable level
/// whose cluster is smaller than the rest is chosen. A link that dips costs a step or two, one that
/// is cut leads to the lowest level.
///
/// Threading: none; whoever paces the downloads asks, every few milliseconds. Units: milliseconds,
/// bytes, bits per second.
class AbandonRule {
  public:
    /// The transfer that runs now.
    struct Transfer {
        int64_t nowMs = 0;       ///< of any clock that is not set back
        size_t cluster = 0;      ///< its number in the film
        size_t level = 0;        ///< where it comes from
        int64_t received = 0;    ///< so far
        int64_t bufferedMs = 0;  ///< video buffered, buffer and writer together
    };

    /// The level to fetch the cluster from instead; none: the transfer goes on.
    /// `clusterBytes`: the size of this cluster on each level, by ascending bitrate, the transfer's
    /// own included; 0 where it is not known, which level is not chosen.
    std::optional<size_t> Ask(const Transfer& transfer, const std::vector<int64_t>& clusterBytes);
    /// The video goes on elsewhere: the cluster that was given up may be given up again.
    void Reset();

  private:
    struct Point {
        int64_t ms;
        int64_t received;
    };

    bool Observe(const Transfer& transfer);
    static std::optional<size_t> ComesSooner(const Transfer& transfer,
                                             const std::vector<int64_t>& clusterBytes, int64_t rest,
                                             double bytesPerMs);

    std::deque<Point> m_lastSecond;  ///< oldest first
    std::optional<size_t> m_cluster;
    size_t m_level = 0;
    Point m_begin = {};                 ///< where the transfer stood when it was first seen
    std::optional<size_t> m_abandoned;  ///< the cluster given up last
};

}  // namespace opal::playback
