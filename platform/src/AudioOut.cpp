#include "AudioOut.h"

#include <SDL.h>

#include <algorithm>

namespace tvset {
namespace {

class SilentAudioOut : public AudioOut {
  public:
    bool WantsSamples() const override { return false; }
    int64_t LeadMs() const override { return 0; }
    void Play(const std::vector<int16_t>&, int64_t) override {}
    void Pause(bool) override {}
    void Flush() override {}
};

/// The default device through SDL's queue. The set's clock leads: the queue is started with as much
/// silence as the first sound is early, and sound is left out where the device has fallen behind.
class SdlAudioOut : public AudioOut {
  public:
    static std::unique_ptr<AudioOut> Open() {
        SDL_SetHint(SDL_HINT_NO_SIGNAL_HANDLERS, "1");
        if (SDL_InitSubSystem(SDL_INIT_AUDIO) != 0) {
            return nullptr;
        }
        SDL_AudioSpec wanted{};
        wanted.freq = kRate;
        wanted.format = AUDIO_S16SYS;
        wanted.channels = kChannels;
        wanted.samples = 1024;
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

    void Play(const std::vector<int16_t>& samples, int64_t aheadMs) override {
        const Uint32 queued = SDL_GetQueuedAudioSize(m_device);
        if (queued > BytesOf(2 * kLeadMs)) {
            return;
        }
        if (queued == 0 && aheadMs > 0) {
            const std::vector<uint8_t> silence(BytesOf(std::min(aheadMs, kLeadMs)));
            SDL_QueueAudio(m_device, silence.data(), static_cast<Uint32>(silence.size()));
        }
        SDL_QueueAudio(m_device, samples.data(),
                       static_cast<Uint32>(samples.size() * sizeof(int16_t)));
    }

    void Pause(bool paused) override { SDL_PauseAudioDevice(m_device, paused ? 1 : 0); }
    void Flush() override { SDL_ClearQueuedAudio(m_device); }

  private:
    static constexpr int64_t kLeadMs = 100;

    explicit SdlAudioOut(SDL_AudioDeviceID device) : m_device(device) {}
    static uint32_t BytesOf(int64_t ms) {
        return static_cast<uint32_t>(ms * kRate / 1000) * kChannels * 2;
    }

    const SDL_AudioDeviceID m_device;
};

}  // namespace

std::unique_ptr<AudioOut> NewAudioOut(AudioOutput kind) {
    std::unique_ptr<AudioOut> out;
    if (kind == AudioOutput::Device) {
        out = SdlAudioOut::Open();
    }
    return out ? std::move(out) : std::make_unique<SilentAudioOut>();
}

}  // namespace tvset
