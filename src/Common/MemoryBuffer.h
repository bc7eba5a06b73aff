#pragma once

#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <limits>
#include <type_traits>

namespace qutl {

/// A growable array that owns its storage: what a cluster's bytes travel in. `Attach` hands the
/// storage on without a copy.
///
/// Threading: none; a buffer belongs to one thread at a time.
/// Ownership: frees its storage on destruction. Copies are deep.
/// Units: sizes in elements.
/// Errors: allocation never throws; after a failed one the buffer is empty.
template <typename T>
class MemoryBuffer {
    static_assert(std::is_trivially_copyable<T>::value, "elements are moved as bytes");

  public:
    MemoryBuffer() = default;
    MemoryBuffer(const MemoryBuffer& other) { Assign(other.m_data, other.m_size, 0, false); }
    MemoryBuffer& operator=(const MemoryBuffer& other) {
        if (this != &other)
            Assign(other.m_data, other.m_size, 0, false);
        return *this;
    }
    virtual ~MemoryBuffer() { std::free(m_data); }

    /// Takes on `size` elements, content not kept, zeroed if `clear`. The same size keeps the same
    /// storage; 0 leaves a null pointer. Zeroed storage is lazily zero, so that a large size costs
    /// nothing before it is touched.
    void Resize(size_t size, bool clear) {
        if (size == m_size) {
            if (clear && m_data)
                std::memset(static_cast<void*>(m_data), 0, m_size * sizeof(T));
            return;
        }
        std::free(m_data);
        m_data = nullptr;
        m_size = 0;
        if (size == 0 || size > std::numeric_limits<size_t>::max() / sizeof(T))
            return;
        m_data =
            static_cast<T*>(clear ? std::calloc(size, sizeof(T)) : std::malloc(size * sizeof(T)));
        if (m_data)
            m_size = size;
    }

    /// Copies `size` elements and leaves room for `padding` more behind them, zeroed if
    /// `clearPadding`. `source` must not lie in this buffer.
    void Assign(const T* source, size_t size, size_t padding, bool clearPadding) {
        if (padding > std::numeric_limits<size_t>::max() - size) {
            Resize(0, false);
            return;
        }
        Resize(size + padding, false);
        if (!m_data)
            return;
        if (size != 0)
            std::memcpy(static_cast<void*>(m_data), source, size * sizeof(T));
        if (clearPadding && padding != 0)
            std::memset(static_cast<void*>(m_data + size), 0, padding * sizeof(T));
    }

    /// Drops the own storage and takes over the other buffer's, which is left empty.
    void Attach(MemoryBuffer& other) {
        if (this == &other)
            return;
        std::free(m_data);
        m_data = other.m_data;
        m_size = other.m_size;
        other.m_data = nullptr;
        other.m_size = 0;
    }

    T* GetData() { return m_data; }
    const T* GetData() const { return m_data; }
    size_t GetSize() const { return m_size; }
    bool IsEmpty() const { return m_data == nullptr; }

  private:
    T* m_data = nullptr;
    size_t m_size = 0;
};

}  // namespace qutl
