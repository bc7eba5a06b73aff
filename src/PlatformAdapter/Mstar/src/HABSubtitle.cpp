#include "PlatformAdapter/Mstar/HABSubtitle.h"

#include <algorithm>
#include <atomic>
#include <boost/scoped_ptr.hpp>
#include <boost/shared_ptr.hpp>
#include <limits>
#include <memory>
#include <new>
#include <vector>

#include "Common/Assert.h"
#include "Common/Clock.h"
#include "Common/MemoryBuffer.h"
#include "Common/Mutex.h"
#include "PlatformAdapter/Mstar/HABArch.h"
#include "PlatformAdapter/Mstar/KMTPlayer.h"
#include "PlatformAdapter/Mstar/src/GoldenFileCheck.h"
#include "PlatformAdapter/Mstar/src/HABArchRecord.h"
#include "TextRenderer/FreeTypeRenderer.h"

struct HABSubtitle {
    HHABARCH hArch = nullptr;
    HHABTIMER hTimer = nullptr;
    opal::CrcTable crcTable = {};
    std::atomic<uint8_t> paused{0};
    opal::GoldenFileList goldenFiles;
    qutl::MemoryBuffer<unsigned char> font;  // the renderer reads it in place
    boost::scoped_ptr<FreeTypeRenderer> renderer;
    FreeTypeRenderer::Rect textRect;
};

namespace {

constexpr int kCanvasWidth = 1280;
constexpr int kCanvasHeight = 720;
constexpr uint32_t kAlignment = FreeTypeRenderer::kCentre | FreeTypeRenderer::kBottom;
constexpr uint32_t kNothingPending = 0xFFFFFFFFu;
constexpr int64_t kLateMs = 100;
constexpr int64_t kPollMs = 10;

// Guards canvas and renderers: a track may be configured while the last text of another is drawn.
opal::Mutex g_canvasMutex;
std::unique_ptr<uint8_t[]> g_canvas OPAL_GUARDED_BY(g_canvasMutex);
int g_canvasWidth OPAL_GUARDED_BY(g_canvasMutex) = kCanvasWidth;
int g_canvasHeight OPAL_GUARDED_BY(g_canvasMutex) = kCanvasHeight;
std::atomic<bool> g_firstLate{true};
std::atomic<uint32_t> g_pendingEnd{kNothingPending};  // of a text that a pause has cut short

uint32_t Position(const HABArch& arch) {
    return arch.playing ? KMTPlayer_GetPlayPosition() : 0u;
}

int FontSize(int height) {
    const int a = static_cast<int>(height * 0.2) / 3;
    const int b = height / 18;
    const int c = height / 26;
    return std::max(std::min(a, b), c) * 100 / 130;
}

FreeTypeRenderer::Rect TextRect(int width, int height) {
    FreeTypeRenderer::Rect rect;
    rect.left = static_cast<int>(width * 0.05);
    rect.top = static_cast<int>(height * 0.75);
    rect.right = static_cast<int>(width * 0.9) + rect.left;
    rect.bottom = static_cast<int>(height * 0.2) + rect.top;
    return rect;
}

bool DrawSubtitle(HABSubtitle& subtitle, const std::string& text) {
    opal::MutexLock lock(g_canvasMutex);
    if (!subtitle.renderer || !g_canvas)
        return false;
    if (subtitle.renderer->Render(text, g_canvasWidth, g_canvasHeight, subtitle.textRect,
                                  kAlignment, FreeTypeRenderer::kAlpha, g_canvas.get()) != OPAL_OK)
        return false;
    (void)KMTPlayer_Subtitle_DrawImage(g_canvas.get());
    return true;
}

// The text is on the screen; returns when it is gone, or cut short.
void WaitUntilGone(const HABSubtitle& subtitle, uint64_t end) {
    const HABArch& arch = *subtitle.hArch;
    for (;;) {
        opal::SleepMs(kPollMs);
        if (Position(arch) >= end || HABArch_IsClosing(subtitle.hArch)) {
            (void)KMTPlayer_Subtitle_Clear();
            return;
        }
        // Whoever pauses the sink alone, to change the track, waits for this to end.
        if (arch.held || subtitle.paused) {
            constexpr uint64_t kLatestEnd = kNothingPending - 1;
            g_pendingEnd = static_cast<uint32_t>(std::min(end, kLatestEnd));
            return;
        }
    }
}

void Verify(HABSubtitle& subtitle, const void* text, size_t size, uint32_t timestamp) {
    opal::VerifyBlock(OPAL_STREAM_SUBTITLE, &subtitle, &CheckSubtitleBlock, text, size, timestamp);
}

}  // namespace

bool CheckSubtitleBlock(HHABSUBTITLE hab, const BlockNode& block) {
    return hab && opal::CheckBlock(OPAL_STREAM_SUBTITLE, hab->goldenFiles, hab->crcTable, block);
}

int HABSubtitle_New(HABSubtitle** phHABSubtitle, HHABARCH hArch, HHABTIMER hTimer) {
    OPAL_ASSERT(phHABSubtitle != nullptr, "phHABSubtitle != __null");
    OPAL_ASSERT(hArch != nullptr, "hHABArch != __null");
    OPAL_ASSERT(hTimer != nullptr, "hHABTimer != __null");
    HABSubtitle* pHABSubtitle =
        new HABSubtitle;  // throws where memory runs out: the session answers
    OPAL_ASSERT(pHABSubtitle != nullptr, "pHABSubtitle != __null");
    opal::FillCrcTable(pHABSubtitle->crcTable);
    pHABSubtitle->hArch = hArch;
    pHABSubtitle->hTimer = hTimer;
    *phHABSubtitle = pHABSubtitle;
    return HAB_OK;
}

int HABSubtitle_Delete(HHABSUBTITLE hHABSubtitle) {
    OPAL_ASSERT(hHABSubtitle != nullptr, "hHABSubtitle != __null");
    (void)KMTPlayer_Subtitle_Finalize();
    opal::MutexLock lock(g_canvasMutex);
    g_canvas.reset();
    delete hHABSubtitle;
    return HAB_OK;
}

int HABSubtitle_Configure(HHABSUBTITLE hHABSubtitle, const std::string& /*codecId*/, int /*width*/,
                          int /*height*/, const void* fontData, size_t fontSize) {
    if (!hHABSubtitle)
        return HAB_FAIL;
    g_firstLate = true;
    g_pendingEnd = kNothingPending;
    (void)KMTPlayer_Subtitle_Initialize();

    opal::MutexLock lock(g_canvasMutex);
    g_canvasWidth = kCanvasWidth;
    g_canvasHeight = kCanvasHeight;
    g_canvas.reset(new (std::nothrow) uint8_t[size_t{kCanvasWidth} * kCanvasHeight]());
    hHABSubtitle->textRect = TextRect(g_canvasWidth, g_canvasHeight);
    hHABSubtitle->renderer.reset();
    // The caller's bytes go with their stream, which may be before the sink.
    hHABSubtitle->font.Assign(static_cast<const unsigned char*>(fontData), fontData ? fontSize : 0,
                              0, false);
    hHABSubtitle->renderer.reset(new FreeTypeRenderer);
    hHABSubtitle->renderer->SetStop(
        [arch = hHABSubtitle->hArch] { return HABArch_IsClosing(arch); });
    const OPALError error = hHABSubtitle->renderer->InitializeFromMemory(
        hHABSubtitle->font.GetData(), hHABSubtitle->font.GetSize(), FontSize(g_canvasHeight));
    if (error == OPAL_OK && g_canvas)
        return HAB_OK;
    hHABSubtitle->renderer.reset();
    return HAB_FAIL;
}

int HABSubtitle_Queue(HHABSUBTITLE hHABSubtitle, void* pSubtitleData, size_t dataSize,
                      uint32_t timestamp, uint64_t duration) {
    OPAL_ASSERT(pSubtitleData != nullptr, "pSubtitleData != __null");
    OPAL_ASSERT(dataSize != 0, "dataSize != 0");
    if (!hHABSubtitle)
        return HAB_FAIL;
    const uint64_t end =
        timestamp + std::min(duration, std::numeric_limits<uint64_t>::max() - timestamp);
    const uint32_t position = Position(*hHABSubtitle->hArch);
    if (position < timestamp) {
        if (position >= g_pendingEnd) {
            g_pendingEnd = kNothingPending;
            (void)KMTPlayer_Subtitle_Clear();
        }
        return HAB_AUDIO_FULL;
    }
    if (position >= end) {
        if (g_firstLate.exchange(false)) {
            opal::SleepMs(kLateMs);
            return HAB_AUDIO_FULL;
        }
        (void)KMTPlayer_Subtitle_Clear();
        Verify(*hHABSubtitle, pSubtitleData, dataSize, timestamp);
        return HAB_OK;
    }
    Verify(*hHABSubtitle, pSubtitleData, dataSize, timestamp);
    if (!DrawSubtitle(*hHABSubtitle, std::string(static_cast<char*>(pSubtitleData), dataSize)))
        return HAB_FAIL;
    WaitUntilGone(*hHABSubtitle, end);
    return HAB_OK;
}

int HABSubtitle_Flush(HHABSUBTITLE /*hHABSubtitle*/) {
    (void)KMTPlayer_Subtitle_Clear();
    g_firstLate = true;
    return HAB_OK;
}

int HABSubtitle_Pause(HHABSUBTITLE hHABSubtitle, uint8_t paused) {
    if (hHABSubtitle)
        hHABSubtitle->paused = paused;
    return HAB_OK;
}

int HABSubtitle_Refresh(HHABSUBTITLE /*hHABSubtitle*/) {
    return HAB_OK;
}
