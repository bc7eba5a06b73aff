#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <vector>

namespace opal::simulate {

/// BOLA-E, a published rule that chooses levels by the buffer, to compare ours with: K. Spiteri,
/// R. Sitaraman, D. Sparacio, "From Theory to Practice: Improving Bitrate Adaptation in the DASH
/// Reference Player", MMSys 2018; BOLA itself and its abandonment: K. Spiteri, R. Urgaonkar,
/// R. Sitaraman, "BOLA: Near-Optimal Bitrate Adaptation for Online Videos", INFOCOM 2016.
///
/// BOLA takes the level with the greatest (V (utility + gamma p) - buffer) / size, where the
/// utility of a level is the logarithm of its bitrate. V and gamma p follow from two buffer levels:
/// with the lower one the lowest level is best, with the upper one the highest. Where every level
/// scores below zero it waits. BOLA-E adds:
///
///  - a placeholder: buffer that is not there is counted in, so much that the first choice is what
///  the
///    throughput carries, and after a wait or a switch held back by the throughput the next one is
///    not lower for it;
///  - no switch up beyond what the throughput carries;
///  - the insufficient buffer rule: nothing that would take longer than half of the buffer;
///  - abandonment: a transfer is given up for a level whose score, for a whole cluster, beats that
///  of
///    the transfer's rest.
///
/// Throughput: the lower of two averages that halve the weight of a sample in 3 and in 8 s of
/// transfer.
///
/// Threading: none; one a session. Units: ms, bits per second, bytes.
class BolaRule {
  public:
    /// `bitrates`: ascending. `bufferMs`: what the player buffers at most.
    BolaRule(std::vector<int> bitrates, double clusterMs, double bufferMs);

    void OnDownload(double bytes, double ms);

    struct Choice {
        size_t level = 0;
        double waitMs = 0.0;  ///< before the transfer begins
    };
    Choice Choose(double bufferedMs);
    /// The level to fetch the cluster from instead; none: the transfer goes on.
    std::optional<size_t> Abandon(size_t level, double bytes, double received, double bufferedMs);

  private:
    double Score(size_t level, double bufferedMs, double size) const;
    size_t LevelForBuffer(double bufferedMs) const;
    size_t LevelForThroughput() const;
    double LeastBufferFor(size_t level) const;
    double MostBufferFor(size_t level) const;
    size_t CapBySafeSize(size_t level, double bufferedMs);

    std::vector<double> m_bitrates;
    std::vector<double> m_utilities;
    double m_clusterMs;
    double m_bufferMs;
    double m_gammaP = 0.0;
    double m_v = 0.0;
    double m_placeholderMs = 0.0;
    double m_safety = 0.0;
    bool m_starting = true;
    size_t m_last = 0;

    struct Average {
        double halfLifeMs;
        double sum = 0.0;
        double weight = 0.0;
    };
    Average m_fast{3000.0};
    Average m_slow{8000.0};
    double Throughput() const;
};

}  // namespace opal::simulate
