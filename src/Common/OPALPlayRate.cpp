#include "Common/OPALPlayRate.h"

#include "Common/Assert.h"

namespace {

/// All that is known of a rate. Log text and name are kept apart: the name goes to diagnostic logs,
/// the text to the uploaded one.
struct RateProperties {
    OPALPlayRate rate;
    /// Signed speed.
    int value;
    /// The enumerator's.
    const char* name;
    /// As the log service spells it.
    const char* logText;
    /// Frames of a trick cluster that are shown ...
    size_t take;
    /// ... and then left out. From 4x on the pictures shown stay about as many a second.
    size_t skip;
};

/// In the order of the enumeration, but not its index: 0 is not a rate.
constexpr RateProperties kRates[] = {
    {OPAL_PLAYRATE_ONEX, 1, "OPAL_PLAYRATE_ONEX", "1x", 1, 0},
    {OPAL_PLAYRATE_TWOXFF, 2, "OPAL_PLAYRATE_TWOXFF", "2x", 1, 0},
    {OPAL_PLAYRATE_TWOXRW, -2, "OPAL_PLAYRATE_TWOXRW", "-2x", 1, 0},
    {OPAL_PLAYRATE_FOURXFF, 4, "OPAL_PLAYRATE_FOURXFF", "4x", 1, 1},
    {OPAL_PLAYRATE_FOURXRW, -4, "OPAL_PLAYRATE_FOURXRW", "-4x", 1, 1},
    {OPAL_PLAYRATE_EIGHTXFF, 8, "OPAL_PLAYRATE_EIGHTXFF", "8x", 1, 3},
    {OPAL_PLAYRATE_EIGHTXRW, -8, "OPAL_PLAYRATE_EIGHTXRW", "-8x", 1, 3},
    {OPAL_PLAYRATE_SIXTEENXFF, 16, "OPAL_PLAYRATE_SIXTEENXFF", "16x", 1, 7},
    {OPAL_PLAYRATE_SIXTEENXRW, -16, "OPAL_PLAYRATE_SIXTEENXRW", "-16x", 1, 7},
    {OPAL_PLAYRATE_THIRTYTWOXFF, 32, "OPAL_PLAYRATE_THIRTYTWOXFF", "32x", 1, 15},
    {OPAL_PLAYRATE_THIRTYTWOXRW, -32, "OPAL_PLAYRATE_THIRTYTWOXRW", "-32x", 1, 15},
};

/// Null for what is not a rate.
const RateProperties* Find(OPALPlayRate rate) {
    for (const RateProperties& properties : kRates) {
        if (properties.rate == rate)
            return &properties;
    }
    return nullptr;
}

}  // namespace

const char* GetRateName(OPALPlayRate rate) {
    const RateProperties* properties = Find(rate);
    return properties ? properties->name : "UNKNOWN";
}

const char* GetRateLogText(OPALPlayRate rate) {
    const RateProperties* properties = Find(rate);
    return properties ? properties->logText : "unknown";
}

bool GetRateFrameStep(OPALPlayRate rate, size_t* take, size_t* skip) {
    const RateProperties* properties = Find(rate);
    if (!properties) {
        *take = 0;
        *skip = 0;
        return false;
    }
    *take = properties->take;
    *skip = properties->skip;
    return true;
}

/// Rates are checked where they come in, so that a wrong one here is a fault of the library's own.
int GetRateValue(OPALPlayRate rate) {
    const RateProperties* properties = Find(rate);
    OPAL_ASSERT(properties != nullptr, "0");
    return properties->value;
}
