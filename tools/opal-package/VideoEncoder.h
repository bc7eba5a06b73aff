#pragma once

#include <functional>
#include <string>

#include "opal-package/Av.h"
#include "opal-package/AvcStream.h"
#include "opal-package/Film.h"
#include "opal-package/Ladder.h"
#include "opal-package/MatroskaWriter.h"

namespace opal::package {

struct VideoEncoderOptions {
    int width = 0;
    int height = 0;
    AVRational frameRate = {25, 1};
    /// Ceiling of the rate in bits per second, held over VbvBits(); 0: constant quality.
    int bitrate = 0;
    /// Every picture a key frame.
    bool allKey = false;
    std::string preset = "superfast";
    /// Written into the bit stream.
    Colour colour;
};

/// H.264 through libx264: key frames only where they are asked for, each closing what was before
/// it, and access units as the media files hold them.
///
/// Threading: one thread calls; the encoder has threads of its own.
/// Errors: PackageError.
class VideoEncoder {
  public:
    /// Takes access units in decode order.
    using Output = std::function<void(Block)>;

    VideoEncoder(const VideoEncoderOptions& options, Output output);

    /// Times must grow from call to call.
    void Encode(AVFrame& picture, int64_t timeMs, bool key);
    /// Sends what is still held back.
    void Drain();

    /// Known from the first access unit on.
    const ParameterSets& Sets() const { return m_sets; }

  private:
    void Receive();

    Output m_output;
    AvPtr<AVCodecContext> m_context;
    AvPtr<AVPacket> m_packet;
    ParameterSets m_sets;
};

}  // namespace opal::package
