#pragma once

#include <cstdint>
#include <vector>

/// Material that the ffmpeg program makes for the tests, once each.
namespace film {

struct AccessUnit {
    std::vector<uint8_t> bytes;
    uint32_t pts = 0;
    bool key = false;
};
using Stream = std::vector<AccessUnit>;

constexpr int kFrameMs = 40;
constexpr int kWidth = 320;
constexpr int kHeight = 180;

/// 3 s of H.264, Annex B, parameter sets in band, 25 pictures a second, a key picture each second
/// and two B pictures between references. Picture n is plain grey of `GreyOf(n)`.
/// `aspect`: width of a pixel to its height.
const Stream& Video(int width = kWidth, int height = kHeight, const char* aspect = "1");
/// A second of pure green; `matrix`: by which it is coded, `told`: what the bitstream says of that.
const Stream& Green(int height, const char* matrix, const char* told);
/// The grey of picture n in 8 bit RGB.
int GreyOf(int n);

/// Raw AAC LC, a tone; PTS from 0.
const Stream& Audio(int ms, int sampleRate = 44100, int channels = 2);

}  // namespace film
