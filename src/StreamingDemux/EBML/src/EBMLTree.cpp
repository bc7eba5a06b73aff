#include "StreamingDemux/EBML/EBMLTree.h"

#include "StreamingDemux/EBML/EBMLElement.h"
#include "StreamingDemux/EBML/EBMLSchema.h"

EBMLTree::EBMLTree(const EBMLSchema* schema, const uint8_t* base, int64_t size)
    : m_schema(schema), m_base(base), m_size(size) {
    m_root = schema->CreateElement(*this, base);
}

EBMLTree::~EBMLTree() = default;

uint64_t EBMLTree::GetID() const {
    return m_root ? m_root->GetID() : 0;
}

uint64_t EBMLTree::GetSize() const {
    return m_root ? m_root->GetSize() : 0;
}

uint64_t EBMLTree::GetTotalSize() const {
    return m_root ? m_root->GetTotalSize() : 0;
}

const uint8_t* EBMLTree::GetData() const {
    return m_root ? m_root->GetData() : nullptr;
}

const uint8_t* EBMLTree::GetStart() const {
    return m_root ? m_root->GetStart() : nullptr;
}

EBMLElement* EBMLTree::GetFirstChild() const {
    return m_root ? m_root->GetFirstChild() : nullptr;
}

EBMLElement* EBMLTree::GetNextChild() const {
    return m_root ? m_root->GetNextChild() : nullptr;
}

EBMLElement* EBMLTree::FindFirstChild(uint64_t id) const {
    return m_root ? m_root->FindFirstChild(id) : nullptr;
}

EBMLElement* EBMLTree::FindNextChild(uint64_t id) const {
    return m_root ? m_root->FindNextChild(id) : nullptr;
}
