#include "StreamingDemux/EBML/EBMLElement.h"

#include "StreamingDemux/EBML/EBMLReader.h"
#include "StreamingDemux/EBML/EBMLSchema.h"
#include "StreamingDemux/EBML/EBMLTree.h"

namespace {

/// Of a block group; more than that has only the cluster.
constexpr size_t kUsualChildren = 4;

}  // namespace

opal::ElementHeader EBMLElement::GetHeader() const {
    return opal::ReadHeader(m_start, m_tree->GetRemaining(m_start));
}

uint64_t EBMLElement::GetID() const {
    uint64_t id = 0;
    (void)ReadVInt(m_start, m_tree->GetRemaining(m_start), false, id);
    return id;
}

uint64_t EBMLElement::GetSize() const {
    return GetHeader().size;
}

const uint8_t* EBMLElement::GetData() const {
    return GetHeader().data;
}

uint64_t EBMLElement::GetTotalSize() const {
    const uint8_t* data = GetData();
    const uint8_t* start = GetStart();
    if (!data || !start)
        return 0;
    return static_cast<uint64_t>(data - start) + GetSize();
}

const uint8_t* EBMLElement::GetCompleteData() const {
    const uint8_t* data = GetData();
    if (!data || GetSize() > static_cast<uint64_t>(m_tree->GetRemaining(data)))
        return nullptr;
    return data;
}

EBMLElement* EBMLElement::FindFirstChild(uint64_t id) {
    EBMLElement* child = GetFirstChild();
    while (child && child->GetID() != id)
        child = GetNextChild();
    return child;
}

EBMLElement* EBMLElement::FindNextChild(uint64_t id) {
    EBMLElement* child = GetNextChild();
    while (child && child->GetID() != id)
        child = GetNextChild();
    return child;
}

const uint8_t* EBMLElement::GetFirstChildStart() const {
    const opal::ElementHeader header = GetHeader();
    if (header.size == 0 || !m_tree->GetSchema()->IsContainer(header.id))
        return nullptr;
    return header.data;
}

const uint8_t* EBMLElement::GetNextChildStart(const EBMLElement& child) const {
    const opal::ElementHeader header = GetHeader();
    const opal::ElementHeader childHeader = child.GetHeader();
    if (!header.data || !childHeader.data || !m_tree->GetSchema()->IsContainer(header.id))
        return nullptr;
    // Sizes stay below 2^56, so these sums hold in 64 bits; an address would not.
    const uint64_t offset =
        static_cast<uint64_t>(childHeader.data - header.data) + childHeader.size;
    const auto remaining = static_cast<uint64_t>(m_tree->GetRemaining(header.data));
    if (offset >= header.size || offset >= remaining)
        return nullptr;
    // Siblings tend to be about the same size, and to lie where the cache has not been yet.
    if (childHeader.size < remaining - offset)
        __builtin_prefetch(header.data + offset + childHeader.size);
    return header.data + offset;
}

boost::shared_ptr<EBMLElement> EBMLElement::CreateChild(const uint8_t* start) const {
    return m_tree->GetSchema()->CreateElement(*m_tree, start);
}

EBMLElement* EBMLElement_NoCache::GetFirstChild() {
    m_child = CreateChild(GetFirstChildStart());
    return m_child.get();
}

EBMLElement* EBMLElement_NoCache::GetNextChild() {
    if (!m_child)
        return nullptr;
    m_child = CreateChild(GetNextChildStart(*m_child));
    return m_child.get();
}

EBMLElement_CacheTree::EBMLElement_CacheTree(const EBMLTree& tree, const uint8_t* start)
    : EBMLElement(tree, start), m_children(tree.GetArena()) {}

EBMLElement* EBMLElement_CacheTree::AppendChild(const uint8_t* start) {
    if (!start || !GetTree().ReserveCachedElement())
        return nullptr;
    boost::shared_ptr<EBMLElement> child = CreateChild(start);
    if (!child)
        return nullptr;
    if (m_children.capacity() == 0)
        m_children.reserve(kUsualChildren);
    m_children.push_back(boost::move(child));
    return m_children.back().get();
}

EBMLElement* EBMLElement_CacheTree::GetFirstChild() {
    m_current = 0;
    if (!m_children.empty())
        return m_children.front().get();
    return AppendChild(GetFirstChildStart());
}

EBMLElement* EBMLElement_CacheTree::GetNextChild() {
    if (m_current == m_children.size())
        return nullptr;
    if (m_current + 1 == m_children.size() &&
        !AppendChild(GetNextChildStart(*m_children[m_current])))
        return nullptr;
    return m_children[++m_current].get();
}

EBMLElement_CacheData::EBMLElement_CacheData(const EBMLTree& tree, const uint8_t* start)
    : EBMLElement_CacheTree(tree, start) {
    const opal::ElementHeader header = GetHeader();
    m_id = header.id;
    m_size = header.size;
    m_data = header.data;
}
