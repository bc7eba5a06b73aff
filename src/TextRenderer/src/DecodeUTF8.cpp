#include <cstdint>

#include "TextRenderer/src/FreeTypeRendererPimpl.h"

namespace opal {
namespace {

// Bytes of the sequence that begins with `lead`; 0 if none does.
size_t SequenceSize(uint8_t lead) {
    if (lead < 0x80)
        return 1;
    if (lead >= 0xC2 && lead <= 0xDF)
        return 2;
    if (lead >= 0xE0 && lead <= 0xEF)
        return 3;
    return lead >= 0xF0 && lead <= 0xF4 ? 4 : 0;
}

// Overlong forms, surrogates and what lies beyond the last plane have no legal second byte.
bool IsLegalSecond(uint8_t lead, uint8_t second) {
    const uint8_t lowest = lead == 0xE0 ? 0xA0 : lead == 0xF0 ? 0x90 : 0x80;
    const uint8_t highest = lead == 0xED ? 0x9F : lead == 0xF4 ? 0x8F : 0xBF;
    return second >= lowest && second <= highest;
}

}  // namespace

OPALError DecodeUTF8(const std::string& utf8, std::basic_string<unsigned long>& text) {
    text.clear();
    bool ended = false;
    for (size_t i = 0; i < utf8.size();) {
        const uint8_t lead = static_cast<uint8_t>(utf8[i]);
        const size_t size = SequenceSize(lead);
        if (size == 0 || size > utf8.size() - i)
            return OPAL_ERROR_GENERAL;
        unsigned long character = size == 1 ? lead : lead & (0x7Fu >> size);
        for (size_t k = 1; k < size; ++k) {
            const uint8_t byte = static_cast<uint8_t>(utf8[i + k]);
            if (k == 1 ? !IsLegalSecond(lead, byte) : (byte & 0xC0) != 0x80)
                return OPAL_ERROR_GENERAL;
            character = (character << 6) | (byte & 0x3Fu);
        }
        i += size;
        ended = ended || character == 0;
        if (!ended)
            text.push_back(character);
    }
    return text.empty() ? OPAL_ERROR_GENERAL : OPAL_OK;
}

}  // namespace opal
