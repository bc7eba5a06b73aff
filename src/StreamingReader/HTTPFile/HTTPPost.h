#pragma once

#include <cstdint>
#include <string>

#include "StreamingReader/HTTPFile/HTTPConnection.h"

namespace opal {

/// One HTTP POST, or several one after the other: a document out, a short reply in. No redirect is
/// followed.
///
/// Threading: one call at a time.
/// Ownership: the signal, which may be null, is not owned.
class HTTPPost {
  public:
    explicit HTTPPost(const ServiceTimeouts& timeouts) : m_timeouts(timeouts) {}

    /// Once the signal is raised, what runs and what is still to come has `graceMs` together: time
    /// for a last document to a service that answers.
    void SetStopSignal(const StopSignal* stop, int64_t graceMs);

    /// True when a reply of status 200 to 299 came; at most 64 KiB of it are kept.
    [[nodiscard]] bool Perform(const std::string& url, const std::string& contentType,
                               const std::string& body, std::string& reply);

  private:
    bool MayGoOn();

    ServiceTimeouts m_timeouts;
    const StopSignal* m_stop = nullptr;
    int64_t m_graceMs = 0;
    int64_t m_graceUntilMs = -1;
};

}  // namespace opal
