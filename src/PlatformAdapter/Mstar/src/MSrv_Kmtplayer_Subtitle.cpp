#include "PlatformAdapter/Mstar/src/MSrv_Kmtplayer_Subtitle.h"

#include <directfb.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <string>

#include "Common/Mutex.h"
#include "TvSubtitles.h"

namespace {

constexpr DFBDisplayLayerID kLayer = 1;
constexpr uint8_t kNoPrimary = 255;
constexpr uint8_t kWindowCount = 2;
constexpr uint8_t kOpaque = 255;
constexpr uint16_t kPaletteSize = 256;
constexpr const char* kFontFile = "/font/DejaVuSans.ttf";
constexpr int kFontHeight = 30;
constexpr int kFontWidth = 24;
constexpr RGBPaletteColor kTransparent = {0xFF, 0xFF, 0xFF, 0xFF};

struct Window {
    IDirectFBSurface* m_pSurface = nullptr;
    IDirectFBFont* pFont = nullptr;
    uint16_t width = 0;
    uint16_t height = 0;
    uint16_t pitch = 0;
    uint32_t format = SBT_NONE;
};

opal::Mutex g_windowMutex;
using WindowLock = opal::MutexLock;

IDirectFB* m_pDFB OPAL_GUARDED_BY(g_windowMutex) = nullptr;
IDirectFBDisplayLayer* m_pDFBLayer OPAL_GUARDED_BY(g_windowMutex) = nullptr;
IDirectFBWindow* m_pDFBWindow OPAL_GUARDED_BY(g_windowMutex) = nullptr;
uint16_t g_videoWidth OPAL_GUARDED_BY(g_windowMutex) = 0;
uint16_t g_videoHeight OPAL_GUARDED_BY(g_windowMutex) = 0;
uint8_t m_u8PrimarySurfaceID OPAL_GUARDED_BY(g_windowMutex) = kNoPrimary;
Window g_windows[kWindowCount] OPAL_GUARDED_BY(g_windowMutex);

// A failed call is made once more, for its code. True if it succeeds either time.
template <typename Call>
bool Succeeds(const Call& call, const char* function, int line) {
    if (call() == DFB_OK)
        return true;
    const DFBResult code = call();
    std::printf("  SBT DFB fail:0x%x ASSERT: %s %s %d\n", static_cast<unsigned>(code), __FILE__,
                function, line);
    return code == DFB_OK;
}
// Called at once, under the caller's lock, which the compiler does not see from inside a lambda.
#define DFB_DO(call) \
    Succeeds([&]() OPAL_NO_THREAD_SAFETY_ANALYSIS { return call; }, __func__, __LINE__)

template <typename Interface>
void ReleaseAndForget(Interface*& object) {
    if (object)
        (void)object->Release(object);
    object = nullptr;
}

IDirectFBSurface* SurfaceOf(uint8_t id) OPAL_REQUIRES(g_windowMutex) {
    return id < kWindowCount ? g_windows[id].m_pSurface : nullptr;
}

DFBRectangle ToDFB(const SBT_Rect& rect) {
    return {rect.x, rect.y, rect.width, rect.height};
}

uint8_t AlphaOf(const RGBPaletteColor& color) {
    return static_cast<uint8_t>(~color.transparency);
}

DFBSurfacePixelFormat PixelFormatOf(uint32_t format) {
    switch (format) {
        case SBT_I2:
            std::printf("Format is I2\n");
            return DSPF_LUT2;
        case SBT_I8:
            std::printf("Format is I8\n");
            return DSPF_LUT8;
        case SBT_ARGB4444:
            std::printf("Format is ARGB4444\n");
            return DSPF_ARGB4444;
        default:
            std::printf("Format is ARGB8888\n");
            return DSPF_ARGB;
    }
}

void FlipVideoArea(IDirectFBSurface* surface) OPAL_REQUIRES(g_windowMutex) {
    const DFBRegion region = {0, 0, g_videoWidth, g_videoHeight};
    (void)DFB_DO(surface->Flip(surface, &region, DSFLIP_NONE));
}

// DirectFB started anew after its last user has gone crashes now and then, in a thread that it left
// behind; so it stays until the process ends.
void KeepUntilExit(IDirectFB* directFB) {
    [[maybe_unused]] static const DirectResult kept = directFB->AddRef(directFB);
}

IDirectFBSurface* CreateOffScreenSurface(const SBT_Rect& rect) OPAL_REQUIRES(g_windowMutex) {
    DFBSurfaceDescription description = {};
    description.flags = static_cast<DFBSurfaceDescriptionFlags>(DSDESC_CAPS | DSDESC_WIDTH |
                                                                DSDESC_HEIGHT | DSDESC_PIXELFORMAT);
    description.caps = DSCAPS_VIDEOONLY;
    description.width = rect.width;
    description.height = rect.height;
    description.pixelformat = PixelFormatOf(rect.format);
    IDirectFBSurface* surface = nullptr;
    if (m_pDFB)
        (void)DFB_DO(m_pDFB->CreateSurface(m_pDFB, &description, &surface));
    return surface;
}

// Null where the display has no layer 1.
IDirectFBSurface* CreateLayerWindow(uint8_t id) OPAL_REQUIRES(g_windowMutex) {
    IDirectFBSurface* surface = nullptr;
    ReleaseAndForget(m_pDFBLayer);
    if (!m_pDFB || !DFB_DO(m_pDFB->GetDisplayLayer(m_pDFB, kLayer, &m_pDFBLayer)) || !m_pDFBLayer)
        return nullptr;
    m_u8PrimarySurfaceID = id;
    DFBWindowDescription description = {};
    description.flags = static_cast<DFBWindowDescriptionFlags>(
        DWDESC_CAPS | DWDESC_WIDTH | DWDESC_HEIGHT | DWDESC_PIXELFORMAT | DWDESC_POSX |
        DWDESC_POSY | DWDESC_SURFACE_CAPS);
    description.caps = DWCAPS_ALPHACHANNEL;
    description.pixelformat = DSPF_LUT8;
    description.surface_caps = DSCAPS_VIDEOONLY;
    description.width = MSrv_Kmtplayer_Subtitle::kWidth;
    description.height = MSrv_Kmtplayer_Subtitle::kHeight;
    if (DFB_DO(m_pDFBLayer->CreateWindow(m_pDFBLayer, &description, &m_pDFBWindow)) &&
        m_pDFBWindow) {
        (void)DFB_DO(m_pDFBWindow->SetOpacity(m_pDFBWindow, kOpaque));
        (void)DFB_DO(m_pDFBWindow->SetStackingClass(m_pDFBWindow, DWSC_LOWER));
        (void)DFB_DO(m_pDFBWindow->GetSurface(m_pDFBWindow, &surface));
        if (surface)
            (void)TvSubtitles_Prepare(m_pDFBWindow, surface);
    }
    if (!surface) {
        ReleaseAndForget(m_pDFBWindow);
        m_u8PrimarySurfaceID = kNoPrimary;
    }
    return surface;
}

// What operations of the class call of one another, with the lock held.
namespace locked {

constexpr uint8_t kOnScreen = MSrv_Kmtplayer_Subtitle::kOnScreen;

bool DestroyWindow(uint8_t id) OPAL_REQUIRES(g_windowMutex) {
    std::printf("======> DFB DestroyWindow %d\n", id);
    // Whichever window goes, the font and the window on the screen go with it; deliberate.
    if (g_windows[kOnScreen].pFont) {
        std::printf("release font\n");
        ReleaseAndForget(g_windows[kOnScreen].pFont);
    }
    IDirectFBSurface* surface = SurfaceOf(id);
    if (!surface) {
        std::printf("======> DFB DestroyWindow %d done\n", id);
        return false;
    }
    if (id == m_u8PrimarySurfaceID) {
        (void)DFB_DO(surface->Clear(surface, 0, 0, 0, 0));
        m_u8PrimarySurfaceID = kNoPrimary;
    }
    (void)surface->Release(surface);
    g_windows[id] = Window();
    if (m_pDFBWindow) {
        ReleaseAndForget(m_pDFBWindow);
        std::printf("======> DFB DestroyWindow[Window] %d done1\n", id);
    }
    // The layer stays held until Close.
    std::printf("======> DFB DestroyWindow %d done1\n", id);
    return true;
}

bool CreateWindow(uint8_t id, const SBT_Rect* rect, bool displayable) OPAL_REQUIRES(g_windowMutex) {
    std::printf("======> DFB CreateWindow %d\n", id);
    if (id >= kWindowCount || !rect)
        return false;
    Window& window = g_windows[id];
    if (window.m_pSurface) {
        std::printf("Window surface is already there\n");
        return false;
    }
    std::printf("bDisplayAble = %d\n", displayable);
    if (displayable && m_u8PrimarySurfaceID < kNoPrimary) {
        std::printf("m_u8PrimarySurfaceID abnormal\n");
        return false;
    }
    window.m_pSurface = displayable ? CreateLayerWindow(id) : CreateOffScreenSurface(*rect);
    IDirectFBSurface* surface = window.m_pSurface;
    if (!surface)
        return false;
    void* pixels = nullptr;
    int pitch = 0;
    if (DFB_DO(surface->Lock(surface, DSLF_READ, &pixels, &pitch)))
        (void)DFB_DO(surface->Unlock(surface));
    window.width = rect->width;
    window.height = rect->height;
    window.pitch = static_cast<uint16_t>(pitch);
    window.format = rect->format;
    std::printf("======> DFB CreateWindow %d done\n", id);
    return true;
}

void CreateOnScreenWindow() OPAL_REQUIRES(g_windowMutex) {
    std::printf("CreateOnScreenWindow ->\n");
    (void)DestroyWindow(kOnScreen);
    const SBT_Rect rect = {0, 0, g_videoWidth, g_videoHeight, SBT_ARGB4444};
    (void)CreateWindow(kOnScreen, &rect, true);
    Window& window = g_windows[kOnScreen];
    if (window.m_pSurface) {
        DFBFontDescription description = {};
        description.flags = DFDESC_HEIGHT;
        description.height = kFontHeight;
        description.width = kFontWidth;
        // Many televisions have no such file; only DrawText needs it.
        if (DFB_DO(m_pDFB->CreateFont(m_pDFB, kFontFile, &description, &window.pFont)))
            (void)DFB_DO(window.m_pSurface->SetFont(window.m_pSurface, window.pFont));
        else
            window.pFont = nullptr;
    }
    std::printf("CreateOnScreenWindow <-\n");
}

void SetPalette(uint8_t id, const RGBPaletteColor* colors, uint16_t count, uint8_t first)
    OPAL_REQUIRES(g_windowMutex) {
    IDirectFBSurface* surface = SurfaceOf(id);
    if (!surface || !colors || count > kPaletteSize)
        return;
    DFBColor entries[kPaletteSize];
    for (uint16_t i = 0; i < count; ++i)
        entries[i] = {AlphaOf(colors[i]), colors[i].red, colors[i].green, colors[i].blue};
    IDirectFBPalette* palette = nullptr;
    if (!DFB_DO(surface->GetPalette(surface, &palette)))
        return;
    (void)DFB_DO(palette->SetEntries(palette, entries, count, first));
    ReleaseAndForget(palette);
}

void ClearWindowByColor(uint8_t id, const SBT_Rect* rect, const RGBPaletteColor* color)
    OPAL_REQUIRES(g_windowMutex) {
    IDirectFBSurface* surface = SurfaceOf(id);
    if (!surface || !color || g_windows[id].format <= SBT_I8)
        return;
    const uint8_t alpha = AlphaOf(*color);
    if (rect) {
        (void)DFB_DO(surface->SetColor(surface, color->red, color->green, color->blue, alpha));
        (void)DFB_DO(surface->FillRectangle(surface, rect->x, rect->y, rect->width, rect->height));
        return;
    }
    (void)DFB_DO(surface->Clear(surface, color->red, color->green, color->blue, alpha));
    FlipVideoArea(surface);
}

bool Lock(uint8_t id, EN_GRAPHIC_LOCK_TYPE type, const uint8_t** pixels)
    OPAL_REQUIRES(g_windowMutex) {
    std::printf("======> DFB Lock %d\n", id);
    IDirectFBSurface* surface = SurfaceOf(id);
    void* memory = nullptr;
    int pitch = 0;
    if (!surface || !pixels ||
        !DFB_DO(surface->Lock(surface, type == GRAPHIC_LOCK_READ ? DSLF_READ : DSLF_WRITE, &memory,
                              &pitch)))
        return false;
    *pixels = static_cast<const uint8_t*>(memory);
    return true;
}

void UnLock(uint8_t id) OPAL_REQUIRES(g_windowMutex) {
    if (IDirectFBSurface* surface = SurfaceOf(id))
        (void)DFB_DO(surface->Unlock(surface));
}

}  // namespace locked

}  // namespace

MSrv_Kmtplayer_Subtitle::MSrv_Kmtplayer_Subtitle() {
    std::printf("_InitDFB()\n");
    DFBResult code = DirectFBInit(nullptr, nullptr);
    if (code != DFB_OK) {
        std::printf("%s <%d>:\n\t", __FILE__, __LINE__);
        (void)DirectFBErrorFatal("error", code);
    }
}

void MSrv_Kmtplayer_Subtitle::SetCallback(void* owner, SubtitleCallbackFunction callback) {
    m_owner = owner;
    m_callback = callback;
}

bool MSrv_Kmtplayer_Subtitle::Open() {
    WindowLock lock(g_windowMutex);
    if (m_bOpened) {
        std::printf("Subtitle is already opened!\n");
        return false;
    }
    std::printf("MSrv_Kmtplayer_Subtitle: Open\n");
    m_bOpened = true;
    (void)DFB_DO(DirectFBCreate(&m_pDFB));
    if (m_pDFB)
        KeepUntilExit(m_pDFB);
    g_videoWidth = kWidth;
    g_videoHeight = kHeight;
    locked::CreateOnScreenWindow();
    std::printf("MSrv_Kmtplayer_Subtitle is inited done\n");
    return true;
}

bool MSrv_Kmtplayer_Subtitle::Close() {
    WindowLock lock(g_windowMutex);
    if (!m_bOpened) {
        std::printf("Subtitle is already closed!\n");
        return false;
    }
    TvSubtitles_Hide();
    (void)locked::DestroyWindow(kOnScreen);
    if (SurfaceOf(kOffScreen))
        (void)locked::DestroyWindow(kOffScreen);
    m_bOpened = false;
    // The window before it must be gone, and the layer lives as long as what it came from.
    ReleaseAndForget(m_pDFBLayer);
    ReleaseAndForget(m_pDFB);
    std::printf("Release dfb\n");
    return true;
}

void MSrv_Kmtplayer_Subtitle::CreateOnScreenWindow() {
    WindowLock lock(g_windowMutex);
    locked::CreateOnScreenWindow();
}

void MSrv_Kmtplayer_Subtitle::CreateOffScreenWindow() {
    WindowLock lock(g_windowMutex);
    std::printf("CreateOffScreenWindow ->\n");
    (void)locked::DestroyWindow(kOffScreen);
    const SBT_Rect rect = {0, 0, g_videoWidth, g_videoHeight, SBT_I8};
    (void)locked::CreateWindow(kOffScreen, &rect, false);
    RGBPaletteColor colors[kPaletteSize];
    std::fill(std::begin(colors), std::end(colors), kTransparent);
    locked::SetPalette(kOffScreen, colors, kPaletteSize, 0);
    std::printf("CreateOffScreenWindow <-\n");
}

bool MSrv_Kmtplayer_Subtitle::CreateWindow(uint8_t id, const SBT_Rect* rect, bool displayable,
                                           const void*) {
    WindowLock lock(g_windowMutex);
    return locked::CreateWindow(id, rect, displayable);
}

bool MSrv_Kmtplayer_Subtitle::DestroyWindow(uint8_t id, const void*) {
    WindowLock lock(g_windowMutex);
    return locked::DestroyWindow(id);
}

void MSrv_Kmtplayer_Subtitle::SetPalette(uint8_t id, const RGBPaletteColor* colors, uint16_t count,
                                         uint8_t first, const void*) {
    WindowLock lock(g_windowMutex);
    locked::SetPalette(id, colors, count, first);
}

void MSrv_Kmtplayer_Subtitle::Bitblt(uint8_t src, uint8_t dst, const SBT_Rect* srcRect,
                                     const SBT_Rect* dstRect, const void*) {
    WindowLock lock(g_windowMutex);
    IDirectFBSurface* from = SurfaceOf(src);
    IDirectFBSurface* to = SurfaceOf(dst);
    if (!from || !to)
        return;
    const DFBRectangle source = srcRect ? ToDFB(*srcRect) : DFBRectangle{};
    (void)DFB_DO(to->SetBlittingFlags(to, DSBLIT_NOFX));
    (void)DFB_DO(to->SetPorterDuff(to, DSPD_CLEAR));
    (void)DFB_DO(to->Blit(to, from, srcRect ? &source : nullptr, dstRect ? dstRect->x : 0,
                          dstRect ? dstRect->y : 0));
}

void MSrv_Kmtplayer_Subtitle::ClearWindowByIndex(uint8_t id, const SBT_Rect* rect,
                                                 uint8_t colorIndex, const void*) {
    WindowLock lock(g_windowMutex);
    IDirectFBSurface* surface = SurfaceOf(id);
    if (!surface || g_windows[id].format > SBT_I8)
        return;
    const DFBRectangle area =
        rect ? ToDFB(*rect) : DFBRectangle{0, 0, g_windows[id].width, g_windows[id].height};
    (void)DFB_DO(surface->SetColorIndex(surface, colorIndex));
    (void)DFB_DO(surface->FillRectangle(surface, area.x, area.y, area.w, area.h));
}

void MSrv_Kmtplayer_Subtitle::ClearWindowByColor(uint8_t id, const SBT_Rect* rect,
                                                 const RGBPaletteColor* color, const void*) {
    WindowLock lock(g_windowMutex);
    locked::ClearWindowByColor(id, rect, color);
}

void MSrv_Kmtplayer_Subtitle::GetVideoSize(SBT_Rect* rect) {
    WindowLock lock(g_windowMutex);
    if (rect)
        *rect = {0, 0, g_videoWidth, g_videoHeight, rect->format};
    std::printf("======> DFB Video size: %d %d %d %d\n", 0, 0, g_videoWidth, g_videoHeight);
}

bool MSrv_Kmtplayer_Subtitle::GetWindowInfo(uint8_t id, SBT_Rect* info, uint16_t* pitch) {
    WindowLock lock(g_windowMutex);
    if (!SurfaceOf(id)) {
        std::printf("The window %d is not created yet\n", id);
        return false;
    }
    const Window& window = g_windows[id];
    if (info)
        *info = {0, 0, window.width, window.height, window.format};
    if (pitch)
        *pitch = window.pitch;
    return true;
}

bool MSrv_Kmtplayer_Subtitle::Lock(uint8_t id, EN_GRAPHIC_LOCK_TYPE type, const uint8_t** pixels,
                                   const void*) {
    WindowLock lock(g_windowMutex);
    return locked::Lock(id, type, pixels);
}

void MSrv_Kmtplayer_Subtitle::UnLock(uint8_t id, const void*) {
    WindowLock lock(g_windowMutex);
    locked::UnLock(id);
}

void MSrv_Kmtplayer_Subtitle::DrawImage(const uint8_t* image) {
    WindowLock lock(g_windowMutex);
    const uint8_t* pixels = nullptr;
    if (locked::Lock(kOnScreen, GRAPHIC_LOCK_WRITE, &pixels)) {
        const Window& window = g_windows[kOnScreen];
        auto* target = const_cast<uint8_t*>(pixels);  // locked for writing
        const size_t bytes = std::min(g_videoWidth, window.pitch);
        for (uint16_t y = 0; y < g_videoHeight; ++y)
            std::memcpy(target + size_t{y} * window.pitch, image + size_t{y} * kWidth, bytes);
        locked::UnLock(kOnScreen);
        FlipVideoArea(window.m_pSurface);
    } else {
        std::printf("MSrv_Kmtplayer_Subtitle::DrawImage Lock failed\n");
    }
    TvSubtitles_Show(image, kWidth, kHeight);
}

void MSrv_Kmtplayer_Subtitle::DrawText(const char* text, long size) {
    WindowLock lock(g_windowMutex);
    std::printf("MSrv_Kmtplayer_Subtitle::DrawText: %s, size = %ld\n", text, size);
    IDirectFBFont* font = g_windows[kOnScreen].pFont;
    IDirectFBSurface* surface = SurfaceOf(kOnScreen);
    if (!font || !surface) {
        std::printf("pFont is NULL\n");
        return;
    }
    const int x = g_videoWidth / 4;
    int y = g_videoHeight - g_videoHeight / 5;
    int lineHeight = 0;
    (void)DFB_DO(font->GetHeight(font, &lineHeight));
    (void)DFB_DO(surface->SetColor(surface, 0xFF, 0xFF, 0xFF, 0xFF));
    // Called here alone, under the lock that the compiler does not see from inside.
    const auto draw = [&](const char* name, const char* line) OPAL_NO_THREAD_SAFETY_ANALYSIS {
        const int exactLength = static_cast<int>(std::strcspn(line, "\n"));
        if (name[4] == '2')
            std::printf("draw2 = %s\n", line);
        std::printf("%s = %s, exactLength = %d\n", name, line, exactLength);
        (void)DFB_DO(surface->DrawString(surface, line, exactLength, x, y, DSTF_CENTER));
    };
    for (;;) {
        int width = 0;
        int length = 0;
        const char* next = nullptr;
        const DFBResult ret =
            font->GetStringBreak(font, text, -1, g_videoWidth, &width, &length, &next);
        std::printf("ret = %d\n", ret);
        std::printf("ret_width = %d\n", width);
        std::printf("ret_str_length = %d\n", length);
        std::printf("ret_next_line = %s\n", next ? next : "(null)");
        if (!next || next == text)
            break;
        draw("draw2", text);
        y += lineHeight;
        text = next;
    }
    draw("draw1", text);
    std::printf("MSrv_Kmtplayer_Subtitle::DrawText done\n");
}

void MSrv_Kmtplayer_Subtitle::Clear() {
    WindowLock lock(g_windowMutex);
    TvSubtitles_Hide();
    locked::ClearWindowByColor(kOnScreen, nullptr, &kTransparent);
}
