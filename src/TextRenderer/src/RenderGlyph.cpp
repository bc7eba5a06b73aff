#include <algorithm>

#include "Common/Assert.h"
#include "TextRenderer/src/FreeTypeRendererPimpl.h"

namespace opal {
namespace {

constexpr uint32_t kWhite = 0xFFFFFFu;
constexpr int kAlphaShift = 24;

// Calls blend(pixel, coverage) for each pixel of the glyph that lies in the target.
template <typename Pixel, typename Blend>
void Walk(const uint8_t* src, int srcw, int srch, Pixel* dst, int dstx, int dsty, int dstw,
          int dsth, Blend blend) {
    for (int srcy = 0; srcy < srch && dsty + srcy < dsth; ++srcy) {
        for (int srcx = 0; srcx < srcw && dstx + srcx < dstw; ++srcx) {
            const int x = dstx + srcx;
            const int y = dsty + srcy;
            if (x < 0 || y < 0)
                continue;
            OPAL_ASSERT(srcx < srcw, "srcx < srcw");
            OPAL_ASSERT(srcy < srch, "srcy < srch");
            OPAL_ASSERT(x < dstw, "dstx < dstw");
            OPAL_ASSERT(y < dsth, "dsty < dsth");
            const size_t from =
                static_cast<size_t>(srcy) * static_cast<size_t>(srcw) + static_cast<size_t>(srcx);
            const size_t to =
                static_cast<size_t>(y) * static_cast<size_t>(dstw) + static_cast<size_t>(x);
            blend(dst[to], src[from]);
        }
    }
}

}  // namespace

void SlowRenderGlyphRGBA32(const uint8_t* src, int srcw, int srch, uint32_t* dst, int dstx,
                           int dsty, int dstw, int dsth) {
    Walk(src, srcw, srch, dst, dstx, dsty, dstw, dsth, [](uint32_t& pixel, uint8_t coverage) {
        pixel = std::max(pixel >> kAlphaShift, uint32_t{coverage}) << kAlphaShift | kWhite;
    });
}

void SlowRenderGlyphAlpha(const uint8_t* src, int srcw, int srch, uint8_t* dst, int dstx, int dsty,
                          int dstw, int dsth) {
    Walk(src, srcw, srch, dst, dstx, dsty, dstw, dsth,
         [](uint8_t& pixel, uint8_t coverage) { pixel = std::max(pixel, coverage); });
}

}  // namespace opal
