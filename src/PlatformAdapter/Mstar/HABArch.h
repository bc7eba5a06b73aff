#pragma once

#include <cstdint>

#include "PlatformAdapter/Mstar/HABPreferences.h"
#include "PlatformAdapter/Mstar/HABTypes.h"

namespace opal {
class StopSignal;
}

/// The record that the sinks of one session share: how far the player is, and the newest times that
/// went down. The controller makes a fresh one for each session.
///
/// Threading: HABArch_IsClosing from any thread, without a lock, while the record exists; the
/// others from the thread that owns the record.
/// Ownership: the caller of HABArch_New deletes the record, after every object that was given it.
/// Errors: HAB results. A null handle fails an assertion, except in HABArch_SetStopSignal.

/// Throws std::bad_alloc.
int HABArch_New(HABArch** phHABArch);
int HABArch_Delete(HHABARCH hHABArch);
/// Does nothing, deliberately: this television has nothing to suspend.
int HABArch_suspendExecution(HHABARCH hHABArch, uint32_t ms);
/// Fixed values: this television asks nobody.
int HABArch_GetPreferences(HHABARCH hHABArch, HABPreferences& prefs);
/// The session's signal, which outlives the record; null for none. Everything that waits inside the
/// sinks (a refused payload, a text on the screen, a flush) looks at the signal and ends its wait
/// soon after the signal is raised; such a wait counts as done. A null handle does nothing.
void HABArch_SetStopSignal(HHABARCH hHABArch, const opal::StopSignal* signal);
/// The video object is being deleted, or the session's signal is raised.
bool HABArch_IsClosing(HHABARCH hHABArch);
/// Sleeps by the library's clock. False as soon as HABArch_IsClosing holds.
bool HABArch_SleepMs(HHABARCH hHABArch, int64_t ms);
