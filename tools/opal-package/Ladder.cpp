#include "opal-package/Ladder.h"

#include <algorithm>
#include <charconv>
#include <cmath>

#include "opal-package/Error.h"

namespace opal::package {
namespace {

constexpr Rung kStandard[] = {{400000, 426, 240},
                              {800000, 640, 360},
                              {1400000, 854, 480},
                              {2800000, 1280, 720},
                              {5000000, 1920, 1080}};

/// More bits a pixel than this buy a small picture nothing that a viewer sees.
constexpr double kUsefulBitsPerPixel = 0.4;
constexpr int kSmallestSide = 16;
constexpr int kLargestSide = 4096;
constexpr double kLargestBitrate = 100e6;

[[noreturn]] void Reject(const std::string& what, const std::string& text) {
    throw PackageError(Failure::Usage, what + " '" + text + "'");
}

int ParseSide(const std::string& text, const std::string& part) {
    int value = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
    if (error != std::errc() || end != text.data() + text.size() || value < kSmallestSide ||
        value > kLargestSide || value % 2 != 0)
        Reject("level with a width or height that is not an even number from 16 to 4096:", part);
    return value;
}

}  // namespace

int ParseBitrate(const std::string& text) {
    double value = 0;
    size_t used = 0;
    try {
        value = std::stod(text, &used);
    } catch (const std::logic_error&) {
        Reject("not a bit rate:", text);
    }
    const std::string unit = text.substr(used);
    value *= unit == "k" || unit == "K" ? 1e3 : unit == "m" || unit == "M" ? 1e6 : 1;
    const bool unitKnown = unit.empty() || unit.find_first_not_of("kKmM") == std::string::npos;
    if (unit.size() > 1 || !unitKnown || !(value >= 1000 && value <= kLargestBitrate))
        Reject("not a bit rate from 1k to 100M:", text);
    return static_cast<int>(std::lround(value));
}

std::vector<Rung> ParseLadder(const std::string& text) {
    std::vector<Rung> ladder;
    size_t begin = 0;
    while (begin <= text.size()) {
        const size_t end = std::min(text.find(',', begin), text.size());
        const std::string part = text.substr(begin, end - begin);
        const size_t colon = part.find(':');
        const size_t cross = part.find('x', colon == std::string::npos ? 0 : colon);
        if (colon == std::string::npos || cross == std::string::npos)
            Reject("levels are written RATE:WIDTHxHEIGHT, separated by commas, not", part);
        Rung rung;
        rung.bitrate = ParseBitrate(part.substr(0, colon));
        rung.width = ParseSide(part.substr(colon + 1, cross - colon - 1), part);
        rung.height = ParseSide(part.substr(cross + 1), part);
        ladder.push_back(rung);
        begin = end + 1;
    }
    std::stable_sort(ladder.begin(), ladder.end(),
                     [](const Rung& a, const Rung& b) { return a.bitrate < b.bitrate; });
    return ladder;
}

std::vector<Rung> DefaultLadder(int sourceWidth, int sourceHeight, double framesPerSecond) {
    const Rung source = Scaled({0, sourceWidth, sourceHeight}, sourceHeight);
    std::vector<Rung> ladder;
    for (const Rung& standard : kStandard) {
        const bool fits = standard.height <= source.height;
        Rung rung = fits ? Scaled(source, standard.height) : source;
        rung.bitrate = standard.bitrate;
        if (!fits && !ladder.empty() && ladder.back().height == source.height) {
            rung.bitrate = ladder.back().bitrate / 2 * 3;
            const double pixelsPerSecond = rung.width * 1.0 * rung.height * framesPerSecond;
            if (rung.bitrate > kUsefulBitsPerPixel * pixelsPerSecond)
                break;
        }
        ladder.push_back(rung);
    }
    return ladder;
}

std::vector<Rung> CutToSource(std::vector<Rung> ladder, int sourceWidth, int sourceHeight) {
    for (Rung& rung : ladder) {
        if (rung.height > sourceHeight || rung.width > sourceWidth) {
            const Rung source = Scaled({0, sourceWidth, sourceHeight}, sourceHeight);
            rung.width = source.width;
            rung.height = source.height;
        }
    }
    return ladder;
}

Rung Scaled(const Rung& rung, int height) {
    Rung scaled = rung;
    scaled.height = std::max(kSmallestSide, height / 2 * 2);
    const double width = static_cast<double>(scaled.height) * rung.width / rung.height;
    scaled.width = std::max(kSmallestSide, static_cast<int>(std::lround(width / 2)) * 2);
    return scaled;
}

int VbvBits(int bitrate) {
    return 2 * bitrate;
}

}  // namespace opal::package
