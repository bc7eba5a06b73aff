#pragma once

#include <cstdint>

#include "PlatformAdapter/Mstar/HABTypes.h"

/// The session's shared time: a value that the controller sets at a seek and that never advances by
/// itself.
///
/// Threading: reading and setting from any thread.
/// Ownership: the caller of HABTimer_New deletes it, after every object that was given it.
/// Units: milliseconds.
/// Errors: HAB_FAIL for a null handle in HABTimer_SetTime and HABTimer_GetTime.

/// Throws std::bad_alloc.
int HABTimer_New(HHABTIMER* out, HHABARCH hHABArch, int kind);
int HABTimer_Delete(HHABTIMER hHABTimer);
int HABTimer_SetTime(HHABTIMER hHABTimer, uint32_t ms);
int HABTimer_GetTime(HHABTIMER hHABTimer, uint32_t* ms);

/// Start, Stop and GetState do nothing and answer 0, deliberately: they stand for sets whose timer
/// runs. GetState leaves `*state` unwritten, so a caller initialises it.
int HABTimer_Start(HHABTIMER hHABTimer);
int HABTimer_Stop(HHABTIMER hHABTimer);
int HABTimer_GetState(HHABTIMER hHABTimer, uint32_t* state);

/// States of a timer that runs, for sets that have one.
constexpr uint32_t kTimerRunning = 8193;
constexpr uint32_t kTimerStopped = 8194;
