#pragma once

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <memory>
#include <string>
#include <vector>

#include "Common/MemoryBuffer.h"

namespace opal::test {

using Bytes = std::vector<uint8_t>;

inline Bytes Hex(const std::string& digits) {
    Bytes bytes;
    for (size_t i = 0; i + 1 < digits.size(); i += 2)
        bytes.push_back(
            static_cast<uint8_t>(std::strtoul(digits.substr(i, 2).c_str(), nullptr, 16)));
    return bytes;
}

inline Bytes Text(const std::string& text) {
    return Bytes(text.begin(), text.end());
}

/// The first `size` bytes in a block of exactly that size, so that the address sanitizer sees any
/// read beyond them.
class ExactBytes {
  public:
    explicit ExactBytes(const Bytes& bytes) : ExactBytes(bytes, bytes.size()) {}
    ExactBytes(const Bytes& bytes, size_t size) : m_data(new uint8_t[size]), m_size(size) {
        std::copy_n(bytes.begin(), size, m_data.get());
    }
    const uint8_t* data() const { return m_data.get(); }
    int64_t size() const { return static_cast<int64_t>(m_size); }

  private:
    std::unique_ptr<uint8_t[]> m_data;
    size_t m_size;
};

/// Has storage of exactly `size` bytes, too.
inline void Fill(qutl::MemoryBuffer<unsigned char>& buffer, const Bytes& bytes, size_t size) {
    buffer.Assign(bytes.data(), size, 0, false);
}

/// One element: identifier, an eight-byte size field, and its payload.
inline Bytes Element(uint64_t id, const std::vector<Bytes>& payload) {
    Bytes content;
    for (const Bytes& part : payload)
        content.insert(content.end(), part.begin(), part.end());
    Bytes bytes;
    for (int shift = 56; shift >= 0; shift -= 8) {
        if ((id >> shift) != 0)
            bytes.push_back(static_cast<uint8_t>(id >> shift));
    }
    bytes.push_back(1);
    for (int shift = 48; shift >= 0; shift -= 8)
        bytes.push_back(static_cast<uint8_t>(uint64_t{content.size()} >> shift));
    bytes.insert(bytes.end(), content.begin(), content.end());
    return bytes;
}

inline std::string ToHex(const qutl::MemoryBuffer<unsigned char>& buffer) {
    static const char* const kDigits = "0123456789abcdef";
    std::string text;
    for (size_t i = 0; i < buffer.GetSize(); ++i) {
        text += kDigits[buffer.GetData()[i] >> 4];
        text += kDigits[buffer.GetData()[i] & 15];
    }
    return text;
}

}  // namespace opal::test
