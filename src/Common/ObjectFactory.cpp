#include "Common/ObjectFactory.h"

#include <boost/thread/lock_guard.hpp>

namespace {

using Lock = boost::lock_guard<boost::recursive_mutex>;

template <typename List, typename Object>
void Insert(List& list, const Object& object, bool first) {
    list.insert(first ? list.begin() : list.end(), object);
}

template <typename List>
auto Find(const List& list, int kind) -> typename List::value_type {
    for (const auto& object : list) {
        if (object->Accepts(kind))
            return object;
    }
    return {};
}

}  // namespace

ObjectFactory& ObjectFactory::Instance() {
    static ObjectFactory factory;
    return factory;
}

void ObjectFactory::Register(const boost::shared_ptr<HTTPFileObject>& object, bool first) {
    Lock lock(m_mutex);
    Insert(m_httpFileObjects, object, first);
}

void ObjectFactory::Register(const boost::shared_ptr<LogEventSenderObject>& object, bool first) {
    Lock lock(m_mutex);
    Insert(m_logEventSenderObjects, object, first);
}

void ObjectFactory::Register(const boost::shared_ptr<ProtectedContentObject>& object, bool first) {
    Lock lock(m_mutex);
    Insert(m_protectedContentObjects, object, first);
}

IHTTPFile* ObjectFactory::NewHTTPFile(bool threaded) {
    Lock lock(m_mutex);
    const auto object = Find(m_httpFileObjects, 0);
    return object ? object->Create(threaded) : nullptr;
}

ILogEventSender* ObjectFactory::NewLogEventSender() {
    Lock lock(m_mutex);
    const auto object = Find(m_logEventSenderObjects, m_logEventSenderKind);
    return object ? object->Create(m_logEventSenderConfig.get(), m_logEventSenderExtra) : nullptr;
}

IProtectedContent* ObjectFactory::NewProtectedContent() {
    Lock lock(m_mutex);
    const auto object = Find(m_protectedContentObjects, 0);
    return object ? object->Create() : nullptr;
}

int ObjectFactory::GetLogEventSenderKind() const {
    Lock lock(m_mutex);
    return m_logEventSenderKind;
}

void ObjectFactory::SelectLogEventSender(int kind, const LogEventSenderConfig* config,
                                         void* extra) {
    Lock lock(m_mutex);
    m_logEventSenderKind = kind;
    m_logEventSenderConfig.reset(config ? new LogEventSenderConfig(*config) : nullptr);
    m_logEventSenderExtra = extra;
}

void ObjectFactory::Reset() {
    Lock lock(m_mutex);
    m_httpFileObjects.clear();
    m_logEventSenderObjects.clear();
    m_protectedContentObjects.clear();
    SelectLogEventSender(kUploadSender, nullptr, nullptr);
}
