#include "opal-simulate/BolaRule.h"

#include <algorithm>
#include <cmath>
#include <utility>

namespace opal::simulate {
namespace {

/// The buffer at which the lowest level is best, and what a level more adds to the upper one.
constexpr double kLowestBufferMs = 10000.0;
constexpr double kBufferPerLevelMs = 2000.0;
/// Share of the buffer that a download may take: at first, its change a cluster, and in the end.
constexpr double kFirstSafety = 0.9;
constexpr double kSafetyDecay = 0.9;
constexpr double kSafety = 0.5;

}  // namespace

BolaRule::BolaRule(std::vector<int> bitrates, double clusterMs, double bufferMs)
    : m_bitrates(bitrates.begin(), bitrates.end()), m_clusterMs(clusterMs), m_bufferMs(bufferMs) {
    for (double bitrate : m_bitrates)
        m_utilities.push_back(std::log(bitrate / m_bitrates.front()) + 1.0);
    const double levels = static_cast<double>(m_bitrates.size());
    const double upper = std::max(bufferMs, kLowestBufferMs + kBufferPerLevelMs * levels);
    // Both thresholds hold for V (utility + gamma p - 1): the lower one for the lowest level, whose
    // utility is 1, the upper one for the highest.
    m_gammaP = std::max(1e-3, (m_utilities.back() - 1.0) / (upper / kLowestBufferMs - 1.0));
    m_v = kLowestBufferMs / m_gammaP;
}

void BolaRule::OnDownload(double bytes, double ms) {
    if (ms <= 0.0)
        return;
    for (Average* average : {&m_fast, &m_slow}) {
        const double keep = std::pow(0.5, ms / average->halfLifeMs);
        average->sum = keep * average->sum + (1.0 - keep) * bytes * 8000.0 / ms;
        average->weight = keep * average->weight + (1.0 - keep);
    }
}

double BolaRule::Throughput() const {
    return m_fast.weight <= 0.0 ? 0.0
                                : std::min(m_fast.sum / m_fast.weight, m_slow.sum / m_slow.weight);
}

double BolaRule::Score(size_t level, double bufferedMs, double size) const {
    return (m_v * (m_utilities[level] + m_gammaP - 1.0) - bufferedMs) / size;
}

size_t BolaRule::LevelForBuffer(double bufferedMs) const {
    size_t best = 0;
    for (size_t level = 1; level < m_bitrates.size(); ++level) {
        if (Score(level, bufferedMs, m_bitrates[level]) >=
            Score(best, bufferedMs, m_bitrates[best]))
            best = level;
    }
    return best;
}

size_t BolaRule::LevelForThroughput() const {
    size_t level = m_bitrates.size() - 1;
    while (level > 0 && m_bitrates[level] > Throughput())
        --level;
    return level;
}

/// Where the level's score passes that of every lower one.
double BolaRule::LeastBufferFor(size_t level) const {
    double least = 0.0;
    for (size_t other = 0; other < level; ++other) {
        const double crossing =
            m_v *
            (m_gammaP - 1.0 +
             (m_bitrates[level] * m_utilities[other] - m_bitrates[other] * m_utilities[level]) /
                 (m_bitrates[level] - m_bitrates[other]));
        least = std::max(least, crossing);
    }
    return least;
}

/// Where the level's score falls to zero.
double BolaRule::MostBufferFor(size_t level) const {
    return m_v * (m_utilities[level] + m_gammaP - 1.0);
}

size_t BolaRule::CapBySafeSize(size_t level, double bufferedMs) {
    const double safeBits = m_safety * bufferedMs / 1000.0 * Throughput();
    m_safety = std::max(kSafety, m_safety * kSafetyDecay);
    while (level > 0 && m_bitrates[level] * m_clusterMs / 1000.0 > safeBits)
        --level;
    return level;
}

BolaRule::Choice BolaRule::Choose(double bufferedMs) {
    Choice choice;
    // The buffer holds no more than it holds; beyond that the rule waits whatever the scores.
    const double overfull = bufferedMs + m_clusterMs - m_bufferMs;
    if (m_starting) {
        if (Throughput() <= 0.0)
            return choice;
        m_starting = false;
        m_safety = kFirstSafety;
        choice.level = LevelForThroughput();
        m_placeholderMs = std::max(0.0, LeastBufferFor(choice.level) - bufferedMs);
    } else {
        choice.level = LevelForBuffer(bufferedMs + m_placeholderMs);
        const size_t carried = LevelForThroughput();
        if (choice.level > m_last && choice.level > carried)
            choice.level = std::max(m_last, carried);
        const double excess = bufferedMs + m_placeholderMs - MostBufferFor(choice.level);
        if (excess > 0.0) {
            const double fromPlaceholder = std::min(excess, m_placeholderMs);
            m_placeholderMs -= fromPlaceholder;
            choice.waitMs = excess - fromPlaceholder;
        }
        choice.level = CapBySafeSize(choice.level, bufferedMs);
    }
    if (overfull > choice.waitMs) {
        // Time waited for room says nothing of the link: the placeholder takes its place.
        m_placeholderMs += overfull - choice.waitMs;
        choice.waitMs = overfull;
    }
    m_last = choice.level;
    return choice;
}

std::optional<size_t> BolaRule::Abandon(size_t level, double bytes, double received,
                                        double bufferedMs) {
    const double rest = bytes - received;
    if (level == 0 || rest <= 0.0)
        return std::nullopt;
    const double buffer = bufferedMs + m_placeholderMs;
    double best = Score(level, buffer, rest);
    if (best < 0.0)
        return std::nullopt;
    std::optional<size_t> better;
    for (size_t other = 0; other < level; ++other) {
        const double size = bytes * m_bitrates[other] / m_bitrates[level];
        const double score = Score(other, buffer, size);
        if (size < rest && score > best) {
            best = score;
            better = other;
        }
    }
    if (better)
        m_last = *better;
    return better;
}

}  // namespace opal::simulate
