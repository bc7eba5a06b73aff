#include "Subtitles.h"

#include <directfb.h>

#include <algorithm>
#include <array>
#include <new>

#include "Common/Mutex.h"
#include "Control.h"
#include "TvSubtitles.h"

namespace tvset {
namespace {

constexpr unsigned kLargestSide = 8192;

opal::Mutex g_mutex;
std::shared_ptr<const Overlay>& Slot() OPAL_REQUIRES(g_mutex) {
    static auto* slot = new std::shared_ptr<const Overlay>;  // outlives every thread
    return *slot;
}

void Put(std::shared_ptr<const Overlay> overlay) {
    const opal::MutexLock lock(g_mutex);
    Slot().swap(overlay);
}

void Note(uint64_t shown, const Overlay* overlay) {
    control::JournalEntry entry;
    entry.call = "subtitle";
    entry.value = shown;
    if (overlay != nullptr && Control::Get().Recording()) {
        entry.size = static_cast<uint32_t>(overlay->coverage.size());
        entry.crc32 = Crc32(overlay->coverage.data(), overlay->coverage.size());
    }
    Control::Get().Append(std::move(entry));
}

/// When its last user goes, DirectFB leaves a thread behind that now and then crashes as the next
/// one starts DirectFB again. So it is kept until the process ends.
void KeepDirectFB() {
    IDirectFB* directFB = nullptr;
    [[maybe_unused]] static const DFBResult kept = DirectFBCreate(&directFB);
}

}  // namespace

std::shared_ptr<const Overlay> CurrentOverlay() {
    const opal::MutexLock lock(g_mutex);
    return Slot();
}

void ForgetOverlay() {
    Put(nullptr);
}

}  // namespace tvset

int TvSubtitles_Prepare(IDirectFBWindow* window, IDirectFBSurface* surface) {
    if (window == nullptr || surface == nullptr)
        return 0;
    tvset::KeepDirectFB();
    IDirectFBPalette* palette = nullptr;
    if (surface->GetPalette(surface, &palette) != DFB_OK)
        return 0;
    std::array<DFBColor, 256> colours{};
    for (size_t i = 0; i < colours.size(); ++i)
        colours[i] = {static_cast<u8>(i), 0xFF, 0xFF, 0xFF};
    const DFBResult painted = palette->SetEntries(palette, colours.data(), colours.size(), 0);
    palette->Release(palette);
    DFBWindowOptions options = DWOP_NONE;
    (void)window->GetOptions(window, &options);
    const DFBResult blended =
        window->SetOptions(window, static_cast<DFBWindowOptions>(options | DWOP_ALPHACHANNEL));
    return painted == DFB_OK && blended == DFB_OK ? 1 : 0;
}

void TvSubtitles_Show(const uint8_t* coverage, unsigned width, unsigned height) {
    if (coverage == nullptr || width == 0 || height == 0 || width > tvset::kLargestSide ||
        height > tvset::kLargestSide)
        return;
    try {
        auto overlay = std::make_shared<tvset::Overlay>();
        overlay->width = width;
        overlay->height = height;
        overlay->coverage.assign(coverage, coverage + size_t{width} * height);
        tvset::Note(1, overlay.get());
        tvset::Put(std::move(overlay));
    } catch (const std::bad_alloc&) {
        tvset::ForgetOverlay();  // a snapshot without the text
    }
}

void TvSubtitles_Hide(void) {
    if (tvset::CurrentOverlay())
        tvset::Note(0, nullptr);
    tvset::ForgetOverlay();
}
