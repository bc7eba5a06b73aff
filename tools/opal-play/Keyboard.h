#pragma once

#include <vector>

#include "opal-play/KeyDecoder.h"

namespace opal::play {

struct KeyPress {
    Key key = Key::None;
    char character = 0;
};

/// Single keys from the terminal at standard input. The terminal's mode is put back when the object
/// ends, and also on exit(), on a fatal signal and while the process is stopped.
class Keyboard {
  public:
    /// Without a terminal in the foreground there are no keys.
    Keyboard();
    ~Keyboard();
    Keyboard(const Keyboard&) = delete;
    Keyboard& operator=(const Keyboard&) = delete;

    /// To be polled for input; -1 without a terminal.
    int Fd() const;
    /// What has been pressed; does not wait.
    std::vector<KeyPress> Read();

  private:
    KeyDecoder m_decoder;
    bool m_active = false;
};

}  // namespace opal::play
