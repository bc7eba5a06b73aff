#pragma once

/// Handles of the platform runtime.
struct HABArch;
struct HABTimer;
struct HABVideo;
struct HABAudio;
struct HABSubtitle;

typedef HABArch* HHABARCH;
typedef HABTimer* HHABTIMER;
typedef HABVideo* HHABVIDEO;
typedef HABAudio* HHABAUDIO;
typedef HABSubtitle* HHABSUBTITLE;

/// Results of the HAB layer; they never leave the platform adapter.
enum : int {
    HAB_OK = 0,
    HAB_AUDIO_FULL = 17,  ///< also: a text is early
    HAB_AUDIO_UNSUPPORTED = 18,
    HAB_FAIL = 161,
    HAB_VIDEO_FULL = 165
};

/// Kind of the session's shared timer.
constexpr int kSessionTimerKind = 4097;
