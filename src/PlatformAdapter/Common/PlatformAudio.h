#pragma once

#include <string>

#include "PlatformAdapter/Common/PlatformBase.h"

/// The audio sink on the set's player. Position and buffered duration are the video decoder's; rate
/// and pause are known to the video side only.
///
/// Threading: as IPlatform. Queue holds the lock while the player refuses a payload;
/// HABArch_SetClosing ends that.
/// Errors: -7 from Queue while audio is far enough ahead of video; -23 from Configure when the set
/// refuses the codec; -1 before Configure, after Finalize and for any failure below.
class PlatformAudio : public PlatformBase {
  public:
    PlatformAudio(HHABARCH hArch, HHABTIMER hTimer);
    ~PlatformAudio() override;

    OPALError Initialize() override;
    OPALError Finalize() override;
    OPALError Start() override;
    OPALError Queue(void* data, size_t size, int64_t msTimeStamp, int64_t msDuration) override;
    OPALError Flush() override;
    /// 0 even before Configure, unlike the other sinks; deliberate.
    OPALError Stop() override;
    OPALError SetPaused(bool paused) override;
    OPALError GetBlockTrailerSize(size_t& size) override;
    OPALError GetPosition(int64_t& ms) override;
    OPALError GetBufferedDuration(int64_t& ms) override;
    OPALError SetRate(OPALPlayRate rate) override;
    OPALError SetClusterTime(int64_t ms) override;
    OPALError Refresh() override;

    virtual OPALError Configure(const std::string& codecId, uint32_t sampleRate, uint32_t channels,
                                const uint8_t* codecPrivate, size_t codecPrivateSize, bool first);

  private:
    HHABAUDIO m_hStream = nullptr;
    bool m_configured = false;
};
