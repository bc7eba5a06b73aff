#pragma once

#include <cstdint>
#include <string>
#include <variant>
#include <vector>

#include "Common/SessionEvents.h"

/// A recording as records: the library's events and what tools add to them (docs/RECORDING.md).
namespace opal::recording {

constexpr int kVersion = 1;

struct Header {
    int version = kVersion;
    std::string tool;
    std::string library;
    int64_t startUs = 0;
    std::string source;
    bool simulated = false;
    std::string settings;  ///< text of the settings file in force
};

/// The television's own counts since the session began; once a second.
struct PlayerEvent : SessionEvent {
    int64_t shown = 0;
    int64_t dropped = 0;
    int64_t decoded = 0;
    int64_t errors = 0;
    int64_t audioMs = 0;
    int64_t queuedVideo = 0;
    int64_t queuedAudio = 0;
};

/// From here on the link has this rate. -1: no limit.
struct LinkEvent : SessionEvent {
    int64_t bitsPerSecond = 0;
};

struct DroppedEvent : SessionEvent {
    int64_t total = 0;
};

struct EndEvent : SessionEvent {
    int exitCode = 0;
    std::string summary;  ///< text, or JSON's text
};

using Record =
    std::variant<RequestEvent, DecisionEvent, SwitchingCallEvent, LevelIndexEvent, BufferEvent,
                 StateEvent, SinkEvent, PlayerEvent, LinkEvent, DroppedEvent, EndEvent>;

}  // namespace opal::recording
