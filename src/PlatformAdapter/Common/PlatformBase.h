#pragma once

#include "Common/Mutex.h"
#include "PlatformAdapter/Common/IPlatform.h"
#include "PlatformAdapter/Mstar/HABTypes.h"

/// What the sinks on the television's player share: the session's handles and a lock.
///
/// Threading: m_mutex keeps the operations of one sink apart. It is taken before any lock of the
/// HAB layer.
/// Ownership: neither handle is owned; both outlive the sink.
class PlatformBase : public IPlatform {
  public:
    PlatformBase(HHABARCH hArch, HHABTIMER hTimer);

    OPALError GetTime(uint32_t& ms) override;

  protected:
    using Lock = opal::RecursiveLock;

    static OPALError FromHAB(int result);

    HHABTIMER m_hTimer;
    HHABARCH m_hArch;
    opal::RecursiveMutex m_mutex;
};
