#pragma once

#include <functional>
#include <vector>

#include "opal-package/Av.h"
#include "opal-package/MatroskaWriter.h"

namespace opal::package {

/// AAC-LC in stereo, on a time line without holes: gaps between the pieces given are filled with
/// silence, overlaps left out.
///
/// Threading: one thread.
/// Errors: PackageError.
class AudioEncoder {
  public:
    using Output = std::function<void(Block)>;

    AudioEncoder(int sampleRate, int bitrate, Output output);

    /// Left and right apart; `timeMs` is that of the first sample, and what lies before 0 is left
    /// out.
    void Encode(int64_t timeMs, const float* const* samples, int count);
    /// Fills up with silence to the end of the film and sends what is still held back.
    void Finish(int64_t durationMs);

    /// The AudioSpecificConfig.
    std::vector<uint8_t> Configuration() const;
    /// Nanoseconds a frame.
    uint64_t FrameDurationNs() const;

  private:
    void Append(const float* const* samples, int64_t count);
    void Silence(int64_t count);
    void SendFrame();
    void Receive();
    int64_t FrameTimeMs(int64_t firstSample) const;

    Output m_output;
    AvPtr<AVCodecContext> m_context;
    AvPtr<AVFrame> m_frame;
    AvPtr<AVPacket> m_packet;
    int m_rate;
    int m_filled = 0;
    /// Samples taken so far, which is the place on the time line.
    int64_t m_taken = 0;
};

}  // namespace opal::package
