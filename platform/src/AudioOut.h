#pragma once

#include <cstdint>
#include <memory>
#include <vector>

#include "TvSet.h"

namespace tvset {

/// Where sound goes: a queue that is heard at the pace of time.
///
/// Threading: one thread at a time.
class AudioOut {
  public:
    static constexpr int kRate = 48000;
    static constexpr unsigned kChannels = 2;

    virtual ~AudioOut() = default;
    virtual bool WantsSamples() const = 0;
    /// How long before it is to be heard a sound is handed over.
    virtual int64_t LeadMs() const = 0;
    /// How long what is queued will last.
    virtual int64_t QueuedUs() = 0;
    /// Appends `silenceUs` of silence and then the sound, of `durationUs`; `samples`: `kRate`,
    /// `kChannels`, interleaved, empty where they are not wanted.
    virtual void Play(int64_t silenceUs, const std::vector<int16_t>& samples,
                      int64_t durationUs) = 0;
    virtual void Pause(bool paused) = 0;
    virtual void Flush() = 0;
};

/// Never null: where no device opens, a silent one, whose time is `clock`.
std::unique_ptr<AudioOut> NewAudioOut(AudioOutput kind, std::shared_ptr<Clock> clock);

/// Keeps sound and picture together. After a jump the first sound is placed exactly: what is late
/// of it is left out, and where it is early there is silence. From then on one follows the other,
/// until a queue that has run dry or a clock set to another picture has moved them apart.
class SoundPlacer {
  public:
    struct Place {
        int64_t silenceUs;  ///< before the sound
        int64_t skipUs;     ///< left out at its beginning
    };

    void Restart() { m_placed = false; }
    /// Sound that is to be heard in `aheadUs`, while what is queued before it lasts `queuedUs`.
    Place Next(int64_t aheadUs, int64_t queuedUs, int64_t durationUs);

  private:
    bool m_placed = false;
};

}  // namespace tvset
