#pragma once

#include <cstdint>

#include "PlatformAdapter/Mstar/HABPreferences.h"
#include "PlatformAdapter/Mstar/HABTypes.h"

/// The record that the sinks of one session share: how far the player is, and the newest times that
/// went down. The controller makes a fresh one for each session.
///
/// Threading: HABArch_SetClosing from any thread, without a lock, while the record exists; the
/// others from the thread that owns the record.
/// Ownership: the caller of HABArch_New deletes the record, after every object that was given it.
/// Errors: HAB results. A null handle fails an assertion, except in HABArch_SetClosing.

int HABArch_New(HABArch** phHABArch);
int HABArch_Delete(HHABARCH hHABArch);
/// Does nothing, deliberately: this set has nothing to suspend.
int HABArch_suspendExecution(HHABARCH hHABArch, uint32_t ms);
/// Fixed values: this set asks nobody.
int HABArch_GetPreferences(HHABARCH hHABArch, HABPreferences& prefs);
/// Tells everything that waits inside the sinks (a refused payload, a text on the screen) that the
/// session ends. The waits end soon after and count as done. A null handle does nothing.
void HABArch_SetClosing(HHABARCH hHABArch);
