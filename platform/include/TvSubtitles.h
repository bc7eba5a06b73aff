#pragma once

#include <stdint.h>

/// What the television is told of the subtitle window, in C since a maker's library
/// stands here as well: where layer 1 already blends its windows, all three may be empty.
///
/// A window as `IDirectFBDisplayLayer::CreateWindow` makes it is opaque, and its LUT8 surface has a
/// palette of colours in which half covered pixels are red. And where DirectFB's system has no
/// layer 1 there is no window at all, while the television's snapshots still have the text.
///
/// Order: Prepare once a window, then Show and Hide as the window's content changes, Hide at the
/// latest when the window goes. Any thread; none of them calls back. Nothing passed is kept.

#ifdef __cplusplus
extern "C" {
#endif
#pragma GCC visibility push(default)

struct _IDirectFBWindow;
struct _IDirectFBSurface;

/// Call when the window has its surface: makes palette index i white of opacity i, and the window
/// blended with what lies below it. Both are null where there is no layer 1. Non-zero for success.
int TvSubtitles_Prepare(struct _IDirectFBWindow* window, struct _IDirectFBSurface* surface);

/// Call after the Flip that shows an image, also where there is no surface to flip. `coverage`: the
/// panel's pixels, a byte each, rows of `width` bytes without a gap.
void TvSubtitles_Show(const uint8_t* coverage, unsigned width, unsigned height);

/// Call when the window was cleared.
void TvSubtitles_Hide(void);

#pragma GCC visibility pop
#ifdef __cplusplus
}
#endif
