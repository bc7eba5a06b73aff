#include "opal-play/Rates.h"

#include <cstddef>
#include <iterator>

namespace opal::play {
namespace {

struct Row {
    int speed;
    OPALPlayRate rate;
};

// From fastest reverse to fastest forward.
constexpr Row kRates[] = {
    {-32, OPAL_PLAYRATE_THIRTYTWOXRW}, {-16, OPAL_PLAYRATE_SIXTEENXRW},
    {-8, OPAL_PLAYRATE_EIGHTXRW},      {-4, OPAL_PLAYRATE_FOURXRW},
    {-2, OPAL_PLAYRATE_TWOXRW},        {1, OPAL_PLAYRATE_ONEX},
    {2, OPAL_PLAYRATE_TWOXFF},         {4, OPAL_PLAYRATE_FOURXFF},
    {8, OPAL_PLAYRATE_EIGHTXFF},       {16, OPAL_PLAYRATE_SIXTEENXFF},
    {32, OPAL_PLAYRATE_THIRTYTWOXFF},
};

}  // namespace

std::string RateText(OPALPlayRate rate) {
    const int speed = RateSpeed(rate);
    return speed == 0 ? "?" : std::to_string(speed) + "x";
}

int RateSpeed(OPALPlayRate rate) {
    for (const Row& row : kRates) {
        if (row.rate == rate)
            return row.speed;
    }
    return 0;
}

bool ParseRate(const std::string& text, OPALPlayRate& rate) {
    for (const Row& row : kRates) {
        const std::string speed = std::to_string(row.speed);
        if (text == speed || text == speed + "x") {
            rate = row.rate;
            return true;
        }
    }
    return false;
}

OPALPlayRate NextRate(OPALPlayRate rate, bool faster) {
    constexpr size_t kCount = std::size(kRates);
    for (size_t i = 0; i < kCount; ++i) {
        if (kRates[i].rate != rate)
            continue;
        if (faster)
            return kRates[i + 1 < kCount ? i + 1 : i].rate;
        return kRates[i > 0 ? i - 1 : i].rate;
    }
    return OPAL_PLAYRATE_ONEX;
}

}  // namespace opal::play
