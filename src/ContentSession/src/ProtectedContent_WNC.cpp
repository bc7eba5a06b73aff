#include "ContentSession/src/ProtectedContent_WNC.h"

#include <algorithm>
#include <exception>
#include <iostream>
#include <new>

#include "Common/logging/Logger.h"

namespace {

/// Seconds of the services in milliseconds. Numbers beyond all bounds wrap, and the configuration
/// puts right what comes of them.
int64_t Ms(int64_t seconds) {
    return static_cast<int64_t>(static_cast<uint64_t>(seconds) * 1000U);
}

int32_t LowWord(int64_t value) {
    return static_cast<int32_t>(static_cast<uint32_t>(value));
}

int FoldedState(int state) {
    switch (state) {
        case 0:
        case 1:
            return 1;
        case 2:
        case 3:
            return 2;
        case 4:
            return 3;
        default:
            return 4;
    }
}

void ApplyDecision(const c__initialBandwidthDecisionDTO* decision,
                   AlgorithmConfig::Global& global) {
    global.bandwidthHint = 0;
    if (!decision || !decision->initialBandwidthMode)
        return;
    const std::string& mode = *decision->initialBandwidthMode;
    if (mode == "LowestLevel")
        global.initialBandwidthDecision = InitialBandwidthMode_LowestLevel;
    else if (mode == "BandwidthProbe")
        global.initialBandwidthDecision = InitialBandwidthMode_BandwidthProbe;
    else if (mode == "BandwidthHint")
        global.initialBandwidthDecision = InitialBandwidthMode_BandwidthHint;
    if (mode == "BandwidthHint" && decision->value)
        global.bandwidthHint = *decision->value;
}

}  // namespace

ProtectedContent_WNC::ProtectedContent_WNC(const opal::ServiceTimeouts& timeouts,
                                           ServiceConnectionMaker maker)
    : m_timeouts(timeouts),
      m_maker(maker ? std::move(maker) : [](const opal::ServiceTimeouts& bounds) {
          return std::unique_ptr<opal::IServiceConnection>(new opal::HTTPConnection(bounds));
      }) {}

ProtectedContent_WNC::~ProtectedContent_WNC() {
    (void)ProtectedContent_WNC::Finalize();
}

OPALError ProtectedContent_WNC::Prepare(const qutl::MemoryBuffer<unsigned char>& sessionData,
                                        void** session) {
    if (!session)
        return OPAL_ERROR_INVALID_ARGUMENT;
    *session = nullptr;
    return Guarded([&] {
        ReleaseModules();  // they hold the session that goes
        const unsigned char* begin = sessionData.GetData();
        const unsigned char* end = begin + sessionData.GetSize();
        m_session.reset(new ServiceSession(std::string(begin, std::find(begin, end, '\0')),
                                           m_timeouts, m_maker));
        *session = m_session.get();
        return OPAL_OK;
    });
}

OPALError ProtectedContent_WNC::Initialize(const qutl::MemoryBuffer<unsigned char>& sessionData,
                                           const std::string& country,
                                           const std::string& language) {
    return Guarded([&] {
        if (HasModules())
            ReleaseModules();
        void* session = nullptr;
        const OPALError prepared = m_session ? OPAL_OK : Prepare(sessionData, &session);
        return prepared == OPAL_OK ? ToOPALError(CreateModules(country, language)) : prepared;
    });
}

ServiceCode ProtectedContent_WNC::CreateModules(const std::string& country,
                                                const std::string& language) {
    m_contentModule.reset(new CContentService(*m_session));
    ServiceCode code = SetUp(*m_contentModule, opal::kContentService, country, language);
    if (code != ServiceCode::kOk)
        return code;
    LoggerPropertyConfigure("log4cxx.accountmgmt.properties");
    m_accountModule.reset(new CAccountService(*m_session));
    code = SetUp(*m_accountModule, opal::kAccountService, country, language);
    if (code != ServiceCode::kOk)
        return code;
    m_accountModule->SetRenewalCallback(nullptr);  // it is what renews
    LoggerPropertyConfigure("log4cxx.playback.properties");
    m_playbackModule.reset(new PlaybackModule(*m_session));
    code = SetUp(m_playbackModule->pulse, opal::kContentService, country, language);
    if (code == ServiceCode::kOk)
        code = SetUp(m_playbackModule->events, opal::kPlayEventService, country, language);
    if (code != ServiceCode::kOk)
        return code;
    LoggerPropertyConfigure("log4cxx.streaming.properties");
    m_streamingModule.reset(new CContentService(*m_session));
    return SetUp(*m_streamingModule, opal::kContentService, country, language);
}

ServiceCode ProtectedContent_WNC::SetUp(CBaseService& service, const char* name,
                                        const std::string& country, const std::string& language) {
    service.SetLocale(country, language);
    service.SetStopSignal(m_stop);
    service.SetRenewalCallback(&ProtectedContent_WNC::Renew);
    service.SetRenewalContext(this);
    return opal::ConfigureService(service, name);
}

ServiceCode ProtectedContent_WNC::Renew(void* context) {
    const auto& account = static_cast<ProtectedContent_WNC*>(context)->m_accountModule;
    return account ? account->renewSession() : ServiceCode::kNotReady;
}

bool ProtectedContent_WNC::HasModules() const {
    return m_accountModule || m_contentModule || m_playbackModule || m_streamingModule;
}

void ProtectedContent_WNC::ReleaseModules() {
    m_streamingModule.reset();
    m_accountModule.reset();
    m_contentModule.reset();
    m_playbackModule.reset();
}

OPALError ProtectedContent_WNC::Finalize() {
    ReleaseModules();
    m_session.reset();
    return OPAL_OK;
}

OPALError ProtectedContent_WNC::Open(const std::string& tixString, std::string& assetId) {
    if (!m_contentModule)
        return OPAL_ERROR_NOT_READY;
    return Guarded([&] {
        m_session->SetTicket(tixString);
        const ServiceCode code = m_contentModule->openTicket(tixString, m_openResult);
        if (code != ServiceCode::kOk)
            return Result(code, *m_contentModule);
        m_audioAssetId = m_openResult.audioAssetId;
        m_subtitleAssetId = m_openResult.subtitleAssetId;
        assetId = m_openResult.hasAssetId ? m_openResult.assetId : "no_return_from_wnc";
        return OPAL_OK;
    });
}

OPALError ProtectedContent_WNC::Close() {
    return OPAL_OK;
}

OPALError ProtectedContent_WNC::GetManifest(std::string& text) {
    if (!m_openResult.hasManifest)
        return OPAL_ERROR_OUT_OF_RANGE;
    text = m_openResult.manifest;
    std::cout << text << std::endl;
    return OPAL_OK;
}

OPALError ProtectedContent_WNC::SetupStream() {
    if (!m_playbackModule)
        return OPAL_ERROR_NOT_READY;
    return Guarded([&] {
        std::string url;
        ServiceCode code = m_playbackModule->pulse.getPulseConfiguration(m_pulseInterval, url);
        if (code == ServiceCode::kOk)
            code = m_playbackModule->events.SetOverrideUrl(url.c_str());
        if (code != ServiceCode::kOk)
            return Result(code, m_playbackModule->pulse);
        return m_pulseInterval < 0 ? OPAL_ERROR_CONTENT_SESSION : OPAL_OK;
    });
}

OPALError ProtectedContent_WNC::GetPulseConfiguration(int64_t& intervalMs) {
    intervalMs = Ms(m_pulseInterval);
    return OPAL_OK;
}

OPALError ProtectedContent_WNC::GetStreamingAlgorithmConfig(AlgorithmConfig::Global& global,
                                                            AlgorithmConfig::Mode& agile,
                                                            AlgorithmConfig::Mode& steady) {
    if (!m_streamingModule)
        return OPAL_ERROR_NOT_READY;
    return Guarded([&] {
        return ToOPALError(m_streamingModule->getStreamingConfiguration(
            [&](const c__streamingConfigurationResponse& answer) {
                ApplyDecision(answer.initialBandwidDecision, global);
                global.maxSecondsInAgileMode = Ms(answer.maxSecondsInAgileMode);
                global.minSecondsInAgileMode = Ms(answer.miniumSecondsInAgileMode);
                global.maxBufferFromEmpty = Ms(answer.maxBufferFromEmpty);
                global.minBufferedToEnterAgile = Ms(answer.minBufferedToEnterAgile);
                global.upperGuardTrigger = answer.upperGuardTrigger;
                global.disableQuickstart =
                    answer.enableQuickStart == nullptr || *answer.enableQuickStart == 0;
                global.maxLevelDrop = answer.maxLevelDrop ? *answer.maxLevelDrop : 0;
                agile.minPeriodUpSwitch = Ms(answer.upSwitchingInAgile);
                agile.minPeriodDownSwitch = Ms(answer.downSwitchingInAgile);
                steady.minPeriodUpSwitch = Ms(answer.upSwitchingSteadyStateMode);
                steady.minPeriodDownSwitch = Ms(answer.downSwitchingSteadyStateMode);
            }));
    });
}

OPALError ProtectedContent_WNC::ReportPlayEvent(int state, int64_t position, int64_t bandwidth,
                                                int64_t audioTrack, int64_t subtitleTrack) {
    if (!m_playbackModule)
        return OPAL_ERROR_NOT_READY;
    if (position < 0 || bandwidth < 0)
        return OPAL_ERROR_INVALID_ARGUMENT;
    return Guarded([&] {
        CPlaybackStateService& events = m_playbackModule->events;
        const ServiceCode code =
            events.saveEvent(FoldedState(state), LowWord(position), LowWord(bandwidth),
                             LowWord(audioTrack), LowWord(subtitleTrack));
        return code == ServiceCode::kOk ? OPAL_OK : Result(code, events);
    });
}

int32_t ProtectedContent_WNC::GetAudioAssetId() {
    return m_audioAssetId;
}

int32_t ProtectedContent_WNC::GetSubtitleAssetId() {
    return m_subtitleAssetId;
}

OPALError ProtectedContent_WNC::GetLastErrorText(qutl::MemoryBuffer<unsigned char>& text) {
    text = m_errorText;
    return OPAL_OK;
}

void ProtectedContent_WNC::SetStopSignal(const opal::StopSignal* signal) {
    m_stop = signal;
    CBaseService* const services[] = {
        m_accountModule.get(), m_contentModule.get(), m_streamingModule.get(),
        m_playbackModule ? &m_playbackModule->pulse : nullptr,
        m_playbackModule ? static_cast<CBaseService*>(&m_playbackModule->events) : nullptr};
    for (CBaseService* service : services) {
        if (service)
            service->SetStopSignal(signal);
    }
}

/// The mapped code of a failure, whose text is kept. Where a refusal has no record, the text of the
/// last one stays.
OPALError ProtectedContent_WNC::Result(ServiceCode code, const CBaseService& service) {
    ErrorRecord record;
    if (code != ServiceCode::kSessionError && code != ServiceCode::kErrorRecord) {
        SetErrorText("");
    } else if (service.GetErrorRecord(record)) {
        SetErrorText(record.text);
        m_errorCode = record.number;
    }
    return ToOPALError(code);
}

void ProtectedContent_WNC::SetErrorText(const std::string& text) {
    m_errorText.Assign(reinterpret_cast<const unsigned char*>(text.c_str()), text.size() + 1, 0,
                       false);
}

OPALError ProtectedContent_WNC::Guarded(const std::function<OPALError()>& operation) {
    try {
        return operation();
    } catch (const std::bad_alloc&) {
        return OPAL_ERROR_NO_MEMORY;
    } catch (const std::exception&) {
        return OPAL_ERROR_CONTENT_SESSION;
    }
}
