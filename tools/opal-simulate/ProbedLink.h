#pragma once

#include <cstdint>

#include "Common/SessionEvents.h"

namespace opal::simulate {

/// A simulated session as the library's bandwidth probe sees it: the file of the lowest level.
///
/// Threading: each thread has a link of its own, or none.
class ProbedLink {
  public:
    /// Where probes of this thread measure from now on; null: nowhere. What it points to stays
    /// until another one is set.
    static void SetCurrent(ProbedLink* link);

    /// Lets a transfer of `bytes` run to its end with nothing else going on. False when the session
    /// gave up on it.
    virtual bool TransferAlone(const RequestLabel& label, double bytes) = 0;
    virtual int64_t FileSize() const = 0;

  protected:
    ~ProbedLink() = default;
};

}  // namespace opal::simulate
