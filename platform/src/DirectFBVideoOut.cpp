#include <directfb.h>

extern "C" {
#include <libavutil/frame.h>
}

#include <algorithm>
#include <memory>

#include "MSystem.h"
#include "Snapshot.h"
#include "StatusText.h"
#include "VideoOut.h"

namespace tvset {
namespace {

constexpr DFBDisplayLayerID kLayer = 1;
constexpr int kWidth = 1280;
constexpr int kHeight = 720;

template <typename Interface>
struct Release {
    void operator()(Interface* object) const { object->Release(object); }
};
template <typename Interface>
using Ref = std::unique_ptr<Interface, Release<Interface>>;

/// A window at the bottom of layer 1. Each DirectFB layer is a window of its own to X, so the
/// subtitles, which lie on layer 1, can only cover pictures that lie there too.
class DirectFBVideoOut : public VideoOut {
  public:
    DFBResult Open() {
        DFBResult result = MSystem::InitializeDFBLayer() ? DFB_OK : DFB_INIT;
        IDirectFB* directFB = nullptr;
        if (result == DFB_OK)
            result = DirectFBCreate(&directFB);
        if (result == DFB_OK)
            KeepUntilExit(*directFB);
        m_directFB.reset(directFB);
        IDirectFBDisplayLayer* layer = nullptr;
        if (result == DFB_OK)
            result = directFB->GetDisplayLayer(directFB, kLayer, &layer);
        m_layer.reset(layer);
        return result == DFB_OK ? OpenWindow() : result;
    }

    void Show(const Picture& picture) override {
        m_picture = picture;
        Draw();
    }

    void SetBlack(bool black) override {
        m_black = black;
        Draw();
    }

    void SetRectangle(const ST_RECT& rect) override {
        const bool whole = rect.u16Width == 0 || rect.u16Height == 0;
        m_area = whole ? Area{0, 0, kWidth, kHeight}
                       : Area{std::min<int>(rect.u16X, kWidth - 1),
                              std::min<int>(rect.u16Y, kHeight - 1), rect.u16Width, rect.u16Height};
        m_area.width = std::min(m_area.width, kWidth - m_area.x);
        m_area.height = std::min(m_area.height, kHeight - m_area.y);
        m_cleared = false;
        Draw();
    }

  private:
    /// When its last user goes, DirectFB leaves a thread behind that now and then crashes as the
    /// next one starts DirectFB again. So it is started once a process.
    static void KeepUntilExit(IDirectFB& directFB) {
        [[maybe_unused]] static const DirectResult kept = directFB.AddRef(&directFB);
    }

    DFBResult OpenWindow() {
        DFBWindowDescription description{};
        description.flags = static_cast<DFBWindowDescriptionFlags>(
            DWDESC_WIDTH | DWDESC_HEIGHT | DWDESC_POSX | DWDESC_POSY | DWDESC_PIXELFORMAT |
            DWDESC_STACKING);
        description.width = kWidth;
        description.height = kHeight;
        description.pixelformat = DSPF_ARGB;
        description.stacking = DWSC_LOWER;
        IDirectFBWindow* window = nullptr;
        DFBResult result = m_layer->CreateWindow(m_layer.get(), &description, &window);
        m_window.reset(window);
        if (result != DFB_OK)
            return result;
        IDirectFBSurface* surface = nullptr;
        result = window->GetSurface(window, &surface);
        m_surface.reset(surface);
        if (result == DFB_OK) {
            (void)window->LowerToBottom(window);
            Draw();
            result = window->SetOpacity(window, 0xFF);
        }
        return result;
    }

    void Draw() {
        const bool picture = m_picture.frame && !m_black;
        const Area fit = picture ? Fit(*m_picture.frame, m_area) : Area{};
        const bool same = fit.width == m_drawn.width && fit.height == m_drawn.height;
        if (!picture || !same || !m_cleared) {
            (void)m_surface->Clear(m_surface.get(), 0, 0, 0, 0xFF);
            m_cleared = true;
        }
        m_drawn = fit;
        if (picture)
            DrawPicture(*m_picture.frame, fit);
        (void)m_surface->Flip(m_surface.get(), nullptr, DSFLIP_NONE);
    }

    void DrawPicture(const AVFrame& frame, const Area& fit) {
        void* pixels = nullptr;
        int pitch = 0;
        if (m_surface->Lock(m_surface.get(), DSLF_WRITE, &pixels, &pitch) != DFB_OK)
            return;
        auto* target = static_cast<uint8_t*>(pixels) + static_cast<ptrdiff_t>(fit.y) * pitch +
                       static_cast<ptrdiff_t>(fit.x) * 4;
        (void)m_converter.Convert(frame, AV_PIX_FMT_BGRA, fit.width, fit.height, target, pitch);
        DrawStatusText({target, pitch, 4, fit.width, fit.height});
        (void)m_surface->Unlock(m_surface.get());
    }

    // Released from the last to the first.
    Ref<IDirectFB> m_directFB;
    Ref<IDirectFBDisplayLayer> m_layer;
    Ref<IDirectFBWindow> m_window;
    Ref<IDirectFBSurface> m_surface;
    Converter m_converter;
    Picture m_picture;
    Area m_area{0, 0, kWidth, kHeight};
    Area m_drawn{};
    bool m_black = false;
    bool m_cleared = false;
};

}  // namespace

std::unique_ptr<VideoOut> NewDirectFBVideoOut(std::string& error) {
    auto out = std::make_unique<DirectFBVideoOut>();
    const DFBResult result = out->Open();
    if (result != DFB_OK) {
        error = std::string("DirectFB: ") + DirectFBErrorString(result);
        return nullptr;
    }
    return out;
}

}  // namespace tvset
