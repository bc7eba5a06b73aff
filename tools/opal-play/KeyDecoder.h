#pragma once

#include <string>

namespace opal::play {

enum class Key { None, Left, Right, Up, Down, Character };

/// Keys out of the bytes of a terminal, which come cut anywhere.
class KeyDecoder {
  public:
    /// True when `byte` completes a key; `character` is set for Key::Character.
    bool Feed(char byte, Key& key, char& character);

  private:
    std::string m_sequence;
};

}  // namespace opal::play
