#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

#include "Common/OPALError.h"

class IPlatformSubtitleNotify;

/// What a sink of one kind has beside IPlatform: the operation that makes it ready for a stream.
/// Every sink of that kind is both.
///
/// Threading: the controller's threads, one call at a time.
/// Ownership: data is copied where the sink needs it longer than the call.
/// Errors: -1 when the player fails; an audio sink -23 when the player refuses the codec.
class IVideoSink {
  public:
    virtual ~IVideoSink() = default;
    /// The bit-rate is in bits per second.
    virtual OPALError Configure(const std::string& codecId, int width, int height, int64_t bitrate,
                                const void* codecPrivate, size_t codecPrivateSize, bool first) = 0;
};

class IAudioSink {
  public:
    virtual ~IAudioSink() = default;
    /// The sample rate is in hertz.
    virtual OPALError Configure(const std::string& codecId, uint32_t sampleRate, uint32_t channels,
                                const uint8_t* codecPrivate, size_t codecPrivateSize,
                                bool first) = 0;
};

class ISubtitleSink {
  public:
    virtual ~ISubtitleSink() = default;
    /// The font is copied.
    virtual OPALError Configure(const std::string& codecId, int width, int height, const void* font,
                                size_t fontSize) = 0;
    /// Told of each text that has been shown; not owned, null for nobody.
    virtual void SetNotify(IPlatformSubtitleNotify* notify) = 0;
};
