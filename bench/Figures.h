#pragma once

#include <algorithm>
#include <cstdio>
#include <string>
#include <vector>

namespace opal::bench {

/// One figure of the library beside its peer's, as `./dev bench` prints it.
struct Figure {
    std::string name;
    double ours = 0;
    std::string peer;
    double theirs = 0;
    const char* unit = "ms";
    enum class Bound { None, AtMost, AtLeast } bound = Bound::None;  ///< of ours to theirs
    double limit = 0;

    double Ratio() const { return ours / theirs; }
    bool Holds() const {
        return bound == Bound::None || (bound == Bound::AtMost && Ratio() <= limit) ||
               (bound == Bound::AtLeast && Ratio() >= limit);
    }
};

inline double Median(std::vector<double> values) {
    std::sort(values.begin(), values.end());
    return values[values.size() / 2];
}

/// Name, what is known, the bound if there is one, and whether it holds. Returns the last.
inline bool PrintVerdict(const std::string& name, const std::string& facts,
                         const std::string& bound, bool holds) {
    std::printf("%-34s %s", name.c_str(), facts.c_str());
    if (!bound.empty())
        std::printf(", %s: %s", bound.c_str(), holds ? "ok" : "MISSED");
    std::printf("\n");
    std::fflush(stdout);
    return holds;
}

inline bool Print(const Figure& figure) {
    char facts[160], bound[40] = "";
    std::snprintf(facts, sizeof(facts), "%9.2f %s, %-11s %9.2f %s, ratio %.2f", figure.ours,
                  figure.unit, figure.peer.c_str(), figure.theirs, figure.unit, figure.Ratio());
    if (figure.bound != Figure::Bound::None)
        std::snprintf(bound, sizeof(bound), "%s %.2f",
                      figure.bound == Figure::Bound::AtMost ? "at most" : "at least", figure.limit);
    return PrintVerdict(figure.name, facts, bound, figure.Holds());
}

}  // namespace opal::bench
