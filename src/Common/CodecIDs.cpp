#include "Common/CodecIDs.h"

const std::string AUDIOCODECID_MP3 = "A_MPEG/L3";
const std::string AUDIOCODECID_AAC = "A_AAC";
const std::string AUDIOCODECID_DTS = "A_DTS";
const std::string AUDIOCODECID_AC3 = "A_AC3";
const std::string AUDIOCODECID_EAC3 = "A_EAC3";
const std::string AUDIOCODECID_DTSEXPRESS = "A_DTS/EXPRESS";
const std::string VIDEOCODECID_AVC = "V_MPEG4/ISO/AVC";
const std::string SUBTITLECODECID_UTF8 = "S_TEXT/UTF8";
const std::string LOGGER_PROPERTY_FILE = "log4cxx.properties";
