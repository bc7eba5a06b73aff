#pragma once

#include <boost/noncopyable.hpp>
#include <cstddef>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "Common/Mutex.h"
#include "StreamingReader/HTTPFile/HTTPConnection.h"

using ServiceConnectionMaker =
    std::function<std::unique_ptr<opal::IServiceConnection>(const opal::ServiceTimeouts&)>;

/// The framework session: by what the client is known to the services, and how it reaches them.
///
/// Its texts are credentials: nothing prints or logs them.
///
/// Threading: any operation from any thread; the upload of the log shares the session.
class ServiceSession : boost::noncopyable {
  public:
    ServiceSession(const std::string& id, const opal::ServiceTimeouts& timeouts,
                   ServiceConnectionMaker maker)
        : m_timeouts(timeouts), m_maker(std::move(maker)), m_id(id) {}

    std::string GetId() const {
        opal::MutexLock lock(m_mutex);
        return m_id;
    }
    /// After a renewal.
    void SetId(const std::string& id);
    std::string GetTicket() const {
        opal::MutexLock lock(m_mutex);
        return m_ticket;
    }
    void SetTicket(const std::string& ticket) {
        opal::MutexLock lock(m_mutex);
        m_ticket = ticket;
    }
    /// What a service says, `most` bytes of it or a little more, for people and logs: a service may
    /// repeat what it was sent.
    std::string WithoutCredentials(const std::string& text, size_t most) const;
    std::unique_ptr<opal::IServiceConnection> NewConnection() const { return m_maker(m_timeouts); }
    const opal::ServiceTimeouts& GetTimeouts() const { return m_timeouts; }

  private:
    const opal::ServiceTimeouts m_timeouts;
    const ServiceConnectionMaker m_maker;
    mutable opal::Mutex m_mutex;
    std::string m_id OPAL_GUARDED_BY(m_mutex);
    std::vector<std::string> m_former OPAL_GUARDED_BY(m_mutex);  ///< identifiers before renewals
    std::string m_ticket OPAL_GUARDED_BY(m_mutex);
};
