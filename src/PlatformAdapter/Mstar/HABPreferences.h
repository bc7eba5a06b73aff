#pragma once

#include <string>

/// Preferences of the platform runtime, as it answers them; the meaning of the flags is the
/// television's.
struct HABPreferences {
    bool flag1 = false;
    bool flag2 = false;
    bool flag3 = false;
    std::string subtitleLanguage;
    bool subtitleFlag = false;
    std::string audioLanguage;
    bool audioFlag = false;
    std::string audioCodec;
};
