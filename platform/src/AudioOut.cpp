#include "AudioOut.h"

#include <SDL.h>

#include <algorithm>
#include <cstdlib>

namespace tvset {
namespace {

/// Sound may be off by this much before it is moved: a device takes it in pieces.
constexpr int64_t kToleranceUs = 20000;

class SilentAudioOut : public AudioOut {
  public:
    explicit SilentAudioOut(std::shared_ptr<Clock> clock) : m_clock(std::move(clock)) {}

    bool WantsSamples() const override { return false; }
    int64_t LeadMs() const override { return 0; }
    int64_t QueuedUs() override {
        return m_paused ? m_restUs : std::max<int64_t>(m_endUs - NowUs(), 0);
    }
    void Play(int64_t silenceUs, const std::vector<int16_t>&, int64_t durationUs) override {
        m_restUs = QueuedUs() + silenceUs + durationUs;
        m_endUs = NowUs() + m_restUs;
    }
    void Pause(bool paused) override {
        m_restUs = QueuedUs();
        m_endUs = NowUs() + m_restUs;
        m_paused = paused;
    }
    void Flush() override { m_restUs = m_endUs = 0; }

  private:
    int64_t NowUs() const { return m_clock->NowMs() * 1000; }

    const std::shared_ptr<Clock> m_clock;
    bool m_paused = false;
    int64_t m_restUs = 0;  ///< queued, while paused
    int64_t m_endUs = 0;   ///< when the queue is over, otherwise
};

/// The default device through SDL's queue.
class SdlAudioOut : public AudioOut {
  public:
    static std::unique_ptr<AudioOut> Open() {
        SDL_SetHint(SDL_HINT_NO_SIGNAL_HANDLERS, "1");
        if (SDL_InitSubSystem(SDL_INIT_AUDIO) != 0)
            return nullptr;
        SDL_AudioSpec wanted{};
        wanted.freq = kRate;
        wanted.format = AUDIO_S16SYS;
        wanted.channels = kChannels;
        wanted.samples = 512;
        const SDL_AudioDeviceID device = SDL_OpenAudioDevice(nullptr, 0, &wanted, nullptr, 0);
        if (device == 0) {
            SDL_QuitSubSystem(SDL_INIT_AUDIO);
            return nullptr;
        }
        return std::unique_ptr<AudioOut>(new SdlAudioOut(device));
    }

    ~SdlAudioOut() override {
        SDL_CloseAudioDevice(m_device);
        SDL_QuitSubSystem(SDL_INIT_AUDIO);
    }

    bool WantsSamples() const override { return true; }
    int64_t LeadMs() const override { return kLeadMs; }

    int64_t QueuedUs() override {
        const int64_t frames = SDL_GetQueuedAudioSize(m_device) / kFrameBytes;
        return frames * 1000000 / kRate;
    }

    void Play(int64_t silenceUs, const std::vector<int16_t>& samples, int64_t) override {
        if (silenceUs > 0) {
            const auto frames = static_cast<size_t>(silenceUs * kRate / 1000000);
            const std::vector<uint8_t> silence(frames * kFrameBytes);
            SDL_QueueAudio(m_device, silence.data(), static_cast<Uint32>(silence.size()));
        }
        SDL_QueueAudio(m_device, samples.data(),
                       static_cast<Uint32>(samples.size() * sizeof(int16_t)));
    }

    void Pause(bool paused) override { SDL_PauseAudioDevice(m_device, paused ? 1 : 0); }
    void Flush() override { SDL_ClearQueuedAudio(m_device); }

  private:
    static constexpr int64_t kLeadMs = 100;
    static constexpr uint32_t kFrameBytes = kChannels * sizeof(int16_t);

    explicit SdlAudioOut(SDL_AudioDeviceID device) : m_device(device) {}

    const SDL_AudioDeviceID m_device;
};

}  // namespace

std::unique_ptr<AudioOut> NewAudioOut(AudioOutput kind, std::shared_ptr<Clock> clock) {
    std::unique_ptr<AudioOut> out;
    if (kind == AudioOutput::Device)
        out = SdlAudioOut::Open();
    return out ? std::move(out) : std::make_unique<SilentAudioOut>(std::move(clock));
}

SoundPlacer::Place SoundPlacer::Next(int64_t aheadUs, int64_t queuedUs, int64_t durationUs) {
    const int64_t lateUs = queuedUs - aheadUs;
    if (m_placed && std::abs(lateUs) <= kToleranceUs)
        return {0, 0};
    const int64_t skipUs = std::clamp<int64_t>(lateUs, 0, durationUs);
    m_placed = skipUs < durationUs;
    return {m_placed ? std::max<int64_t>(-lateUs, 0) : 0, skipUs};
}

}  // namespace tvset
