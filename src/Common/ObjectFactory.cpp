#include "Common/ObjectFactory.h"

namespace {

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
    opal::MutexLock lock(m_mutex);
    Insert(m_httpFileObjects, object, first);
}

void ObjectFactory::Register(const boost::shared_ptr<LogEventSenderObject>& object, bool first) {
    opal::MutexLock lock(m_mutex);
    Insert(m_logEventSenderObjects, object, first);
}

void ObjectFactory::Register(const boost::shared_ptr<ProtectedContentObject>& object, bool first) {
    opal::MutexLock lock(m_mutex);
    Insert(m_protectedContentObjects, object, first);
}

IHTTPFile* ObjectFactory::NewHTTPFile(bool threaded) {
    opal::MutexLock lock(m_mutex);
    const auto object = Find(m_httpFileObjects, 0);
    lock.Unlock();
    return object ? object->Create(threaded) : nullptr;
}

ILogEventSender* ObjectFactory::NewLogEventSender() {
    opal::MutexLock lock(m_mutex);
    const auto object = Find(m_logEventSenderObjects, m_logEventSenderKind);
    std::unique_ptr<LogEventSenderConfig> config;
    if (m_logEventSenderConfig)
        config = std::make_unique<LogEventSenderConfig>(*m_logEventSenderConfig);
    void* const extra = m_logEventSenderExtra;
    lock.Unlock();
    return object ? object->Create(config.get(), extra) : nullptr;
}

IProtectedContent* ObjectFactory::NewProtectedContent() {
    opal::MutexLock lock(m_mutex);
    const auto object = Find(m_protectedContentObjects, 0);
    lock.Unlock();
    return object ? object->Create() : nullptr;
}

int ObjectFactory::GetLogEventSenderKind() const {
    opal::MutexLock lock(m_mutex);
    return m_logEventSenderKind;
}

void ObjectFactory::SelectLogEventSender(int kind, const LogEventSenderConfig* config,
                                         void* extra) {
    opal::MutexLock lock(m_mutex);
    Select(kind, config, extra);
}

void ObjectFactory::Select(int kind, const LogEventSenderConfig* config, void* extra) {
    m_logEventSenderKind = kind;
    m_logEventSenderConfig.reset(config ? new LogEventSenderConfig(*config) : nullptr);
    m_logEventSenderExtra = extra;
}

void ObjectFactory::Reset() {
    opal::MutexLock lock(m_mutex);
    m_httpFileObjects.clear();
    m_logEventSenderObjects.clear();
    m_protectedContentObjects.clear();
    Select(kUploadSender, nullptr, nullptr);
}
