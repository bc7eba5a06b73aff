#pragma once

#include <cstdint>
#include <string>

#include "Common/MemoryBuffer.h"

/// What the header of an audio file says of its one track.
struct AudioStreamInfo {
    int32_t samplingFrequency = 0;  ///< Hz
    uint32_t channels = 0;
    std::string codecID;
    qutl::MemoryBuffer<unsigned char> codecPrivate;
};
