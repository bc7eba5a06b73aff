#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

#include "recording/SessionRecords.h"

namespace opal::simulate {

/// A question of a recorded session to its switching controller, and both answers.
struct Replayed {
    SwitchingCallEvent::Kind kind = SwitchingCallEvent::Kind::GetCurrentLevel;
    int64_t timeUs = 0;
    int64_t then = 0;
    int64_t now = 0;

    bool IsLevel() const { return kind == SwitchingCallEvent::Kind::GetCurrentLevel; }
    bool Differs() const { return then != now; }
};

/// Feeds the calls of a recording to a new switching controller, each at its time, and asks what
/// the session asked. Needs a SimulatedClock in force, and the tunables that were in force then.
///
/// Errors: throws std::runtime_error for records that no session can have made, and for a session
/// of more than 64 levels.
std::vector<Replayed> Replay(const std::vector<recording::Record>& records);

}  // namespace opal::simulate
