#include "opal-play/KeyDecoder.h"

namespace opal::play {
namespace {

constexpr char kEscape = '\x1b';
constexpr size_t kLongestSequence = 16;

Key Arrow(char last) {
    switch (last) {
        case 'A':
            return Key::Up;
        case 'B':
            return Key::Down;
        case 'C':
            return Key::Right;
        case 'D':
            return Key::Left;
        default:
            return Key::None;
    }
}

}  // namespace

bool KeyDecoder::Feed(char byte, Key& key, char& character) {
    key = Key::None;
    if (byte == kEscape) {
        m_sequence = byte;
        return false;
    }
    if (m_sequence.empty()) {
        key = Key::Character;
        character = byte;
        return true;
    }
    // ESC [ or ESC O begins a sequence that a letter or tilde ends; ESC and anything else is a key
    // of no meaning.
    const bool intro = m_sequence.size() == 1 && (byte == '[' || byte == 'O');
    const bool inside = m_sequence.size() > 1 && byte < '@' && m_sequence.size() < kLongestSequence;
    if (intro || inside) {
        m_sequence += byte;
        return false;
    }
    const bool plain = m_sequence.size() == 2;
    m_sequence.clear();
    key = plain ? Arrow(byte) : Key::None;
    return key != Key::None;
}

}  // namespace opal::play
