#pragma once

#include <functional>
#include <memory>
#include <string>

#include "ContentSession/IProtectedContent.h"
#include "ContentSession/src/Services.h"

/// IProtectedContent over the content services.
///
/// Threading, units, errors: as IProtectedContent. A service whose session has run out renews it by
/// the account service.
class ProtectedContent_WNC : public IProtectedContent {
  public:
    /// `maker` makes the services' connections; empty: real ones.
    explicit ProtectedContent_WNC(const opal::ServiceTimeouts& timeouts = {},
                                  ServiceConnectionMaker maker = {});
    ~ProtectedContent_WNC() override;

    OPALError Initialize(const qutl::MemoryBuffer<unsigned char>& sessionData,
                         const std::string& country, const std::string& language) override;
    OPALError Finalize() override;
    OPALError Open(const std::string& tixString, std::string& assetId) override;
    OPALError Close() override;
    OPALError GetManifest(std::string& text) override;
    OPALError SetupStream() override;
    OPALError GetPulseConfiguration(int64_t& intervalMs) override;
    OPALError GetStreamingAlgorithmConfig(AlgorithmConfig::Global& global,
                                          AlgorithmConfig::Mode& agile,
                                          AlgorithmConfig::Mode& steady) override;
    OPALError ReportPlayEvent(int state, int64_t position, int64_t bandwidth, int64_t audioTrack,
                              int64_t subtitleTrack) override;
    int32_t GetAudioAssetId() override;
    int32_t GetSubtitleAssetId() override;
    OPALError Prepare(const qutl::MemoryBuffer<unsigned char>& sessionData,
                      void** session) override;
    OPALError GetLastErrorText(qutl::MemoryBuffer<unsigned char>& text) override;
    void SetStopSignal(const opal::StopSignal* signal) override;

  private:
    /// Two services serve what is reported during playback.
    struct PlaybackModule {
        explicit PlaybackModule(ServiceSession& session) : pulse(session), events(session) {}
        CContentService pulse;
        CPlaybackStateService events;
    };

    static ServiceCode Renew(void* context);
    ServiceCode SetUp(CBaseService& service, const char* name, const std::string& country,
                      const std::string& language);
    ServiceCode CreateModules(const std::string& country, const std::string& language);
    bool HasModules() const;
    void ReleaseModules();
    OPALError Result(ServiceCode code, const CBaseService& service);
    void SetErrorText(const std::string& text);
    OPALError Guarded(const std::function<OPALError()>& operation);

    const opal::ServiceTimeouts m_timeouts;
    const ServiceConnectionMaker m_maker;
    const opal::StopSignal* m_stop = nullptr;
    std::unique_ptr<ServiceSession> m_session;  ///< outlives the modules
    std::unique_ptr<CAccountService> m_accountModule;
    std::unique_ptr<CContentService> m_contentModule;
    std::unique_ptr<PlaybackModule> m_playbackModule;
    std::unique_ptr<CContentService> m_streamingModule;
    CContentService::OpenResult m_openResult;
    int32_t m_pulseInterval = 0;  ///< seconds
    qutl::MemoryBuffer<unsigned char> m_errorText;
    int32_t m_audioAssetId = -1;
    int32_t m_subtitleAssetId = -1;
    int32_t m_errorCode = 0;
};
