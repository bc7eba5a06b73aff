#pragma once

#include <cstdint>
#include <memory>
#include <vector>

namespace tvset {

/// A text on the panel: how much each pixel is covered by white.
struct Overlay {
    unsigned width = 0;
    unsigned height = 0;
    std::vector<uint8_t> coverage;  ///< rows without a gap
};

/// The text that is on the panel now; null for none. Any thread.
std::shared_ptr<const Overlay> CurrentOverlay();

/// Forgets the text: the television is switched on anew.
void ForgetOverlay();

}  // namespace tvset
