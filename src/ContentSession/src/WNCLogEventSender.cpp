#include "ContentSession/src/WNCLogEventSender.h"

#include <cstdint>

#include "Common/OPALVersion.h"
#include "Common/logging/Logger.h"
#include "ContentSession/src/LogUpload.h"

namespace {

constexpr int64_t kMsPerMinute = 60000;
constexpr int64_t kMinutesPerDay = 24 * 60;
/// Leaves the end of a session, which is to be over in three seconds, time for the rest.
constexpr int64_t kGraceMs = 800;
constexpr size_t kMaxUrl = 2048;

}  // namespace

WNCLogEventSender::WNCLogEventSender(const LogEventSenderConfig* config)
    : m_logger(getLogger("opal.LogServer")) {
    if (!config)
        return;
    m_localSettings = true;
    m_interval = config->transactionInterval;
    m_size = config->transactionSize;
    m_level1 = config->enableLevel1;
    m_level2 = config->enableLevel2;
    m_level3 = config->enableLevel3;
}

WNCLogEventSender::~WNCLogEventSender() = default;

void WNCLogEventSender::SetContext(void* context) {
    if (!m_context)
        m_context = static_cast<ServiceSession*>(context);
}

void WNCLogEventSender::SetStopSignal(const opal::StopSignal* signal) {
    m_stop = signal;
}

OPALError WNCLogEventSender::Initialize() {
    if (!m_context)
        return OPAL_ERROR_SERVICE_21;
    m_service.reset(new CLogSettingsService(*m_context));
    m_service->SetStopSignal(m_stop);
    ServiceCode code = opal::ConfigureService(*m_service, opal::kLogSettingsService);
    std::string country;
    std::string language;
    {
        opal::RecursiveLock lock(m_mutex);
        country = m_country;
        language = m_language;
    }
    m_service->SetLocale(country, language);
    CLogSettingsService::Settings settings;
    if (code == ServiceCode::kOk)
        code = m_service->getLogServerSettings(settings);
    if (code != ServiceCode::kOk)
        return ToOPALError(code);
    if (settings.url.empty() || settings.url.size() > kMaxUrl)
        return OPAL_ERROR_CONTENT_SESSION;
    m_url = LogUploadUrl(settings.url);
    m_prefix = LogUploadPrefix({"", "", m_context->GetId(), OPAL_VERSION_TEXT});
    m_suffix = LogUploadSuffix();
    m_post.reset(new opal::HTTPPost(m_context->GetTimeouts()));
    m_post->SetStopSignal(m_stop, kGraceMs);
    if (!m_localSettings)
        TakeOver(settings);
    return OPAL_OK;
}

void WNCLogEventSender::TakeOver(const CLogSettingsService::Settings& settings) {
    opal::RecursiveLock lock(m_mutex);
    // A period that is none counts as one of more than a day, which has a default.
    const bool sensible = settings.periodMinutes >= 0 && settings.periodMinutes <= kMinutesPerDay;
    m_interval = (sensible ? settings.periodMinutes : kMinutesPerDay + 1) * kMsPerMinute;
    m_size = static_cast<size_t>(settings.transactionSize);
    m_level1 = settings.levels[0];
    m_level2 = settings.levels[1];
    m_level3 = settings.levels[2];
}

OPALError WNCLogEventSender::Send(const std::string& document) {
    if (!m_context || !m_post)
        return OPAL_ERROR_SERVICE_21;
    std::string reply;
    if (!m_post->Perform(m_url, "text/html", m_prefix + document + m_suffix, reply))
        return ToOPALError(ServiceCode::kNotSent);
    if (IsLogReplySuccess(reply))
        return OPAL_OK;
    LOG4CXX_INFO(m_logger, "HTTP return data (" << reply.size() << " bytes):\n "
                                                << m_context->WithoutCredentials(
                                                       reply.substr(0, reply.find('\0')), SIZE_MAX)
                                                << "\n");
    return ToOPALError(ServiceCode::kErrorRecord);
}

OPALError WNCLogEventSender::Shutdown() {
    m_post.reset();
    m_service.reset();
    return OPAL_OK;
}
