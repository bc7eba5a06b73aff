#pragma once

#include <cstdint>
#include <string>

#include "Common/MemoryBuffer.h"

/// Version of the library.
struct OPALVersion {
    uint32_t major;
    uint32_t minor;
    uint32_t revision;
    uint32_t build;
};

/// Bits per second, pixels.
struct VideoLevelInfo {
    uint32_t bitrate = 0;
    uint32_t width = 0;
    uint32_t height = 0;
    std::string codecID;
};

/// Bits per second, Hz. Frequency, channels and private data are known once the track was opened.
struct AudioTrackInfo {
    int32_t reservedBandwidth = 0;
    int32_t samplingFrequency = 0;
    uint32_t channels = 0;
    std::string mimeType;
    std::string language;
    qutl::MemoryBuffer<unsigned char> codecPrivate;
};

struct SubtitleTrackInfo {
    int32_t reservedBandwidth = 0;
    std::string mimeType;
    std::string language;
};

/// One side of a level change: pixels, bits per second.
struct VideoLevelChange {
    uint32_t index = 0;
    uint32_t width = 0;
    uint32_t height = 0;
    uint32_t bitrate = 0;
};
