#pragma once

#include <string>

#include "PlatformAdapter/Common/ISinks.h"
#include "PlatformAdapter/Common/PlatformStream.h"

/// The video sink on the television's player. Its position is the session's.
///
/// Threading: as PlatformStream. Flush takes 1.5 s.
/// Errors: also -7 from Queue while the decoder has enough.
class PlatformVideo : public opal::PlatformStream<HHABVIDEO>, public IVideoSink {
  public:
    using PlatformStream::PlatformStream;

    OPALError Queue(void* data, size_t size, int64_t msTimeStamp, int64_t msDuration) override;
    OPALError SetPaused(bool paused) override;
    OPALError SetRate(OPALPlayRate rate) override;
    OPALError SetClusterTime(int64_t ms) override;

    OPALError Configure(const std::string& codecId, int width, int height, int64_t bitrate,
                        const void* codecPrivate, size_t codecPrivateSize, bool first) override;
};
