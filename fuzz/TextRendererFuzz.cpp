// A text, drawn with a font that has been changed. The first byte says how many changes of four
// bytes follow (an offset of three, a value); 255 says that instead a text of a length of two bytes
// follows and behind it a font of its own. Then the width in tens of pixels, and the text.

#include <algorithm>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#include "Common/Assert.h"
#include "TextRenderer/FreeTypeRenderer.h"

namespace {

constexpr int kCanvasWidth = 320;
constexpr int kCanvasHeight = 180;
constexpr size_t kGuard = 4096;
constexpr uint8_t kGuardByte = 0xA5;

std::string Take(const uint8_t*& data, size_t& size, size_t count) {
    count = std::min(count, size);
    const std::string taken(data, data + count);
    data += count;
    size -= count;
    return taken;
}

size_t Number(const std::string& bytes) {
    size_t value = 0;
    for (const char byte : bytes)
        value = value << 8 | static_cast<uint8_t>(byte);
    return value;
}

const std::string& DejaVu() {
    static const std::string font = [] {
        std::ifstream file("/usr/share/fonts/truetype/dejavu/DejaVuSans.ttf", std::ios::binary);
        return std::string{std::istreambuf_iterator<char>(file), {}};
    }();
    OPAL_ASSERT(!font.empty(), "the font is installed");
    return font;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    std::string font;
    std::string text;
    const size_t changes = Number(Take(data, size, 1));
    if (changes == 255) {
        text = Take(data, size, Number(Take(data, size, 2)));
        font = Take(data, size, size);
    } else {
        font = DejaVu();
        for (size_t i = 0; i < changes; ++i) {
            const size_t offset = Number(Take(data, size, 3));
            font[offset % font.size()] = static_cast<char>(Number(Take(data, size, 1)));
        }
    }
    const int32_t width = static_cast<int32_t>(Number(Take(data, size, 1))) * 10;
    if (changes != 255)
        text = Take(data, size, size);

    FreeTypeRenderer renderer;
    if (renderer.InitializeFromMemory(font.data(), font.size(), 30) != OPAL_OK)
        return 0;
    for (const uint32_t format : {FreeTypeRenderer::kRGBA32, FreeTypeRenderer::kAlpha}) {
        const size_t bytes = size_t{kCanvasWidth} * kCanvasHeight *
                             (format == FreeTypeRenderer::kAlpha ? 1 : sizeof(uint32_t));
        std::vector<uint32_t> canvas((bytes + kGuard) / sizeof(uint32_t), 0xA5A5A5A5u);
        const OPALError result =
            renderer.Render(text, kCanvasWidth, kCanvasHeight, {10, 20, 10 + width, 170},
                            static_cast<uint32_t>(text.size() % 16), format, canvas.data());
        OPAL_ASSERT(result == OPAL_OK, "a text is drawn or is not");
        const auto* guard = reinterpret_cast<const uint8_t*>(canvas.data()) + bytes;
        OPAL_ASSERT(
            std::all_of(guard, guard + kGuard, [](uint8_t byte) { return byte == kGuardByte; }),
            "nothing is drawn beyond the canvas");
    }
    return 0;
}
