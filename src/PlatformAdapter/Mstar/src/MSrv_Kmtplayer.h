#pragma once

#include <cstdint>

/// Questions that the subtitle window may put to the player. `owner` is not looked at.
/// Request 0: the play position, ms, as one 32-bit value at `a`. Request 1: the picture's width at
/// `a`, its height at `b`. What the player does not know stays as it was. Answers 1 to everything.
int SubtitleCallback(void* owner, int request, uint16_t* a, uint16_t* b);

/// Receives the player service's events; registered while there is a player.
unsigned char IO_Callback(void* instance, void* event, void* item);
