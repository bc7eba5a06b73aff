#include "ContentSession/src/Services.h"

#include "Common/ConfigurationFiles.h"
#include "Common/StopSignal.h"

namespace {

constexpr int32_t kSessionRunOut = 400015;
constexpr int kFirstHttpStatus = 100;
constexpr int kLastHttpStatus = 599;
constexpr int kFirstHttpError = 14;
constexpr int kLastHttpError = 19;
constexpr size_t kMaxErrorText = 2048;

bool IsTransportFailure(int soap) {
    return soap == SOAP_EOF || soap == SOAP_TCP_ERROR || soap == SOAP_HTTP_ERROR ||
           (soap >= kFirstHttpError && soap <= kLastHttpError) ||
           (soap >= kFirstHttpStatus && soap <= kLastHttpStatus);
}

int32_t ErrorNumber(const c__baseResponse* response) {
    return response && !response->success && response->errorResponse
               ? response->errorResponse->errorCode
               : 0;
}

void SetText(const std::string* text, bool& present, std::string& value) {
    present = text != nullptr;
    value = present ? *text : std::string();
}

}  // namespace

CBaseService::CBaseService(ServiceSession& session)
    : m_session(session), m_soap(new SoapClient(session.NewConnection())) {}

CBaseService::~CBaseService() = default;

const char* CBaseService::GetUrl() {
    m_url = m_config.GetUrl();
    return m_url.c_str();
}

int32_t CBaseService::GetPort() const {
    return m_config.GetPort();
}

const char* CBaseService::GetHost() const {
    return m_config.GetHost();
}

ServiceCode CBaseService::SetOverrideUrl(const char* url) {
    if (!url || !m_config.IsValid())
        return ServiceCode::kBadArgument;
    m_config.SetOverrideUrl(url);
    return ServiceCode::kOk;
}

ServiceCode CBaseService::Configure(const char* host, int32_t port, const void*,
                                    const char* serviceName, const char* file, bool useFile) {
    if (!host || !serviceName)
        return ServiceCode::kBadArgument;
    m_config = ServerConfig();
    m_config.SetHost(host);
    m_config.SetPort(port);
    m_config.SetPathPrefix("");
    if (useFile)
        m_config.ReadFile(file ? file : opal::ConfigurationPath("WNCEndPoint.cfg"));
    m_config.SetServiceName(serviceName);
    m_ready = true;
    return m_config.IsValid() ? ServiceCode::kOk : ServiceCode::kBadArgument;
}

void CBaseService::SetLocale(const std::string& country, const std::string& language) {
    m_country = country;
    m_language = language;
}

bool CBaseService::GetErrorRecord(ErrorRecord& record) const {
    if (m_hasError)
        record = m_error;
    return m_hasError;
}

ServiceCode CBaseService::Call(const std::function<Outcome()>& attempt) {
    m_hasError = false;
    if (!m_ready)
        return ServiceCode::kNotReady;
    if (!m_config.IsValid())
        return ServiceCode::kBadArgument;
    if (opal::IsRaised(m_stop))
        return ServiceCode::kNotSent;
    Outcome outcome = attempt();
    if (IsTransportFailure(outcome.soap) && !opal::IsRaised(m_stop))
        outcome = attempt();
    if (outcome.soap == SOAP_SSL_ERROR && !opal::IsRaised(m_stop) && m_soap->RefreshTls())
        outcome = attempt();
    KeepErrorRecord(outcome);
    if (ErrorNumber(outcome.response) == kSessionRunOut && m_renewal && !m_renewing) {
        m_renewing = true;
        const ServiceCode renewed = m_renewal(m_renewalContext);
        m_renewing = false;
        if (renewed != ServiceCode::kOk)
            return renewed;
        outcome = attempt();
        KeepErrorRecord(outcome);
    }
    return Judge(outcome);
}

void CBaseService::KeepErrorRecord(const Outcome& outcome) {
    m_hasError = outcome.response && !outcome.response->success &&
                 outcome.response->errorResponse != nullptr;
    if (!m_hasError)
        return;
    const c__errorResponse& error = *outcome.response->errorResponse;
    m_error.number = error.errorCode;
    // A person reads it, and the log keeps many; a service may send what it likes.
    m_error.text = error.errorMessage
                       ? m_session.WithoutCredentials(*error.errorMessage, kMaxErrorText)
                       : std::string();
}

ServiceCode CBaseService::Judge(const Outcome& outcome) const {
    if (outcome.soap == SOAP_EOM)
        return ServiceCode::kNoMemory;
    if (outcome.soap != SOAP_OK)
        return ServiceCode::kNotSent;
    // An answer that holds nothing is none of success either.
    return outcome.response && outcome.response->success ? ServiceCode::kOk
                                                         : ServiceCode::kErrorRecord;
}

ServiceCode CAccountService::renewSession() {
    return CallStub(
        &contentProxy::renewSession, true, [](c__renewSessionRequest&) {},
        [this](const c__renewSessionResponse& answer) {
            if (answer.sessionId)
                m_session.SetId(*answer.sessionId);
        });
}

ServiceCode CContentService::openTicket(const std::string& ticket, OpenResult& result) {
    return CallStub(
        &contentProxy::openTicket, true,
        [&](c__ticketRequest& request) { request.ticketString = ticket; },
        [&](const c__ticketResponse& answer) {
            SetText(answer.assetId, result.hasAssetId, result.assetId);
            SetText(answer.manifest, result.hasManifest, result.manifest);
            result.audioAssetId = answer.audioAssetId;
            result.subtitleAssetId = answer.subtitleAssetId;
        });
}

ServiceCode CContentService::getStreamingConfiguration(
    const std::function<void(const c__streamingConfigurationResponse&)>& take) {
    return CallStub(
        &contentProxy::getStreamingConfiguration, true, [](c__streamingConfigurationRequest&) {},
        take);
}

ServiceCode CContentService::getPulseConfiguration(int32_t& interval, std::string& url) {
    return CallStub(
        &contentProxy::getPulseConfiguration, true, [](c__pulseConfigurationRequest&) {},
        [&](const c__pulseConfigurationResponse& answer) {
            interval = answer.pulseInterval;
            url = answer.clientPulseURL ? *answer.clientPulseURL : std::string();
        });
}

ServiceCode CPlaybackStateService::SetOverrideUrl(const char* url) {
    return url && *url == '\0' ? ServiceCode::kOk : CBaseService::SetOverrideUrl(url);
}

ServiceCode CPlaybackStateService::saveEvent(int32_t state, int32_t position, int32_t bandwidth,
                                             int32_t audioTrack, int32_t subtitleTrack) {
    return CallStub(
        &contentProxy::saveEvent, true,
        [&](c__pulseInfoRequest& request) {
            request.currentPlaybackState = state;
            request.currentPlaybackTime = position;
            request.lastKnownBandwidth = bandwidth;
            request.audioTrack = audioTrack == -1 ? nullptr : &audioTrack;
            request.subtitleTrack = subtitleTrack == -1 ? nullptr : &subtitleTrack;
            request.ticketString = m_session.GetTicket();
        },
        [](const c__saveEventResponse&) {});
}

ServiceCode CPlaybackStateService::resumePlayBack(int32_t& playbackTime) {
    return CallStub(
        &contentProxy::resumePlayBack, true,
        [&](c__getResumePointRequest& request) { request.ticketString = m_session.GetTicket(); },
        [&](const c__resumePointResponse& answer) { playbackTime = answer.playbackTime; });
}

ServiceCode CLogSettingsService::getLogServerSettings(Settings& settings) {
    bool told = false;
    const ServiceCode code = CallStub(
        &contentProxy::getLogServerSettings, false, [](c__logSettingsRequest&) {},
        [&](const c__logSettingsResponse& answer) {
            told = answer.logSettings != nullptr;
            if (!told)
                return;
            const c__logSettingsDTO& from = *answer.logSettings;
            settings.levels[0] = from.levelOneEnabled;
            settings.levels[1] = from.levelTwoEnabled;
            settings.levels[2] = from.levelThreeEnabled;
            settings.periodMinutes = from.period;
            settings.transactionSize = from.transactionSize;
            settings.url = from.serviceURL ? *from.serviceURL : std::string();
        });
    return code == ServiceCode::kOk && !told ? ServiceCode::kErrorRecord : code;
}

ServiceCode opal::ConfigureService(CBaseService& service, const char* name) {
    constexpr int32_t kTlsPort = 443;
    return service.Configure(OPAL_SERVICE_HOST, kTlsPort, nullptr, name, nullptr, true);
}
