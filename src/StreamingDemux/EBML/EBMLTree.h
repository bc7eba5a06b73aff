#pragma once

#include <boost/noncopyable.hpp>
#include <boost/shared_ptr.hpp>
#include <cstddef>
#include <cstdint>
#include <memory_resource>

class EBMLElement;
class EBMLSchema;

/// The tree of elements in one contiguous block of memory, starting with the element at its first
/// byte. Nothing is decoded ahead of time and no payload is copied.
///
/// Threading: none; walked by one thread at a time.
/// Ownership: owns its elements; neither schema nor buffer, which must outlive it.
/// Errors: a null or empty buffer, or one that does not begin with an identifier, has no root; the
/// operations of the root then answer 0 or null.
class EBMLTree : boost::noncopyable {
  public:
    /// How many elements the caching classes may keep. A cluster of some seconds has a few
    /// thousand; a hostile one, of the same bytes, could make them take a gigabyte.
    static constexpr size_t kMaxCachedElements = size_t{1} << 18;

    EBMLTree(const EBMLSchema* schema, const uint8_t* base, int64_t size);
    ~EBMLTree();

    const EBMLSchema* GetSchema() const { return m_schema; }
    /// Bytes of the buffer from `address` on.
    int64_t GetRemaining(const uint8_t* address) const { return m_size - (address - m_base); }

    uint64_t GetID() const;
    uint64_t GetSize() const;
    uint64_t GetTotalSize() const;
    const uint8_t* GetData() const;
    const uint8_t* GetStart() const;
    EBMLElement* GetFirstChild() const;
    EBMLElement* GetNextChild() const;
    EBMLElement* FindFirstChild(uint64_t id) const;
    EBMLElement* FindNextChild(uint64_t id) const;

    /// Where elements that live as long as the tree get their memory, in few large pieces.
    std::pmr::memory_resource* GetArena() const { return &m_arena; }
    /// For elements that keep their children: whether one more may be kept. A walk that gets false
    /// ends as at the end of the buffer.
    bool ReserveCachedElement() const {
        return m_cachedElements < kMaxCachedElements && ++m_cachedElements != 0;
    }

  private:
    const EBMLSchema* m_schema;
    const uint8_t* m_base;
    int64_t m_size;
    mutable size_t m_cachedElements = 0;
    mutable std::pmr::monotonic_buffer_resource m_arena;
    boost::shared_ptr<EBMLElement> m_root;
};
