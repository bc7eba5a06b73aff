#include "ContentSession/src/ServiceSession.h"

#include <algorithm>

namespace {

/// Of former identifiers, the first among them; a service that renews more often than it speaks of
/// them is forgotten.
constexpr size_t kMostFormer = 16;

}  // namespace

void ServiceSession::SetId(const std::string& id) {
    opal::MutexLock lock(m_mutex);
    if (m_former.size() == kMostFormer)
        m_former.erase(m_former.begin() + 1);
    m_former.push_back(m_id);
    m_id = id;
}

/// Shorter ones are no credentials, and stand in many a word.
static constexpr size_t kLeastSecret = 3;

std::string ServiceSession::WithoutCredentials(const std::string& text, size_t most) const {
    std::vector<std::string> secrets;
    {
        opal::MutexLock lock(m_mutex);
        secrets = m_former;
        secrets.push_back(m_id);
        secrets.push_back(m_ticket);
    }
    // One may be the beginning of another.
    std::sort(secrets.begin(), secrets.end(),
              [](const std::string& a, const std::string& b) { return a.size() > b.size(); });
    std::string result;
    for (size_t at = 0; at < text.size() && result.size() < most;) {
        const auto found =
            std::find_if(secrets.begin(), secrets.end(), [&](const std::string& secret) {
                return secret.size() >= kLeastSecret &&
                       text.compare(at, secret.size(), secret) == 0;
            });
        if (found == secrets.end()) {
            result += text[at++];
        } else {
            result += "(withheld)";
            at += found->size();
        }
    }
    return result;
}
