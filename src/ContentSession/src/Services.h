#pragma once

#include <boost/noncopyable.hpp>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>

#include "ContentSession/src/ServerConfig.h"
#include "ContentSession/src/ServiceCode.h"
#include "ContentSession/src/ServiceSession.h"
#include "ContentSession/src/SoapClient.h"

namespace opal {
class StopSignal;
}

/// What a service says about its refusal.
struct ErrorRecord {
    int32_t number = 0;
    std::string text;
};

/// One service: its address, the common shape of every call, and what the last refusal said.
///
/// A call that the transport or HTTP failed is made once more, at once; one that TLS failed is made
/// once more after a refresh; and one that is answered with a session that has run out is made once
/// more after a renewal. So a call is at most four requests.
///
/// Threading: one thread at a time.
/// Ownership: the session and the signal are not owned.
/// Errors: kNotReady before Configure, kBadArgument with settings that are not right; then no
/// request is made.
class CBaseService : boost::noncopyable {
  public:
    using RenewalCallback = ServiceCode (*)(void* context);

    explicit CBaseService(ServiceSession& session);
    virtual ~CBaseService();

    /// The address, or a text that is none; valid until the next call.
    virtual const char* GetUrl();
    virtual int32_t GetPort() const;
    virtual const char* GetHost() const;
    virtual ServiceCode SetOverrideUrl(const char* url);
    /// With `useFile` the endpoint file overlays host and port; a null `file` is "WNCEndPoint.cfg"
    /// among the settings files.
    virtual ServiceCode Configure(const char* host, int32_t port, const void* reserved,
                                  const char* serviceName, const char* file, bool useFile);

    void SetLocale(const std::string& country, const std::string& language);
    void SetRenewalCallback(RenewalCallback callback) { m_renewal = callback; }
    void SetRenewalContext(void* context) { m_renewalContext = context; }
    void SetStopSignal(const opal::StopSignal* stop) { m_stop = stop; }
    /// False when the last call's answer told nothing of a refusal.
    bool GetErrorRecord(ErrorRecord& record) const;

  protected:
    struct Outcome {
        int soap = SOAP_OK;
        const c__baseResponse* response = nullptr;
    };
    ServiceCode Call(const std::function<Outcome()>& attempt);
    ServiceCode Judge(const Outcome& outcome) const;

    /// `fill` completes the request, anew for each attempt; `take` gets an answer of success.
    template <typename Request, typename Reply, typename Fill, typename Take>
    ServiceCode CallStub(int (contentProxy::*stub)(const char*, const char*, Request*, Reply&),
                         bool withSession, Fill fill, Take take) {
        Reply reply;
        const ServiceCode code = Call([&] {
            std::string id = m_session.GetId();
            Request request;
            request.countryCode = m_country;
            request.languageCode = m_language;
            if (withSession)
                request.sessionId = &id;
            fill(request);
            reply.return_ = nullptr;
            contentProxy& proxy = m_soap->Begin(GetUrl(), m_stop);
            Outcome outcome;
            outcome.soap = (proxy.*stub)(m_soap->GetStubUrl(), nullptr, &request, reply);
            if (outcome.soap == SOAP_OK)
                outcome.response = reply.return_;
            return outcome;
        });
        if (code == ServiceCode::kOk)
            take(*reply.return_);
        return code;
    }

    ServiceSession& m_session;

  private:
    void KeepErrorRecord(const Outcome& outcome);

    const std::unique_ptr<SoapClient> m_soap;
    ServerConfig m_config;
    std::string m_url;
    std::string m_country = "US";
    std::string m_language = "en";
    const opal::StopSignal* m_stop = nullptr;
    RenewalCallback m_renewal = nullptr;
    void* m_renewalContext = nullptr;
    bool m_ready = false;
    bool m_renewing = false;
    bool m_hasError = false;
    ErrorRecord m_error;
};

class CAccountService : public CBaseService {
  public:
    using CBaseService::CBaseService;
    /// A new identifier for the session, which takes it over.
    ServiceCode renewSession();
};

class CContentService : public CBaseService {
  public:
    /// What a ticket is exchanged for.
    struct OpenResult {
        bool hasAssetId = false;
        std::string assetId;
        bool hasManifest = false;
        std::string manifest;
        int32_t audioAssetId = -1;
        int32_t subtitleAssetId = -1;
    };
    using CBaseService::CBaseService;
    ServiceCode openTicket(const std::string& ticket, OpenResult& result);
    ServiceCode getStreamingConfiguration(
        const std::function<void(const c__streamingConfigurationResponse&)>& take);
    ServiceCode getPulseConfiguration(int32_t& interval, std::string& url);
};

class CPlaybackStateService : public CBaseService {
  public:
    using CBaseService::CBaseService;
    /// The address that the pulse configuration told; an empty one changes nothing.
    ServiceCode SetOverrideUrl(const char* url) override;
    /// A track of -1 is left out.
    ServiceCode saveEvent(int32_t state, int32_t position, int32_t bandwidth, int32_t audioTrack,
                          int32_t subtitleTrack);
    ServiceCode resumePlayBack(int32_t& playbackTime);
};

class CLogSettingsService : public CBaseService {
  public:
    struct Settings {
        bool levels[3] = {false, false, false};
        int64_t periodMinutes = 0;
        int64_t transactionSize = 0;
        std::string url;
    };
    using CBaseService::CBaseService;
    ServiceCode getLogServerSettings(Settings& settings);
};

/// Service names, which end an address, and where the services are unless an endpoint file says
/// otherwise.
namespace opal {
constexpr const char* kAccountService = "accountService";
constexpr const char* kContentService = "contentService";
constexpr const char* kLogSettingsService = "logSettingsService";
constexpr const char* kPlayEventService = "playEventService";
/// Configures with the built-in host, the endpoint file over it.
ServiceCode ConfigureService(CBaseService& service, const char* name);
}  // namespace opal
