#pragma once

#include <boost/make_shared.hpp>
#include <boost/shared_ptr.hpp>
#include <cstdint>
#include <map>
#include <memory_resource>

#include "StreamingDemux/EBML/EBMLTree.h"

class EBMLElement;

/// Which element classes keep what of the tree they have walked.
enum EBMLElementPolicy : int {
    EBMLElementPolicy_NoCache = 0,    ///< EBMLElement_NoCache
    EBMLElementPolicy_CacheTree = 1,  ///< EBMLElement_CacheTree
    EBMLElementPolicy_CacheData = 2   ///< EBMLElement_CacheData
};

/// Tells which identifiers are containers, and of which class an element is made.
///
/// Threading: filled once, right after construction; read-only and lock-free afterwards.
/// Ownership: must outlive the trees built with it.
class EBMLSchema {
  public:
    /// Makes elements of one class.
    class ElementFactory {
      public:
        virtual ~ElementFactory() = default;
        /// A new element.
        virtual boost::shared_ptr<EBMLElement> Create(const EBMLTree& tree,
                                                      const uint8_t* start) = 0;
    };

    template <typename T>
    class ElementFactory_Templ : public ElementFactory {
      public:
        boost::shared_ptr<EBMLElement> Create(const EBMLTree& tree, const uint8_t* start) override {
            if constexpr (T::kIsKept)
                return boost::allocate_shared<T>(
                    std::pmr::polymorphic_allocator<T>(tree.GetArena()), tree, start);
            else
                return boost::make_shared<T>(tree, start);
        }
    };

    EBMLSchema() = default;
    virtual ~EBMLSchema() = default;
    EBMLSchema(const EBMLSchema&) = delete;
    EBMLSchema& operator=(const EBMLSchema&) = delete;

    /// These four are false for identifier 0, which is none.
    bool AddContainer(uint64_t id);
    bool IsContainer(uint64_t id) const;
    bool AddData(uint64_t id);
    bool IsData(uint64_t id) const;
    /// Makes `id` a data element made by `factory`. False for identifier 0.
    bool AddFactory(uint64_t id, const boost::shared_ptr<ElementFactory>& factory);

    /// The class of elements that no factory is stored for; anything but the three policies fails
    /// the assertion "false" when the first such element is made.
    void SetDefaultPolicy(int policy) { m_defaultPolicy = policy; }
    int GetDefaultPolicy() const { return m_defaultPolicy; }

    /// The element at `start`, or null if there is none: that is how every walk ends at the end of
    /// the buffer. Identifiers that the schema does not know get the default class.
    boost::shared_ptr<EBMLElement> CreateElement(const EBMLTree& tree, const uint8_t* start) const;

  private:
    using FactoryMap = std::map<uint64_t, boost::shared_ptr<ElementFactory>>;

    ElementFactory& FactoryFor(uint64_t id) const;

    FactoryMap m_containers;
    FactoryMap m_dataElements;
    int m_defaultPolicy = EBMLElementPolicy_NoCache;
};
