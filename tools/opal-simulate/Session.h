#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "opal-simulate/Film.h"
#include "opal-simulate/LevelRule.h"
#include "opal-simulate/Link.h"

namespace opal::simulate {

class SessionRecorder;

/// What came of a session.
struct Result {
    std::string trace;
    double startupMs = 0.0;  ///< from the start of initialisation to playing
    double playMs = 0.0;     ///< media time played
    double stallMs = 0.0;    ///< time waited after playback had started
    int stalls = 0;
    double bitrateSum = 0.0;  ///< of the levels of the clusters played
    int clusters = 0;         ///< clusters played
    std::vector<int> levels;  ///< of the clusters fetched and kept, in order
    int switches = 0;
    int stepSum = 0;    ///< levels moved, over all switches
    int64_t bytes = 0;  ///< downloaded, clusters fetched again included
    int refetches = 0;  ///< clusters fetched again because the buffer's duration was full
    int abandoned = 0;  ///< transfers given up for a lower level
    int64_t decisions = 0;
    double decisionNs = 0.0;  ///< time spent deciding
    bool finished = false;    ///< played to the end, in time and without a failure

    double MeanKbps() const { return clusters == 0 ? 0.0 : bitrateSum / clusters / 1000.0; }
    double StallShare() const {
        return playMs + stallMs <= 0.0 ? 0.0 : stallMs / (playMs + stallMs);
    }
    double MeanStep() const {
        return switches == 0 ? 0.0 : static_cast<double>(stepSum) / switches;
    }
};

/// Told of each decision: session time, ms; cluster the level was chosen for; level.
using DecisionListener = std::function<void(double, size_t, int)>;

struct PlayOptions {
    /// Session time after which a session that stands still is given up.
    double limitMs = 0.0;
    DecisionListener listener = nullptr;
    RuleName rule = RuleName::BuiltIn;
    double bolaBufferMs = 25000.0;  ///< what BOLA-E buffers at most
    SessionRecorder* recorder = nullptr;
};

/// Plays a film over a trace in virtual time: the real switching code and the real probe, under the
/// rules of readers and event loop (StreamSwitchingAlgorithm/PlaybackRules.h). A turn of the loop
/// handles one message; a cluster that meets a full buffer is fetched again; a transfer that takes
/// longer than the transport's time-out ends the session.
///
/// Threading: sessions may run side by side, one a thread, under a SimulatedClock. The tunables are
/// the process's.
Result Play(const Film& film, const Trace& trace, const PlayOptions& options);

}  // namespace opal::simulate
