#include "opal-play/Observer.h"

#include <chrono>
#include <fstream>
#include <sstream>
#include <utility>

#include "Common/OPALVersion.h"
#include "recording/SessionNames.h"
#include "recording/SessionWriter.h"

namespace opal::play {
namespace {

constexpr std::chrono::milliseconds kBehind(200);

/// The library's settings file, as the library reads it; empty without one.
std::string Settings() {
    constexpr size_t kMost = 1 << 20;
    std::ostringstream text;
    const std::ifstream file("kmt_ssa_config.xml", std::ios::binary);
    if (file)
        text << file.rdbuf();
    return text.str().size() <= kMost ? text.str() : std::string();
}

/// As the library's clock tells it.
int64_t NowUs() {
    return std::chrono::duration_cast<std::chrono::microseconds>(
               std::chrono::system_clock::now().time_since_epoch())
        .count();
}

}  // namespace

void Observer::Record(const std::string& source, LineSink sink) {
    const std::lock_guard<std::mutex> lock(m_lineMutex);
    recording::Header header;
    header.tool = "opal-play";
    header.library = OPALVersionText();
    header.startUs = m_startUs = NowUs();
    header.source = source;
    header.settings = Settings();
    m_sink = std::move(sink);
    m_sink(recording::ToLine(header));
}

void Observer::Write(const recording::Record& record) {
    const std::lock_guard<std::mutex> lock(m_lineMutex);
    if (m_sink)
        m_sink(recording::ToLine(record, m_startUs));
}

void Observer::Add(recording::Record record) {
    std::visit([](auto& event) { event.timeUs = NowUs(); }, record);
    Write(record);
}

NetworkFigures Observer::Figures() const {
    const std::lock_guard<std::mutex> lock(m_mutex);
    return m_figures;
}

LiveFigures Observer::Live() const {
    const std::lock_guard<std::mutex> lock(m_mutex);
    return m_live;
}

MediaFailure Observer::FailureBehind(OPALError code) {
    std::unique_lock<std::mutex> lock(m_mutex);
    (void)m_failed.wait_for(lock, kBehind,
                            [&] { return m_error == code || m_failure.code == code; });
    return m_failure;
}

void Observer::OnRequest(const RequestEvent& event) {
    {
        const std::lock_guard<std::mutex> lock(m_mutex);
        const bool cluster = event.purpose == RequestPurpose::Cluster && event.result == OPAL_OK;
        const int64_t us = event.waitUs + event.transferUs;
        m_live.bytes += static_cast<uint64_t>(event.bytes);
        if (cluster) {
            ++m_figures.clusters;
            m_figures.unmeasured += us < 1000;
            m_figures.bytes += static_cast<uint64_t>(event.bytes);
        }
        if (cluster && event.stream == OPAL_STREAM_VIDEO && us > 0) {
            m_live.lastBitsPerSecond = event.bytes * 8 * 1000000 / us;
            m_live.lastWaitMs = event.waitUs / 1000;
        }
        if (cluster)
            m_urls[{event.stream, event.index}] = event.url;
        if (event.purpose == RequestPurpose::Cluster && event.end == RequestEnd::Failed)
            m_failure = {event.url, event.result, false, -1};
        else if (event.result == OPAL_OK && event.url == m_failure.url)
            m_failure = {};  // it was got over
    }
    Write(event);
}

void Observer::OnDecision(const DecisionEvent& event) {
    {
        const std::lock_guard<std::mutex> lock(m_mutex);
        m_live.rule = recording::Name(event.rule);
        m_live.steady = event.mode != 0;
    }
    Write(event);
}

void Observer::OnSwitchingCall(const SwitchingCallEvent& event) {
    Write(event);
}

void Observer::OnLevelIndex(const LevelIndexEvent& event) {
    Write(event);
}

void Observer::OnBuffers(const BufferEvent& event) {
    {
        const std::lock_guard<std::mutex> lock(m_mutex);
        if (event.bandwidth > 0)
            m_figures.linkBitsPerSecond = event.bandwidth;
        m_live.linkBitsPerSecond = event.bandwidth;
        m_live.videoMs = event.videoMs;
        m_live.audioMs = event.audioMs;
        m_live.requiredMs = event.requiredVideoMs;
    }
    Write(event);
}

void Observer::OnState(const StateEvent& event) {
    {
        const std::lock_guard<std::mutex> lock(m_mutex);
        if (event.state == SessionState::MediaFailed)
            m_failure = {event.text, event.code, event.valueMs != 0, -1};
        if (event.state == SessionState::ClusterDamaged)
            m_failure = {m_urls[{event.stream, event.to}], event.code, true, event.cluster};
        if (event.state == SessionState::Error)
            m_error = event.code;
        m_failed.notify_all();
    }
    Write(event);
}

void Observer::OnSink(const SinkEvent& event) {
    Write(event);
}

void Observer::OnDropped(uint64_t total) {
    recording::DroppedEvent event;
    event.total = static_cast<int64_t>(total);
    Add(event);
}

}  // namespace opal::play
