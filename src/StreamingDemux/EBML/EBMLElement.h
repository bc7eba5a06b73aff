#pragma once

#include <boost/noncopyable.hpp>
#include <boost/shared_ptr.hpp>
#include <cstddef>
#include <cstdint>
#include <memory_resource>
#include <vector>

class EBMLTree;

namespace opal {
struct ElementHeader;
}

/// One element of a tree: a pointer to its first byte in the caller's buffer, from which everything
/// is read when asked. An element may claim more payload than the buffer holds: a container is then
/// walked up to the buffer's end, which is what makes a partly fetched cluster readable. EBML's
/// "unknown size" is no special case, only a huge size.
///
/// The search operations move the walking position of their element, so a search inside a walk over
/// the same element disturbs that walk.
///
/// Threading: none; a tree is walked by one thread at a time.
/// Ownership: elements own their children; tree and buffer must outlive them.
/// Errors: 0 or null for what the buffer does not cover.
class EBMLElement : boost::noncopyable {
  public:
    /// Whether elements of a class live as long as their tree, and so in its arena.
    static constexpr bool kIsKept = false;

    EBMLElement(const EBMLTree& tree, const uint8_t* start) : m_tree(&tree), m_start(start) {}
    virtual ~EBMLElement() = default;

    virtual uint64_t GetID() const;
    /// Of the payload, as stated.
    virtual uint64_t GetSize() const;
    /// Header and payload.
    virtual uint64_t GetTotalSize() const;
    virtual const uint8_t* GetData() const;
    virtual const uint8_t* GetStart() const { return m_start; }
    virtual EBMLElement* GetFirstChild() = 0;
    virtual EBMLElement* GetNextChild() = 0;
    virtual EBMLElement* FindFirstChild(uint64_t id);
    virtual EBMLElement* FindNextChild(uint64_t id);

    /// The payload's address if all of it lies in the buffer, else null.
    const uint8_t* GetCompleteData() const;

  protected:
    const EBMLTree& GetTree() const { return *m_tree; }
    opal::ElementHeader GetHeader() const;
    /// Where the first child stands, and the one behind `child`; null where the walk ends.
    const uint8_t* GetFirstChildStart() const;
    const uint8_t* GetNextChildStart(const EBMLElement& child) const;
    boost::shared_ptr<EBMLElement> CreateChild(const uint8_t* start) const;

  private:
    const EBMLTree* m_tree;
    const uint8_t* m_start;
};

/// Keeps only the current child: bounds the memory of a one-way walk. A child dies with its
/// parent's next step.
class EBMLElement_NoCache : public EBMLElement {
  public:
    using EBMLElement::EBMLElement;
    EBMLElement* GetFirstChild() override;
    EBMLElement* GetNextChild() override;

  private:
    boost::shared_ptr<EBMLElement> m_child;
};

/// Makes each child once and keeps it as long as the tree lives, so that walking again costs no
/// parsing. The tree bounds how many are kept.
class EBMLElement_CacheTree : public EBMLElement {
  public:
    static constexpr bool kIsKept = true;

    EBMLElement_CacheTree(const EBMLTree& tree, const uint8_t* start);
    EBMLElement* GetFirstChild() override;
    EBMLElement* GetNextChild() override;

  private:
    EBMLElement* AppendChild(const uint8_t* start);

    std::pmr::vector<boost::shared_ptr<EBMLElement>> m_children;
    size_t m_current = 0;
};

/// Reads identifier, size and payload address once.
class EBMLElement_CacheData : public EBMLElement_CacheTree {
  public:
    EBMLElement_CacheData(const EBMLTree& tree, const uint8_t* start);
    uint64_t GetID() const override { return m_id; }
    uint64_t GetSize() const override { return m_size; }
    const uint8_t* GetData() const override { return m_data; }

  private:
    uint64_t m_id = 0;
    uint64_t m_size = 0;
    const uint8_t* m_data = nullptr;
};
