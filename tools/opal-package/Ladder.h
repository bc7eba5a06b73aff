#pragma once

#include <string>
#include <vector>

namespace opal::package {

/// One level to be encoded. The rate, in bits per second, is the ceiling of the level and what the
/// manifest states.
struct Rung {
    int bitrate = 0;
    int width = 0;
    int height = 0;
};

inline bool operator==(const Rung& a, const Rung& b) {
    return a.bitrate == b.bitrate && a.width == b.width && a.height == b.height;
}

/// Reads "500k:426x240,1000k:640x360,6M:1920x1080" and sorts it by rate. Throws PackageError
/// (Usage) that names the part which does not fit.
std::vector<Rung> ParseLadder(const std::string& text);

/// Reads "128k", "1.5M" or "64000" as bits per second. Throws PackageError (Usage).
int ParseBitrate(const std::string& text);

/// Five levels from 240 lines to 1080 for a picture of the given size (square pixels). A picture of
/// fewer lines is not enlarged: the levels that would be taller take its own size, at rates half as
/// high again each, as long as the rate is of use to such a picture.
std::vector<Rung> DefaultLadder(int sourceWidth, int sourceHeight, double framesPerSecond);

/// Levels larger than the source take the source's size; the rates stay.
std::vector<Rung> CutToSource(std::vector<Rung> ladder, int sourceWidth, int sourceHeight);

/// The size of the rung's shape that has the given height, both made even.
Rung Scaled(const Rung& rung, int height);

/// The buffer that a level of this rate is coded for, in bits: two seconds' worth.
int VbvBits(int bitrate);

}  // namespace opal::package
