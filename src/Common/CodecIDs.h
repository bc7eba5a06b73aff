#pragma once

#include <string>

/// Codec identifiers as media files spell them.
extern const std::string AUDIOCODECID_MP3;         ///< "A_MPEG/L3"
extern const std::string AUDIOCODECID_AAC;         ///< "A_AAC"
extern const std::string AUDIOCODECID_DTS;         ///< "A_DTS"
extern const std::string AUDIOCODECID_AC3;         ///< "A_AC3"
extern const std::string AUDIOCODECID_EAC3;        ///< "A_EAC3"
extern const std::string AUDIOCODECID_DTSEXPRESS;  ///< "A_DTS/EXPRESS"
extern const std::string VIDEOCODECID_AVC;         ///< "V_MPEG4/ISO/AVC", assumed for all video
extern const std::string SUBTITLECODECID_UTF8;     ///< "S_TEXT/UTF8", assumed for all subtitles

/// Property file of the diagnostic loggers, relative to the working directory.
extern const std::string LOGGER_PROPERTY_FILE;  ///< "log4cxx.properties"
