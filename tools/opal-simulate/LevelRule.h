#pragma once

#include <boost/scoped_ptr.hpp>
#include <boost/shared_ptr.hpp>
#include <functional>
#include <memory>
#include <optional>
#include <vector>

#include "Common/SessionEvents.h"
#include "StreamSwitchingAlgorithm/AbandonRule.h"
#include "StreamSwitchingAlgorithm/IStreamSwitchingController.h"
#include "opal-simulate/BolaRule.h"
#include "opal-simulate/Film.h"

namespace opal::simulate {

/// What decides levels in a session: the library's switching code, or another rule to compare it
/// with.
///
/// Threading: none; one a session. Units: milliseconds, bytes, bits per second.
class LevelRule {
  public:
    using Transfer = playback::AbandonRule::Transfer;
    using Sizes = std::vector<int64_t>;  ///< of one cluster on each level

    virtual ~LevelRule() = default;
    /// The level to start on. `probe` measures the link, and reports through OnProbe.
    virtual size_t ChooseStart(const std::function<bool()>& probe,
                               const std::function<int64_t()>& elapsedMs) = 0;
    virtual void OnProbe(int bandwidth) = 0;
    virtual void OnDownload(OPALStreamType type, const StreamSwitchingNotify::Message& sample) = 0;
    virtual void OnUnderflow() = 0;

    struct Choice {
        size_t level = 0;
        double waitMs = 0.0;  ///< before the transfer begins
    };
    /// Where the next video cluster comes from; none: from where the last one did.
    virtual std::optional<Choice> Choose(bool playing, int64_t bufferedMs) = 0;
    virtual bool IsReadyToPlay(int64_t bufferedMs, bool videoAtEnd) = 0;
    /// The duration limit of the video buffer; 0 or less: none.
    virtual int64_t MaxBufferMs() = 0;
    /// The level to fetch the cluster of a running transfer from instead; none: it goes on.
    virtual std::optional<size_t> Abandon(const Transfer& transfer, const Sizes& sizes) = 0;
    /// Fills in what the rule knows of buffers and link.
    virtual void Describe(BufferEvent& event) = 0;
};

enum class RuleName { BuiltIn, BolaE };

/// `indexes`: of the levels, null until opened; must outlive the rule.
/// `bolaBufferMs`: what BOLA-E buffers at most.
std::unique_ptr<LevelRule> NewLevelRule(RuleName name, const Film& film,
                                        const std::vector<IClusterIndex*>& indexes,
                                        double bolaBufferMs);

}  // namespace opal::simulate
