// The description of the services that a start from a ticket speaks with, in the form that
// soapcpp2 takes. The build makes the client's and the simulator's code of it.
//
// Every operation takes one request and gives one response; a response carries the seven fields of
// c__baseResponse first. An optional field is a pointer. The odd spellings are the services' own.

//gsoap c service name: content
//gsoap c service style: document
//gsoap c service encoding: literal
//gsoap c service namespace: urn:opal:content:1
//gsoap c schema namespace: urn:opal:content:1
//gsoap c schema elementForm: unqualified

#import "stl.h"

class c__errorResponse {
    int errorCode;
    std::string *errorMessage 0;
};

class c__baseRequest {
    std::string countryCode;
    std::string languageCode;
    std::string *sessionId 0;
};

class c__baseResponse {
    std::string *countryCode 0;
    std::string *languageCode 0;
    c__errorResponse *errorResponse 0;
    std::string *sessionId 0;
    bool success;
    LONG64 timestamp 0;
    std::string *transferIpAddress 0;
};

// accountService: a new session in place of one that has run out.
class c__renewSessionRequest : public c__baseRequest {};
class c__renewSessionResponse : public c__baseResponse {};

// contentService
class c__ticketRequest : public c__baseRequest {
    std::string ticketString;
};
class c__ticketResponse : public c__baseResponse {
    std::string *assetId 0;
    int audioAssetId 0;
    std::string *manifest 0;
    int subtitleAssetId 0;
};

class c__streamingConfigurationRequest : public c__baseRequest {};
class c__initialBandwidthDecisionDTO {
    std::string *initialBandwidthMode 0;
    int *value 0;
};
class c__streamingConfigurationResponse : public c__baseResponse {
    LONG64 downSwitchingInAgile 0;
    LONG64 downSwitchingSteadyStateMode 0;
    int *enableQuickStart 0;
    c__initialBandwidthDecisionDTO *initialBandwidDecision 0;
    LONG64 maxBufferFromEmpty 0;
    int *maxLevelDrop 0;
    LONG64 maxSecondsInAgileMode 0;
    LONG64 minBufferedToEnterAgile 0;
    LONG64 miniumSecondsInAgileMode 0;
    LONG64 upSwitchingInAgile 0;
    LONG64 upSwitchingSteadyStateMode 0;
    int upperGuardTrigger 0;
};

class c__pulseConfigurationRequest : public c__baseRequest {};
class c__pulseConfigurationResponse : public c__baseResponse {
    std::string *clientPulseURL 0;
    int pulseInterval 0;
};

// logSettingsService
class c__logSettingsRequest : public c__baseRequest {};
class c__logSettingsDTO {
    bool levelOneEnabled 0;
    bool levelThreeEnabled 0;
    bool levelTwoEnabled 0;
    LONG64 period 0;
    std::string *serviceURL 0;
    LONG64 transactionSize 0;
};
class c__logSettingsResponse : public c__baseResponse {
    c__logSettingsDTO *logSettings 0;
};

// playEventService
class c__pulseInfoRequest : public c__baseRequest {
    int *audioTrack 0;
    int currentPlaybackState;
    int currentPlaybackTime;
    int lastKnownBandwidth;
    int *subtitleTrack 0;
    std::string ticketString;
};
class c__saveEventResponse : public c__baseResponse {};

class c__getResumePointRequest : public c__baseRequest {
    std::string ticketString;
};
class c__resumePointResponse : public c__baseResponse {
    int playbackTime 0;
};

int c__renewSession(c__renewSessionRequest *request,
    struct c__renewSessionReply { c__renewSessionResponse *return_; } &reply);
int c__openTicket(c__ticketRequest *request,
    struct c__openTicketReply { c__ticketResponse *return_; } &reply);
int c__getStreamingConfiguration(c__streamingConfigurationRequest *request,
    struct c__getStreamingConfigurationReply { c__streamingConfigurationResponse *return_; } &reply);
int c__getPulseConfiguration(c__pulseConfigurationRequest *request,
    struct c__getPulseConfigurationReply { c__pulseConfigurationResponse *return_; } &reply);
int c__getLogServerSettings(c__logSettingsRequest *request,
    struct c__getLogServerSettingsReply { c__logSettingsResponse *return_; } &reply);
int c__saveEvent(c__pulseInfoRequest *request,
    struct c__saveEventReply { c__saveEventResponse *return_; } &reply);
int c__resumePlayBack(c__getResumePointRequest *request,
    struct c__resumePlayBackReply { c__resumePointResponse *return_; } &reply);
