#pragma once

#include <string>

#include "Common/OPALPlayRate.h"

namespace opal::play {

/// "4x" of a rate; "?" for anything that is none.
std::string RateText(OPALPlayRate rate);
/// The signed speed; 0 for anything that is no rate.
int RateSpeed(OPALPlayRate rate);
/// Of "4x", "4" or "-8x". False if there is no such rate.
bool ParseRate(const std::string& text, OPALPlayRate& rate);
/// One step along -32x ... -2x, 1x, 2x ... 32x; the ends stay.
OPALPlayRate NextRate(OPALPlayRate rate, bool faster);

}  // namespace opal::play
