#pragma once

#include "PlatformAdapter/Mstar/HABTypes.h"
#include "PlatformAdapter/Mstar/KMTPlayer.h"

namespace opal {

/// Pushes until the player takes the payload, one try a second without limit, or until `hArch` is
/// closing. True if it was taken.
bool PushUntilTaken(HHABARCH hArch, KMTPLAYER_DATA_INFO& info);

}  // namespace opal
