#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace opal::origin {

constexpr int64_t kUnlimited = -1;

/// The rate of the link over time: steps of constant rate, for ever or in a loop. A plain value.
///
/// Units: bits per second (0 cuts the link, kUnlimited sets no limit), milliseconds.
struct RateScript {
    struct Step {
        int64_t atMs = 0;  ///< from the script's first moment on; strictly rising, the first is 0
        int64_t bitsPerSecond = kUnlimited;
        int64_t latencyMs = 0;  ///< added to each request's latency
    };

    std::vector<Step> steps;  ///< empty: no limit
    int64_t loopMs = 0;       ///< the script starts anew after this time; 0: the last step stays

    static RateScript Constant(int64_t bitsPerSecond);

    /// "0 6000k, 20 1000k, 60 8000k": seconds and rate (see ParseRate), separated by commas. The
    /// first step's rate holds from 0 on. False with a text for people if it is not so.
    static bool FromText(const std::string& text, RateScript* pScript, std::string* pError);

    /// A bandwidth trace: array of {"duration_ms", "bandwidth_kbps", "latency_ms" (optional)},
    /// looping. False with a text for people if it is not so.
    static bool FromTrace(const std::string& json, RateScript* pScript, std::string* pError);
};

/// "800", "6000k", "6M", "2.5M", "1G" (bits per second, powers of 1000), "unlimited", "0".
bool ParseRate(const std::string& text, int64_t* pBitsPerSecond);

}  // namespace opal::origin
