#pragma once

#include <string>
#include <vector>

#include "opal-package/Av.h"
#include "opal-package/SubtitleText.h"

namespace opal::package {

/// Makes plain texts of a subtitle stream that libavcodec decodes, whatever its markup.
///
/// Threading: one thread.
/// Units: the texts' times are the stream's, in milliseconds.
/// Errors: libav's codes, below 0.
class TextDecoder {
  public:
    /// False for a stream whose texts are pictures (DVD, Blu-ray, DVB), and for no subtitles.
    static bool IsText(const AVStream& stream);

    int Open(const AVStream& stream);
    /// Appends what the packet holds; nothing for a packet without a text or a time.
    int Decode(AVPacket& packet, std::vector<SubtitleText>& texts);

  private:
    AvPtr<AVCodecContext> m_context;
};

/// The visible text of a dialogue line in the format of Advanced SubStation, as libavcodec gives it
/// for all formats. Drawings are left out, and so are braces without an override where they are
/// `comments`: other formats mean the braces themselves.
std::string PlainText(const std::string& dialogue, bool comments);

}  // namespace opal::package
