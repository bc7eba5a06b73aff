#pragma once

#include <cstddef>
#include <string>
#include <vector>

#include "opal-simulate/Session.h"

namespace opal::simulate {

/// Sessions taken together.
struct Summary {
    size_t sessions = 0;
    size_t unfinished = 0;
    double stallsPerHour = 0.0;    ///< of play
    double stallShare = 0.0;       ///< time stalled of all time after the start
    double stalledSessions = 0.0;  ///< share of the sessions that stalled at all
    double meanKbps = 0.0;
    double switchesPerMinute = 0.0;
    double meanStep = 0.0;
    double startupMs = 0.0;
    double decisionUs = 0.0;  ///< time of one decision
};

struct Trial {
    std::string tunables;
    Summary summary;
};

Summary Summarise(const std::vector<Result>& results);

/// A line a trace, the distribution over the traces, and the sums. `seconds`: what it took.
void PrintTable(const std::vector<Result>& results, double seconds);
void PrintCsv(const std::vector<Result>& results);
void PrintJson(const std::vector<Result>& results, const std::string& tunables, double seconds);
/// A session's figures.
std::string ToJsonText(const Result& result);
/// One line for one session, written out at once.
void PrintJsonLine(const Result& result, const std::string& rule, const std::string& tunables);
/// The best `count`: least time stalled, then the higher bitrate, then the smaller steps. Bitrates
/// within 1 % and stall shares within 0.01 points count as equal.
void PrintTrials(std::vector<Trial> trials, size_t count);

}  // namespace opal::simulate
