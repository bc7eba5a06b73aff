#include "StreamingController/src/TicketSession.h"

#include <algorithm>
#include <exception>

#include "ContentSession/IProtectedContent.h"
#include "StreamSwitchingAlgorithm/AlgorithmConfig.h"
#include "StreamingController/PlayReportConfig.h"

namespace opal {
namespace {

constexpr size_t kMostReports = 64;
constexpr size_t kMostFailures = 64;

/// Codes whose meaning, and words, are the content session's.
bool IsContentError(OPALError code) {
    switch (code) {
        case OPAL_ERROR_CONTENT_SESSION:
        case OPAL_ERROR_SERVICE_20:
        case OPAL_ERROR_SERVICE_21:
        case OPAL_ERROR_SERVICE_24:
        case OPAL_ERROR_SERVICE_27:
            return true;
        default:
            return false;
    }
}

bool IsPeriodic(const PlayReport& report) {
    return report.state == PlayReport::Playing || report.state == PlayReport::WritersPaused;
}

qutl::MemoryBuffer<unsigned char> ToBuffer(const std::string& text) {
    qutl::MemoryBuffer<unsigned char> buffer;
    buffer.Assign(reinterpret_cast<const unsigned char*>(text.data()), text.size(), 0, false);
    return buffer;
}

std::string TextOf(IProtectedContent& content) {
    qutl::MemoryBuffer<unsigned char> text;
    if (content.GetLastErrorText(text) != OPAL_OK || text.IsEmpty())
        return {};
    return std::string(reinterpret_cast<const char*>(text.GetData()), text.GetSize());
}

}  // namespace

OPALError TicketSession::Prepare(const std::string& sessionData, void** session) {
    return m_content ? m_content->Prepare(ToBuffer(sessionData), session)
                     : OPAL_ERROR_CONTENT_SESSION;
}

OPALError TicketSession::Open(const std::string& tixString, const std::string& sessionData,
                              const std::string& country, const std::string& language,
                              const std::function<void(const char*)>& trace, std::string& assetId,
                              bool& begun) {
    trace("Before m_pProtectedContent->Initialize : time=");
    OPALError code = m_content->Initialize(ToBuffer(sessionData), country, language);
    trace("After m_pProtectedContent->Initialize : time=");
    begun = code == OPAL_OK;
    if (!begun)
        return code;
    trace("Before m_pProtectedContent->Open(tixString) : time=");
    code = m_content->Open(tixString, assetId);
    trace("After m_pProtectedContent->Open(tixString) : time=");
    RememberText();
    const int64_t audio = m_content->GetAudioAssetId();
    const int64_t subtitle = m_content->GetSubtitleAssetId();
    MutexLock lock(m_mutex);
    m_audioAsset = audio;
    m_subtitleAsset = subtitle;
    return code;
}

OPALError TicketSession::TakeAlgorithmSettings() {
    AlgorithmConfig::Global global;
    AlgorithmConfig::Mode agile;
    AlgorithmConfig::Mode steady;
    const OPALError code = m_content->GetStreamingAlgorithmConfig(global, agile, steady);
    RememberText();
    return code == OPAL_OK ? AlgorithmConfig::Instance().Set(global, agile, steady) : code;
}

OPALError TicketSession::SetupStream() {
    int64_t intervalMs = 0;
    OPALError code = m_content->SetupStream();
    if (code == OPAL_OK)
        code = m_content->GetPulseConfiguration(intervalMs);
    RememberText();
    if (code == OPAL_OK)
        PlayReportConfig::Instance().Set(intervalMs);
    return code;
}

void TicketSession::RememberText() {
    const std::string text = TextOf(*m_content);
    MutexLock lock(m_mutex);
    m_lastText = text;
}

void TicketSession::StartReports(const StopSignal* stop) {
    m_pStop = stop;
    m_content->SetStopSignal(stop);
    {
        MutexLock lock(m_mutex);
        m_reporting = true;
    }
    try {
        m_thread = boost::thread([this] { Run(); });
    } catch (const std::exception&) {
        MutexLock lock(m_mutex);
        m_reporting = false;  // playback goes on without reports
    }
}

bool TicketSession::IsReporting() const {
    MutexLock lock(m_mutex);
    return m_reporting;
}

void TicketSession::Report(const PlayReport& report) {
    {
        MutexLock lock(m_mutex);
        if (!m_reporting)
            return;
        if (m_queue.size() >= kMostReports) {
            const auto periodic = std::find_if(m_queue.begin(), m_queue.end(), IsPeriodic);
            if (periodic == m_queue.end())
                return;
            m_queue.erase(periodic);
        }
        m_queue.push_back(report);
    }
    m_changed.NotifyAll();
}

void TicketSession::Run() {
    for (;;) {
        PlayReport report;
        {
            MutexLock lock(m_mutex);
            while (m_queue.empty() && m_reporting)
                m_changed.Wait(m_mutex);
            if (m_queue.empty() || IsRaised(m_pStop))
                return;
            report = m_queue.front();
            m_queue.pop_front();
        }
        Failure failure;
        try {
            failure.code =
                m_content->ReportPlayEvent(report.state, report.positionMs, report.bandwidth,
                                           report.audioAsset, report.subtitleAsset);
            if (failure.code != OPAL_OK)
                failure.text = TextOf(*m_content);
        } catch (const std::bad_alloc&) {
            failure.code = OPAL_ERROR_NO_MEMORY;
        } catch (const std::exception&) {
            failure.code = OPAL_ERROR_GENERAL;
        }
        MutexLock lock(m_mutex);
        if (failure.code == OPAL_OK || m_failures.size() >= kMostFailures)
            continue;
        m_lastText = failure.text;
        m_failures.push_back(failure);
    }
}

std::vector<TicketSession::Failure> TicketSession::TakeFailures() {
    std::vector<Failure> failures;
    MutexLock lock(m_mutex);
    failures.swap(m_failures);
    return failures;
}

void TicketSession::Finish() {
    {
        MutexLock lock(m_mutex);
        m_reporting = false;
    }
    m_changed.NotifyAll();
    if (m_thread.joinable())
        m_thread.join();
    MutexLock lock(m_mutex);
    m_queue.clear();
    m_lastText.clear();
    m_audioAsset = m_subtitleAsset = 0;
}

std::string TicketSession::ErrorText(OPALError code) const {
    MutexLock lock(m_mutex);
    return IsContentError(code) ? m_lastText.substr(0, m_lastText.find('\0')) : std::string();
}

int64_t TicketSession::PreferredAudioAsset() const {
    MutexLock lock(m_mutex);
    return m_audioAsset;
}

int64_t TicketSession::PreferredSubtitleAsset() const {
    MutexLock lock(m_mutex);
    return m_subtitleAsset;
}

}  // namespace opal
