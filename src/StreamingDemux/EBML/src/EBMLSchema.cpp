#include "StreamingDemux/EBML/EBMLSchema.h"

#include "Common/Assert.h"
#include "StreamingDemux/EBML/EBMLElement.h"
#include "StreamingDemux/EBML/EBMLReader.h"
#include "StreamingDemux/EBML/EBMLTree.h"

namespace {

EBMLSchema::ElementFactory& DefaultFactory(int policy) {
    static EBMLSchema::ElementFactory_Templ<EBMLElement_NoCache> noCache;
    static EBMLSchema::ElementFactory_Templ<EBMLElement_CacheTree> cacheTree;
    static EBMLSchema::ElementFactory_Templ<EBMLElement_CacheData> cacheData;
    switch (policy) {
        case EBMLElementPolicy_NoCache:
            return noCache;
        case EBMLElementPolicy_CacheTree:
            return cacheTree;
        default:
            OPAL_ASSERT(policy == EBMLElementPolicy_CacheData, "false");
            return cacheData;
    }
}

}  // namespace

bool EBMLSchema::AddContainer(uint64_t id) {
    if (id == 0)
        return false;
    m_containers[id];
    return true;
}

bool EBMLSchema::IsContainer(uint64_t id) const {
    return id != 0 && m_containers.find(id) != m_containers.end();
}

bool EBMLSchema::AddData(uint64_t id) {
    if (id == 0)
        return false;
    m_dataElements[id];
    return true;
}

bool EBMLSchema::IsData(uint64_t id) const {
    return id != 0 && m_dataElements.find(id) != m_dataElements.end();
}

bool EBMLSchema::AddFactory(uint64_t id, const boost::shared_ptr<ElementFactory>& factory) {
    if (!AddData(id))
        return false;
    m_dataElements[id] = factory;
    return true;
}

EBMLSchema::ElementFactory& EBMLSchema::FactoryFor(uint64_t id) const {
    for (const FactoryMap* map : {&m_containers, &m_dataElements}) {
        const auto entry = map->find(id);
        if (entry != map->end() && entry->second)
            return *entry->second;
    }
    return DefaultFactory(m_defaultPolicy);
}

boost::shared_ptr<EBMLElement> EBMLSchema::CreateElement(const EBMLTree& tree,
                                                         const uint8_t* start) const {
    if (!start)
        return {};
    uint64_t id = 0;
    if (ReadVInt(start, tree.GetRemaining(start), false, id) == 0)
        return {};
    return FactoryFor(id).Create(tree, start);
}
