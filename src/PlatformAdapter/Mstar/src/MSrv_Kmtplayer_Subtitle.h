#pragma once

#include <cstdint>

/// A rectangle on the screen, and the pixel format of a window made from it.
struct SBT_Rect {
    uint16_t x;
    uint16_t y;
    uint16_t width;
    uint16_t height;
    uint32_t format;
};
enum : uint32_t { SBT_I2 = 0, SBT_I8 = 1, SBT_ARGB4444 = 2, SBT_ARGB8888 = 3, SBT_NONE = 4 };

/// The transparency is 0 for an opaque colour.
struct RGBPaletteColor {
    uint8_t transparency;
    uint8_t red;
    uint8_t green;
    uint8_t blue;
};

typedef int (*SubtitleCallbackFunction)(void* owner, int request, uint16_t* a, uint16_t* b);
enum EN_GRAPHIC_LOCK_TYPE : int { GRAPHIC_LOCK_READ = 0, GRAPHIC_LOCK_WRITE = 1 };

/// The subtitle window: a full-screen DirectFB window on display layer 1, one byte a pixel, and an
/// off-screen companion. There is one in a process, so what it holds is process-wide.
///
/// Threading: any thread; one operation at a time. A picture is drawn, or the window cleared, as a
/// whole: DirectFB refuses to clear what is locked, and a clear would be lost.
/// Ownership: everything of DirectFB belongs to the window until Close.
/// Errors: failures of DirectFB are printed, and execution goes on. Where the display has no layer
/// 1, there is no window and nothing is drawn.
class MSrv_Kmtplayer_Subtitle {
  public:
    static constexpr uint16_t kWidth = 1280;
    static constexpr uint16_t kHeight = 720;
    enum : uint8_t { kOffScreen = 0, kOnScreen = 1 };

    MSrv_Kmtplayer_Subtitle();
    MSrv_Kmtplayer_Subtitle(const MSrv_Kmtplayer_Subtitle&) = delete;
    MSrv_Kmtplayer_Subtitle& operator=(const MSrv_Kmtplayer_Subtitle&) = delete;

    /// The way to ask the player; kept for sets whose window needs it.
    void SetCallback(void* owner, SubtitleCallbackFunction callback);

    bool Open();
    bool Close();
    void CreateOnScreenWindow();
    void CreateOffScreenWindow();
    /// The format and the size of the rectangle hold for the off-screen window only.
    bool CreateWindow(uint8_t id, const SBT_Rect* rect, bool displayable, const void* = nullptr);
    bool DestroyWindow(uint8_t id, const void* = nullptr);
    void SetPalette(uint8_t id, const RGBPaletteColor* colors, uint16_t count, uint8_t first,
                    const void* = nullptr);
    /// A null rectangle is the whole surface.
    void Bitblt(uint8_t src, uint8_t dst, const SBT_Rect* srcRect, const SBT_Rect* dstRect,
                const void* = nullptr);
    /// For windows with a palette.
    void ClearWindowByIndex(uint8_t id, const SBT_Rect* rect, uint8_t colorIndex,
                            const void* = nullptr);
    /// For windows of colours.
    void ClearWindowByColor(uint8_t id, const SBT_Rect* rect, const RGBPaletteColor* color,
                            const void* = nullptr);
    void GetVideoSize(SBT_Rect* rect);
    /// False without such a window.
    bool GetWindowInfo(uint8_t id, SBT_Rect* info, uint16_t* pitch);
    bool Lock(uint8_t id, EN_GRAPHIC_LOCK_TYPE type, const uint8_t** pixels, const void* = nullptr);
    void UnLock(uint8_t id, const void* = nullptr);
    /// kWidth x kHeight alpha values.
    void DrawImage(const uint8_t* image);
    /// With DirectFB's own font; nothing in this library asks for it.
    void DrawText(const char* text, long size);
    void Clear();

  private:
    bool m_bOpened = false;
    void* m_owner = nullptr;
    SubtitleCallbackFunction m_callback = nullptr;
};
