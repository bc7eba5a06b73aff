#pragma once

#include <boost/noncopyable.hpp>
#include <boost/shared_ptr.hpp>
#include <memory>
#include <vector>

#include "Common/Mutex.h"
#include "Common/logging/LogEventSenderConfig.h"

class IHTTPFile;
class ILogEventSender;
class IProtectedContent;

/// Makes products of type `Product` for the kinds it accepts.
template <typename Product, typename... Arguments>
class FactoryObject : boost::noncopyable {
  public:
    virtual ~FactoryObject() = default;
    virtual bool Accepts(int kind) const = 0;
    /// A new product, owned by the caller; null on failure.
    virtual Product* Create(Arguments... arguments) = 0;
};

using HTTPFileObject = FactoryObject<IHTTPFile, bool>;
using LogEventSenderObject = FactoryObject<ILogEventSender, const LogEventSenderConfig*, void*>;
using ProtectedContentObject = FactoryObject<IProtectedContent>;

/// The process-wide object factory: per product a selected kind with its arguments, and a list of
/// factory objects of which the first that accepts the kind creates the product. It knows the
/// products by their interfaces only; the production objects are registered in one place by the
/// streaming controller.
///
/// Threading: any operation from any thread. Products are created with no lock held, so that a
/// product may ask for another.
/// Errors: a product that no object accepts is null.
class ObjectFactory : boost::noncopyable {
  public:
    /// Kinds of log senders.
    static constexpr int kUploadSender = 0;
    static constexpr int kArrangedSender =
        1;  ///< arranged ahead of the controller, by the application
    static constexpr int kNullSender = 2;

    static ObjectFactory& Instance();

    /// Objects registered later come later in the list. A registration with `first` goes to the
    /// front: that is how a test puts a fake in place.
    void Register(const boost::shared_ptr<HTTPFileObject>& object, bool first = false);
    void Register(const boost::shared_ptr<LogEventSenderObject>& object, bool first = false);
    void Register(const boost::shared_ptr<ProtectedContentObject>& object, bool first = false);

    /// A blocking file, or a queueing one with a worker thread when `threaded`.
    IHTTPFile* NewHTTPFile(bool threaded);
    ILogEventSender* NewLogEventSender();
    IProtectedContent* NewProtectedContent();

    int GetLogEventSenderKind() const;
    /// `config` is copied; null means none.
    void SelectLogEventSender(int kind, const LogEventSenderConfig* config, void* extra);

    /// For tests: forgets every registration and selection.
    void Reset();

  private:
    void Select(int kind, const LogEventSenderConfig* config, void* extra) OPAL_REQUIRES(m_mutex);

    mutable opal::Mutex m_mutex;
    std::vector<boost::shared_ptr<HTTPFileObject>> m_httpFileObjects OPAL_GUARDED_BY(m_mutex);
    std::vector<boost::shared_ptr<LogEventSenderObject>> m_logEventSenderObjects
        OPAL_GUARDED_BY(m_mutex);
    std::vector<boost::shared_ptr<ProtectedContentObject>> m_protectedContentObjects
        OPAL_GUARDED_BY(m_mutex);
    int m_logEventSenderKind OPAL_GUARDED_BY(m_mutex) = kUploadSender;
    std::unique_ptr<LogEventSenderConfig> m_logEventSenderConfig OPAL_GUARDED_BY(m_mutex);
    void* m_logEventSenderExtra OPAL_GUARDED_BY(m_mutex) = nullptr;
};
