#pragma once

#include <cstddef>

#include "Common/Export.h"

/// Play rates; FF is forward, RW reverse. 0 is not a rate.
enum OPALPlayRate : int {
    OPAL_PLAYRATE_ONEX = 1,
    OPAL_PLAYRATE_TWOXFF = 2,
    OPAL_PLAYRATE_TWOXRW = 3,
    OPAL_PLAYRATE_FOURXFF = 4,
    OPAL_PLAYRATE_FOURXRW = 5,
    OPAL_PLAYRATE_EIGHTXFF = 6,
    OPAL_PLAYRATE_EIGHTXRW = 7,
    OPAL_PLAYRATE_SIXTEENXFF = 8,
    OPAL_PLAYRATE_SIXTEENXRW = 9,
    OPAL_PLAYRATE_THIRTYTWOXFF = 10,
    OPAL_PLAYRATE_THIRTYTWOXRW = 11
};

/// The signed speed factor: 1, 2, -2 ... 32, -32. Negative means reverse play. Any other value of
/// `rate` is a programming error and fails the assertion "0".
OPAL_EXPORT int GetRateValue(OPALPlayRate rate);

/// The enumerator's name; "UNKNOWN" for anything that is not a rate.
OPAL_EXPORT const char* GetRateName(OPALPlayRate rate);

/// The short text of the uploaded log ("1x", "-2x"); "unknown" for anything that is not a rate.
OPAL_EXPORT const char* GetRateLogText(OPALPlayRate rate);

/// How a trick cluster is thinned at `rate`: take `*take` frames, then skip `*skip`. False, with
/// both 0, for anything that is not a rate.
OPAL_EXPORT bool GetRateFrameStep(OPALPlayRate rate, size_t* take, size_t* skip);
