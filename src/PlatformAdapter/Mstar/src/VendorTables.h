#pragma once

/// The vendor's numbering of languages and time zones, for set software that needs it; nothing in
/// this library reads it.
namespace opal {

struct VendorLanguage {
    const char* code;  ///< ISO 639-2
    const char* name;
    int index;
};
constexpr int kVendorLanguageCount = 15;
extern const VendorLanguage kVendorLanguages[kVendorLanguageCount];

/// Several rows share a number or a name; the vendor's order and spelling are kept.
struct VendorTimeZone {
    int zone;
    const char* name;
};
constexpr int kVendorTimeZoneCount = 105;
extern const VendorTimeZone kVendorTimeZones[kVendorTimeZoneCount];

}  // namespace opal
