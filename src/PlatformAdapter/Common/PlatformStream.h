#pragma once

#include "PlatformAdapter/Common/PlatformBase.h"

namespace opal {

/// What the video and the audio sink share: an object of the HAB layer, known by its handle, behind
/// the sink's lock. It refuses what comes before configuration, keeps calls apart, and turns HAB
/// results into OPALError.
///
/// Threading: as IPlatform. Queue holds the lock while the player refuses a payload, so that a
/// position query waits meanwhile; the stop signal of the session ends that.
/// Errors: -1 before Configure, after Finalize and for any failure below.
template <typename Handle>
class PlatformStream : public PlatformBase {
  public:
    using PlatformBase::PlatformBase;
    ~PlatformStream() override;

    OPALError Initialize() override;
    OPALError Finalize() override;
    OPALError Start() override;
    OPALError Flush() override;
    OPALError Stop() override;
    OPALError SetPaused(bool paused) override;
    OPALError GetBlockTrailerSize(size_t& size) override;
    OPALError GetPosition(int64_t& ms) override;
    OPALError GetBufferedDuration(int64_t& ms) override;
    OPALError Refresh() override;

  protected:
    Handle m_hStream OPAL_GUARDED_BY(PlatformBase::m_mutex) = nullptr;
    bool m_configured OPAL_GUARDED_BY(PlatformBase::m_mutex) = false;
};

extern template class PlatformStream<HHABVIDEO>;
extern template class PlatformStream<HHABAUDIO>;

}  // namespace opal
