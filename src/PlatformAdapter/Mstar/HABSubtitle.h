#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

#include "PlatformAdapter/Mstar/HABTypes.h"

/// Puts texts on the screen and takes them down again, by the video decoder's clock. A text is
/// early, due, showing, then gone; one that is late gets one more try and is dropped. One that a
/// pause cuts short stays on the screen until a later text finds its end passed, or a flush.
///
/// Threading: any thread. Queue blocks without a lock for as long as its text shows; the end of the
/// session, a pause of the player and HABSubtitle_Pause end that at once. A flush clears the
/// window meanwhile, but does not end it.
/// Ownership: the caller of HABSubtitle_New deletes the object; arch is not owned and outlives it.
/// The font is copied. There is one subtitle window, so one object at a time is of use.
/// Units: milliseconds; bytes of UTF-8.
/// Errors: HAB results. HAB_AUDIO_FULL from Queue: the text is early, present it again. HAB_FAIL
/// from Configure: the font cannot be used.

/// Throws std::bad_alloc.
int HABSubtitle_New(HABSubtitle** phHABSubtitle, HHABARCH hArch, HHABTIMER hTimer);
int HABSubtitle_Delete(HHABSUBTITLE hHABSubtitle);
/// Opens the window and reads the font. The picture's size is not looked at: the window has its
/// own.
int HABSubtitle_Configure(HHABSUBTITLE hHABSubtitle, const std::string& codecId, int width,
                          int height, const void* fontData, size_t fontSize);
int HABSubtitle_Queue(HHABSUBTITLE hHABSubtitle, void* pSubtitleData, size_t dataSize,
                      uint32_t timestamp, uint64_t duration);
int HABSubtitle_Flush(HHABSUBTITLE hHABSubtitle);
int HABSubtitle_Pause(HHABSUBTITLE hHABSubtitle, uint8_t paused);
/// Does nothing, deliberately: this television keeps what it shows.
int HABSubtitle_Refresh(HHABSUBTITLE hHABSubtitle);
