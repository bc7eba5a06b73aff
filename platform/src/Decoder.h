#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <vector>

struct AVFrame;

namespace tvset {

/// One access unit, copied on arrival. Behind its bytes lie as many zeros as libavcodec may read.
struct Unit {
    std::shared_ptr<uint8_t[]> data;
    size_t size = 0;
    uint32_t pts = 0;

    /// What it costs to keep: its bytes, and a share that bounds queues of tiny units.
    size_t Cost() const { return size + 128; }
};

/// A decoded picture on its way to the screen.
struct Picture {
    uint32_t pts = 0;
    int64_t readyMs = 0;             ///< the television's clock when the decoder was done
    size_t cost = 0;                 ///< of the unit, if that counts as queued until it is shown
    std::shared_ptr<AVFrame> frame;  ///< null: not really decoded
};

/// Turns video access units into pictures.
///
/// Threading: one thread at a time.
class VideoDecoder {
  public:
    virtual ~VideoDecoder() = default;
    /// Appends what comes out. The result counts the errors met.
    virtual unsigned Decode(const Unit& unit, std::vector<Picture>& out) = 0;
    /// Pictures held back that `Drain` would give without harm to what follows.
    virtual size_t Held() const = 0;
    virtual void Drain(std::vector<Picture>& out) = 0;
    virtual void Reset() = 0;
    /// False when pictures come in decoding order and are still to be sorted by PTS.
    virtual bool InOrder() const = 0;
    /// How many pictures may wait for the screen.
    virtual size_t MaxWaiting() const = 0;
};

std::unique_ptr<VideoDecoder> NewLibavVideoDecoder();
std::unique_ptr<VideoDecoder> NewPassThroughVideoDecoder();

/// Sound of one access unit: 48 kHz, two channels, interleaved.
struct Sound {
    std::vector<int16_t> samples;  ///< empty when not asked for
    int64_t durationUs = 0;
};

/// Turns raw AAC access units into sound.
///
/// Threading: one thread at a time.
class AudioDecoder {
  public:
    virtual ~AudioDecoder() = default;
    /// Starts anew; `sampleRate` 0 or less means 48000, `channels` 0 means 2.
    virtual void Open(uint32_t sampleRate, uint32_t channels) = 0;
    /// False on an error.
    virtual bool Decode(const Unit& unit, bool wantSamples, Sound& out) = 0;
};

std::unique_ptr<AudioDecoder> NewLibavAudioDecoder();
std::unique_ptr<AudioDecoder> NewPassThroughAudioDecoder();

}  // namespace tvset
