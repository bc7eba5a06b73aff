#include "recording/SessionNames.h"

#include <cstddef>

namespace opal::recording {
namespace {

// Each in the order of its enumeration.
constexpr const char* kPurposes[] = {"size", "header", "cluster", "manifest", "probe", "other"};
constexpr const char* kEnds[] = {"complete", "failed", "jump", "slow-transfer", "closing"};
constexpr const char* kRules[] = {
    "start",   "quick-start",    "bandwidth-kept", "bandwidth-up", "bandwidth-down",
    "waiting", "exploring-kept", "exploring-up",   "buffer-low",   "buffer-spent",
    "restart", "cycle",          "no-rates",       "slow-transfer"};
constexpr const char* kCalls[] = {
    "set-levels", "set-bandwidth", "set-startup-time",  "set-audio-bitrate", "set-cluster-indexes",
    "download",   "restart",       "get-current-level", "is-video-buffered", "get-excess-buffer"};
constexpr const char* kStates[] = {
    "opening",        "opened",       "playing",       "paused",       "underflow",
    "seek",           "rate",         "rate-wanted",   "level",        "audio-track",
    "subtitle-track", "subtitle",     "end-of-stream", "stopped",      "error",
    "closed",         "pause-wanted", "play-wanted",   "media-failed", "cluster-damaged"};
constexpr const char* kStreams[] = {"video", "audio", "subtitle", "trick", "none"};
constexpr const char* kRates[] = {nullptr, "1x",  "2x",  "-2x",  "4x",  "-4x",
                                  "8x",    "-8x", "16x", "-16x", "32x", "-32x"};

template <class Enum, size_t N>
const char* Find(const char* const (&names)[N], Enum value) {
    const auto index = static_cast<size_t>(value);  // a negative value is far outside
    return index < N ? names[index] : nullptr;
}

template <class Enum, size_t N>
bool Find(const char* const (&names)[N], std::string_view name, Enum* value) {
    for (size_t i = 0; i < N; ++i) {
        if (names[i] && name == names[i]) {
            *value = static_cast<Enum>(i);
            return true;
        }
    }
    return false;
}

}  // namespace

const char* Name(RequestPurpose value) {
    return Find(kPurposes, value);
}
const char* Name(RequestEnd value) {
    return Find(kEnds, value);
}
const char* Name(SwitchingRule value) {
    return Find(kRules, value);
}
const char* Name(SwitchingCallEvent::Kind value) {
    return Find(kCalls, value);
}
const char* Name(SessionState value) {
    return Find(kStates, value);
}
const char* Name(OPALStreamType value) {
    return Find(kStreams, value);
}
const char* Name(OPALPlayRate value) {
    return Find(kRates, value);
}

bool FromName(std::string_view name, RequestPurpose* value) {
    return Find(kPurposes, name, value);
}
bool FromName(std::string_view name, RequestEnd* value) {
    return Find(kEnds, name, value);
}
bool FromName(std::string_view name, SwitchingRule* value) {
    return Find(kRules, name, value);
}
bool FromName(std::string_view name, SwitchingCallEvent::Kind* value) {
    return Find(kCalls, name, value);
}
bool FromName(std::string_view name, SessionState* value) {
    return Find(kStates, name, value);
}
bool FromName(std::string_view name, OPALStreamType* value) {
    return Find(kStreams, name, value);
}
bool FromName(std::string_view name, OPALPlayRate* value) {
    return Find(kRates, name, value);
}

}  // namespace opal::recording
