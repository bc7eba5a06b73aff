#pragma once

#include <string>

#include "PlatformAdapter/Common/PlatformBase.h"

/// The video sink on the set's player: refuses what comes before configuration, keeps calls apart,
/// and turns HAB results into OPALError. Its position is the session's.
///
/// Threading: as IPlatform. Queue holds the lock while the player refuses a payload, so that a
/// position query waits meanwhile; HABArch_SetClosing ends that. Flush takes 1.5 s.
/// Errors: -7 from Queue while the decoder has enough; -1 before Configure, after Finalize and for
/// any failure below.
class PlatformVideo : public PlatformBase {
  public:
    PlatformVideo(HHABARCH hArch, HHABTIMER hTimer);
    ~PlatformVideo() override;

    OPALError Initialize() override;
    OPALError Finalize() override;
    OPALError Start() override;
    OPALError Queue(void* data, size_t size, int64_t msTimeStamp, int64_t msDuration) override;
    OPALError Flush() override;
    OPALError Stop() override;
    OPALError SetPaused(bool paused) override;
    OPALError GetBlockTrailerSize(size_t& size) override;
    OPALError GetPosition(int64_t& ms) override;
    OPALError GetBufferedDuration(int64_t& ms) override;
    OPALError SetRate(OPALPlayRate rate) override;
    OPALError SetClusterTime(int64_t ms) override;
    OPALError Refresh() override;

    virtual OPALError Configure(const std::string& codecId, int width, int height, int64_t bitrate,
                                const void* codecPrivate, size_t codecPrivateSize, bool first);

  private:
    HHABVIDEO m_hStream = nullptr;
    bool m_configured = false;
};
