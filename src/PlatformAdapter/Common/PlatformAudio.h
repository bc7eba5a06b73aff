#pragma once

#include <string>

#include "PlatformAdapter/Common/ISinks.h"
#include "PlatformAdapter/Common/PlatformStream.h"

/// The audio sink on the television's player. Position and buffered duration are the video
/// decoder's; rate and pause are known to the video side only.
///
/// Threading: as PlatformStream.
/// Errors: also -7 from Queue while audio is far enough ahead of video, and -23 from Configure when
/// the player refuses the codec.
class PlatformAudio : public opal::PlatformStream<HHABAUDIO>, public IAudioSink {
  public:
    using PlatformStream::PlatformStream;

    OPALError Queue(void* data, size_t size, int64_t msTimeStamp, int64_t msDuration) override;
    /// 0 even before Configure, unlike the other sinks; deliberate.
    OPALError Stop() override;
    OPALError SetRate(OPALPlayRate rate) override;
    OPALError SetClusterTime(int64_t ms) override;

    OPALError Configure(const std::string& codecId, uint32_t sampleRate, uint32_t channels,
                        const uint8_t* codecPrivate, size_t codecPrivateSize, bool first) override;
};
