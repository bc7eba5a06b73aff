#include "opal-service/Operations.h"

#include <soapcontentService.h>

#include <sstream>

namespace opal::service {
namespace {

constexpr int32_t kSessionRunOut = 400015;
constexpr int32_t kUnknownTicket = 404001;
constexpr int kFaultStatus = 500;
// Resume points are kept of so many tickets, of this length.
constexpr size_t kMaxTickets = 1000;
constexpr size_t kMaxTicket = 4096;

/// The service that the description describes, for one request.
class Service : public contentService {
  public:
    Service(const ServiceFacts& facts, Received& call)
        : contentService(SOAP_ENC_PLAIN | SOAP_C_UTFSTRING | SOAP_XML_TREE),
          m_facts(facts),
          m_call(call) {}
    contentService* copy() override { return nullptr; }

    int renewSession(c__renewSessionRequest* request, c__renewSessionReply& reply) override {
        Begin("renewSession", request);
        reply.return_ = soap_new_c__renewSessionResponse(soap);
        return End(*reply.return_, [&] {
            reply.return_->sessionId =
                Text("renewed-session-" + std::to_string(++*m_facts.renewals));
        });
    }

    int openTicket(c__ticketRequest* request, c__openTicketReply& reply) override {
        Begin("openTicket", request);
        const std::string ticket = request ? request->ticketString : "";
        m_call.fields.emplace_back("ticket", ticket);
        reply.return_ = soap_new_c__ticketResponse(soap);
        const auto manifest = m_facts.settings.manifests.find(ticket);
        const bool known = manifest != m_facts.settings.manifests.end();
        return End(*reply.return_, [&] {
            if (!known && m_facts.settings.manifest.empty())
                return Refuse(*reply.return_, kUnknownTicket, "This ticket is not known");
            c__ticketResponse& answer = *reply.return_;
            if (!m_facts.settings.assetId.empty())
                answer.assetId = Text(m_facts.settings.assetId);
            answer.manifest = Text(known ? manifest->second : m_facts.settings.manifest);
            answer.audioAssetId = m_facts.settings.audioAssetId;
            answer.subtitleAssetId = m_facts.settings.subtitleAssetId;
        });
    }

    int getStreamingConfiguration(c__streamingConfigurationRequest* request,
                                  c__getStreamingConfigurationReply& reply) override {
        Begin("getStreamingConfiguration", request);
        reply.return_ = soap_new_c__streamingConfigurationResponse(soap);
        return End(*reply.return_, [&] {
            c__streamingConfigurationResponse& answer = *reply.return_;
            answer.downSwitchingInAgile = 0;
            answer.downSwitchingSteadyStateMode = 0;
            answer.enableQuickStart = Number(1);
            answer.initialBandwidDecision = soap_new_c__initialBandwidthDecisionDTO(soap);
            answer.initialBandwidDecision->initialBandwidthMode =
                Text(m_facts.settings.bandwidthMode);
            answer.initialBandwidDecision->value = Number(m_facts.settings.bandwidthHint);
            answer.maxBufferFromEmpty = 16;
            answer.maxLevelDrop = Number(3);
            answer.maxSecondsInAgileMode = 120;
            answer.minBufferedToEnterAgile = 0;
            answer.miniumSecondsInAgileMode = 15;
            answer.upSwitchingInAgile = 0;
            answer.upSwitchingSteadyStateMode = 20;
            answer.upperGuardTrigger = 15;
        });
    }

    int getPulseConfiguration(c__pulseConfigurationRequest* request,
                              c__getPulseConfigurationReply& reply) override {
        Begin("getPulseConfiguration", request);
        reply.return_ = soap_new_c__pulseConfigurationResponse(soap);
        return End(*reply.return_, [&] {
            reply.return_->clientPulseURL = Text(m_facts.url + "/pulse/playEventService");
            reply.return_->pulseInterval = m_facts.settings.pulseSeconds;
        });
    }

    int getLogServerSettings(c__logSettingsRequest* request,
                             c__getLogServerSettingsReply& reply) override {
        Begin("getLogServerSettings", request);
        reply.return_ = soap_new_c__logSettingsResponse(soap);
        return End(*reply.return_, [&] {
            c__logSettingsDTO* settings = soap_new_c__logSettingsDTO(soap);
            settings->levelOneEnabled = m_facts.settings.logLevels[0];
            settings->levelTwoEnabled = m_facts.settings.logLevels[1];
            settings->levelThreeEnabled = m_facts.settings.logLevels[2];
            settings->period = m_facts.settings.logPeriodMinutes;
            settings->serviceURL = Text(m_facts.url + "/log");
            settings->transactionSize = m_facts.settings.logSize;
            reply.return_->logSettings = settings;
        });
    }

    int saveEvent(c__pulseInfoRequest* request, c__saveEventReply& reply) override {
        Begin("saveEvent", request);
        if (request) {
            Note("state", request->currentPlaybackState);
            Note("position", request->currentPlaybackTime);
            Note("bandwidth", request->lastKnownBandwidth);
            if (request->audioTrack)
                Note("audio", *request->audioTrack);
            if (request->subtitleTrack)
                Note("subtitle", *request->subtitleTrack);
            m_call.fields.emplace_back("ticket", request->ticketString);
        }
        reply.return_ = soap_new_c__saveEventResponse(soap);
        return End(*reply.return_, [&] {
            std::map<std::string, int32_t>& points = *m_facts.resumeMs;
            const bool fits = request && request->ticketString.size() <= kMaxTicket;
            if (fits && (points.size() < kMaxTickets || points.count(request->ticketString) != 0))
                points[request->ticketString] = request->currentPlaybackTime;
        });
    }

    int resumePlayBack(c__getResumePointRequest* request, c__resumePlayBackReply& reply) override {
        Begin("resumePlayBack", request);
        const std::string ticket = request ? request->ticketString : "";
        m_call.fields.emplace_back("ticket", ticket);
        reply.return_ = soap_new_c__resumePointResponse(soap);
        return End(*reply.return_, [&] {
            const auto point = m_facts.resumeMs->find(ticket);
            reply.return_->playbackTime =
                point == m_facts.resumeMs->end() ? m_facts.settings.resumeMs : point->second;
        });
    }

    bool HasFault() const { return m_fault; }

  private:
    std::string* Text(const std::string& text) {
        std::string* value = soap_new_std__string(soap);
        *value = text;
        return value;
    }
    int* Number(int value) {
        int* number = static_cast<int*>(soap_malloc(soap, sizeof(int)));
        if (number)
            *number = value;
        return number;
    }
    void Note(const char* name, int64_t value) {
        m_call.fields.emplace_back(name, std::to_string(value));
    }

    void Begin(const char* operation, const c__baseRequest* request) {
        m_call.operation = operation;
        if (!request)
            return;
        m_call.fields = {{"country", request->countryCode}, {"language", request->languageCode}};
        if (request->sessionId)
            m_call.fields.emplace_back("session", *request->sessionId);
    }

    void Refuse(c__baseResponse& answer, int32_t number, const std::string& text) {
        answer.success = false;
        answer.errorResponse = soap_new_c__errorResponse(soap);
        answer.errorResponse->errorCode = number;
        answer.errorResponse->errorMessage = Text(text);
        m_call.outcome = text;
    }

    /// The client's own words.
    std::string Told() const {
        std::string text;
        for (const auto& field : m_call.fields)
            text += field.first + "=" + field.second + ";";
        return text;
    }

    template <typename Fill>
    int End(c__baseResponse& answer, Fill fill) {
        const Failure* failure = m_facts.pFailure;
        answer.success = true;
        if (failure && failure->kind == Failure::Kind::Fault) {
            m_fault = true;
            return soap_receiverfault("Failed on purpose", nullptr);
        }
        if (failure && failure->kind == Failure::Kind::RunOut)
            Refuse(answer, kSessionRunOut, "The session has run out");
        else if (failure && failure->kind == Failure::Kind::Refuse)
            Refuse(answer, failure->value, "Refused on purpose");
        else if (failure && failure->kind == Failure::Kind::Echo)
            Refuse(answer, failure->value, "Refused: " + Told());
        else if (failure && failure->kind == Failure::Kind::NoRecord)
            answer.success = false;
        else
            fill();
        return SOAP_OK;
    }

    const ServiceFacts& m_facts;
    Received& m_call;
    bool m_fault = false;
};

}  // namespace

HttpReply AnswerSoap(const std::string& body, const ServiceFacts& facts, Received& call) {
    std::istringstream in(body);
    std::ostringstream out;
    Service service(facts, call);
    service.soap->is = &in;
    service.soap->os = &out;
    const bool failed = service.serve() != SOAP_OK;
    HttpReply reply;
    if (failed || service.HasFault())
        reply.status = kFaultStatus;
    if (failed)
        call.outcome = "not understood";
    reply.body = out.str();
    service.destroy();
    return reply;
}

}  // namespace opal::service
