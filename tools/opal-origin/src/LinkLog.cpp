#include "opal-origin/src/LinkLog.h"

#include <algorithm>
#include <nlohmann/json.hpp>

#include "Common/OPALVersion.h"

namespace opal::origin {
namespace {

using std::chrono::duration_cast;
using std::chrono::microseconds;

}  // namespace

bool LinkLog::Open(const std::string& path) {
    m_start = std::chrono::steady_clock::now();
    const auto now = std::chrono::system_clock::now().time_since_epoch();
    m_file.open(path, std::ios::trunc);
    m_file << nlohmann::json{{"event", "recording"},
                             {"t_us", 0},
                             {"version", 1},
                             {"tool", "opal-origin"},
                             {"library", OPAL_VERSION_TEXT},
                             {"start_us", duration_cast<microseconds>(now).count()}}
           << "\n";
    Write(0, m_script.steps.empty() ? kUnlimited : m_script.steps.front().bitsPerSecond);
    return m_file.good();
}

void LinkLog::Follow(std::chrono::nanoseconds scriptTime) {
    if (scriptTime.count() < 0)
        return;
    if (m_scriptStartUs < 0) {
        const auto start = std::chrono::steady_clock::now() - m_start - scriptTime;
        m_scriptStartUs = std::max<int64_t>(duration_cast<microseconds>(start).count(), 0);
    }
    const int64_t nowMs = duration_cast<std::chrono::milliseconds>(scriptTime).count();
    while (m_next < m_script.steps.size() && m_loopMs + m_script.steps[m_next].atMs <= nowMs) {
        const RateScript::Step& step = m_script.steps[m_next++];
        Write(m_scriptStartUs + (m_loopMs + step.atMs) * 1000, step.bitsPerSecond);
        if (m_next == m_script.steps.size() && m_script.loopMs > 0) {
            m_next = 0;
            m_loopMs += m_script.loopMs;
        }
    }
}

void LinkLog::Write(int64_t atUs, int64_t bitsPerSecond) {
    nlohmann::json event = {{"event", "link"}, {"t_us", atUs}, {"bps", nullptr}};
    if (bitsPerSecond >= 0)
        event["bps"] = bitsPerSecond;
    m_file << event << "\n" << std::flush;
}

}  // namespace opal::origin
