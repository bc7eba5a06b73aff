#include "Common/OPALPlayRate.h"

#include "Common/Assert.h"

namespace {

struct RateProperties {
    OPALPlayRate rate;
    int value;
    const char* name;
    const char* logText;
    size_t take;
    size_t skip;
};

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

const RateProperties* Find(OPALPlayRate rate) {
    for (const RateProperties& properties : kRates) {
        if (properties.rate == rate)
            return &properties;
    }
    return nullptr;
}

}  // namespace

int GetRateValue(OPALPlayRate rate) {
    const RateProperties* properties = Find(rate);
    OPAL_ASSERT(properties != nullptr, "0");
    return properties->value;
}

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
    *take = properties ? properties->take : 0;
    *skip = properties ? properties->skip : 0;
    return properties != nullptr;
}
