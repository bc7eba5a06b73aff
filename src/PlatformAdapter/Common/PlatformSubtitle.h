#pragma once

#include <atomic>
#include <string>

#include "PlatformAdapter/Common/ISinks.h"
#include "PlatformAdapter/Common/PlatformBase.h"

/// The subtitle sink: a text goes on the screen at its time.
///
/// Threading: as IPlatform. Queue takes no lock, since it blocks for as long as its text shows; so
/// the controller's operations come at any time. Initialize and Finalize while no other runs.
/// Errors: -7 from Queue while the text is early; -1 before Configure, after Finalize and for any
/// failure below.
class PlatformSubtitle : public PlatformBase, public ISubtitleSink {
  public:
    using PlatformBase::PlatformBase;
    ~PlatformSubtitle() override;

    OPALError Initialize() override;
    OPALError Finalize() override;
    OPALError Start() override;
    /// The listener is told of the text once it has left the screen, also of one that was dropped
    /// or cut short.
    OPALError Queue(void* data, size_t size, int64_t msTimeStamp, int64_t msDuration) override;
    OPALError Flush() override;
    OPALError Stop() override;
    OPALError SetPaused(bool paused) override;
    OPALError GetBlockTrailerSize(size_t& size) override;
    /// Always 1, deliberately: this sink has no clock.
    OPALError GetPosition(int64_t& ms) override;
    /// Leaves `ms` as it is, deliberately: nothing is queued ahead.
    OPALError GetBufferedDuration(int64_t& ms) override;
    OPALError SetRate(OPALPlayRate rate) override;
    OPALError SetClusterTime(int64_t ms) override;
    OPALError Refresh() override;

    OPALError Configure(const std::string& codecId, int width, int height, const void* font,
                        size_t fontSize) override;
    void SetNotify(IPlatformSubtitleNotify* notify) override;

  private:
    HHABSUBTITLE m_hStream = nullptr;
    std::atomic<bool> m_configured{false};
    std::atomic<IPlatformSubtitleNotify*> m_pNotify{nullptr};
};
