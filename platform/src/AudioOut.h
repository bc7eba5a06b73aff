#pragma once

#include <cstdint>
#include <memory>
#include <vector>

#include "TvSet.h"

namespace tvset {

/// Where sound goes. The caller hands it over in time, `LeadMs()` before it is to be heard.
///
/// Threading: one thread at a time.
class AudioOut {
  public:
    static constexpr int kRate = 48000;
    static constexpr unsigned kChannels = 2;

    virtual ~AudioOut() = default;
    virtual bool WantsSamples() const = 0;
    virtual int64_t LeadMs() const = 0;
    /// `kRate`, `kChannels`, interleaved; to be heard in `aheadMs`.
    virtual void Play(const std::vector<int16_t>& samples, int64_t aheadMs) = 0;
    virtual void Pause(bool paused) = 0;
    virtual void Flush() = 0;
};

/// Never null: where no device opens, a silent one.
std::unique_ptr<AudioOut> NewAudioOut(AudioOutput kind);

}  // namespace tvset
