#include "opal-simulate/Film.h"

#include <algorithm>
#include <cmath>
#include <fstream>
#include <limits>
#include <nlohmann/json.hpp>
#include <numeric>
#include <stdexcept>

namespace opal::simulate {
namespace {

using nlohmann::json;

constexpr double kMaxSegmentMs = 3600000.0;
constexpr double kMaxSegmentBits = 1e12;

/// Bits of a level from `from` to `to` ms.
double BitsBetween(const std::vector<double>& segments, double segmentMs, double from, double to) {
    double bits = 0.0;
    for (auto i = static_cast<size_t>(from / segmentMs); i < segments.size(); ++i) {
        const double begin = static_cast<double>(i) * segmentMs;
        if (begin >= to)
            break;
        const double overlap = std::min(to, begin + segmentMs) - std::max(from, begin);
        bits += segments[i] * std::max(0.0, overlap) / segmentMs;
    }
    return bits;
}

Film FromJson(const json& in) {
    const auto segmentMs = in.at("segment_duration_ms").get<double>();
    const auto rates = in.at("bitrates_kbps").get<std::vector<double>>();
    const auto sizes = in.at("segment_sizes_bits").get<std::vector<std::vector<double>>>();
    if (!(segmentMs > 0.0 && segmentMs <= kMaxSegmentMs) || rates.empty() || sizes.empty())
        throw std::runtime_error("no segments, no levels, or no segment duration");

    std::vector<size_t> order(rates.size());
    std::iota(order.begin(), order.end(), size_t{0});
    std::sort(order.begin(), order.end(),
              [&rates](size_t left, size_t right) { return rates[left] < rates[right]; });
    const double durationMs = segmentMs * static_cast<double>(sizes.size());
    Film film;
    for (size_t source : order) {
        const double rate = rates[source] * 1000.0;
        if (!(rate >= 1.0 && rate <= std::numeric_limits<int>::max() / 2))
            throw std::runtime_error("a bitrate is out of range");
        std::vector<double> segments;
        for (const auto& segment : sizes) {
            if (segment.size() != rates.size() || !(segment[source] >= 0.0) ||
                segment[source] > kMaxSegmentBits)
                throw std::runtime_error("a segment does not give one sane size for each level");
            segments.push_back(segment[source]);
        }
        Film::Level level;
        level.bitrate = static_cast<int>(rate);
        level.vbv = level.bitrate * 2;
        for (double from = 0.0; from < durationMs; from += Film::kClusterMs) {
            const double bits = BitsBetween(segments, segmentMs, from, from + Film::kClusterMs);
            level.clusterSizes.push_back(std::max(int64_t{1}, int64_t{std::llround(bits / 8.0)}));
        }
        film.levels.push_back(std::move(level));
    }
    return film;
}

}  // namespace

Film ReadFilm(const std::string& path) {
    std::ifstream file(path);
    if (!file)
        throw std::runtime_error(path + ": cannot be opened");
    try {
        return FromJson(json::parse(file));
    } catch (const std::exception& error) {
        throw std::runtime_error(path + ": not a film description: " + error.what());
    }
}

}  // namespace opal::simulate
