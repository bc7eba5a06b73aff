#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "opal-package/Av.h"
#include "opal-package/SubtitleText.h"

namespace opal::package {

/// How the numbers of a picture become colours, in the terms of libavutil and of ISO/IEC 23091-2,
/// which are the same.
struct Colour {
    AVColorPrimaries primaries = AVCOL_PRI_BT709;
    AVColorTransferCharacteristic transfer = AVCOL_TRC_BT709;
    AVColorSpace matrix = AVCOL_SPC_BT709;
    AVColorRange range = AVCOL_RANGE_MPEG;
};

struct FilmSound {
    std::string language;
    int sampleRate = 48000;
};

struct FilmInfo {
    std::string name;  ///< for messages
    int width = 0;     ///< in square pixels
    int height = 0;
    int codedWidth = 0;  ///< of the source's own pixels; 0 when it has none
    Colour colour;       ///< of the pictures that FilmPicture yields
    Colour codedColour;  ///< of the source's own coded pictures
    AVRational frameRate = {25, 1};
    int64_t durationMs = 0;  ///< 0 when not known beforehand
    std::vector<FilmSound> sounds;
    /// A language for each track of texts.
    std::vector<std::string> texts;
};

/// One moment of a film, to be had in any size.
class FilmPicture {
  public:
    virtual ~FilmPicture() = default;
    /// The picture in 4:2:0. `level` is the number that a picture which shows its level bears. The
    /// frame stays valid until the next call for the same size.
    virtual AVFrame& At(int width, int height, unsigned level) = 0;
};

/// Takes what a film yields. Times count from the first picture; those of
/// pictures and of sound grow.
class FilmSink {
  public:
    virtual ~FilmSink() = default;
    virtual void OnPicture(int64_t timeMs, FilmPicture& picture) = 0;
    /// Stereo samples at the track's rate, left and right apart.
    virtual void OnSound(size_t track, int64_t timeMs, const float* const* samples, int count) = 0;
    virtual void OnText(size_t track, SubtitleText text) = 0;
    /// A coded picture as the source holds it, in decode order.
    virtual void OnPacket(int64_t timeMs, bool key, const uint8_t* data, size_t size) = 0;
};

/// Something that a presentation is made of.
///
/// Threading: one thread.
/// Errors: PackageError.
class Film {
  public:
    virtual ~Film() = default;
    virtual const FilmInfo& Info() const = 0;
    /// Passes the next piece on; false when there is none left.
    virtual bool Step(FilmSink& sink) = 0;
    /// How long the film was; to be asked when Step has answered false.
    virtual int64_t DurationMs() const = 0;
};

}  // namespace opal::package
