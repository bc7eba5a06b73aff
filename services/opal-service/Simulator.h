#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "opal-service/HttpServer.h"

namespace opal::service {

/// What goes wrong with an operation.
struct Failure {
    enum class Kind {
        Status,     ///< `value` is the HTTP status; no body
        Fault,      ///< a SOAP fault
        Garbage,    ///< status 200 and no XML
        Html,       ///< status 200 and a page
        Empty,      ///< status 202 and nothing
        EmptyBody,  ///< status 200 and an envelope around nothing
        Namespace,  ///< the answer in the names of another service
        Stall,      ///< no reply
        Close,      ///< the connection is closed without a reply
        RunOut,     ///< the session has run out: `success` false with number 400015
        NoRecord,   ///< `success` false, and not a word
        Echo,       ///< `success` false, and all that the client told of itself repeated
        Refuse      ///< `success` false with number `value` and a text
    };
    std::string operation;  ///< "logUpload" too; "*" is any
    Kind kind = Kind::Status;
    int32_t value = 503;
    int times = -1;  ///< how often; -1: always

    /// "saveEvent=503", "saveEvent=fault:2"; throws std::invalid_argument with a text for people.
    static Failure FromText(const std::string& text);
};

struct SimulatorSettings {
    std::string address = "127.0.0.1";
    uint16_t port = 0;
    std::string certificate;  ///< PEM files; empty: plain HTTP
    std::string key;
    std::string manifest;                          ///< of any ticket; empty: of none
    std::map<std::string, std::string> manifests;  ///< by ticket
    std::string assetId = "asset";                 ///< empty: none is told
    int32_t audioAssetId = -1;
    int32_t subtitleAssetId = -1;
    int32_t pulseSeconds = 10;
    int64_t logPeriodMinutes = 1;
    int64_t logSize = 0x20000;
    bool logLevels[3] = {true, true, true};
    std::string bandwidthMode = "LowestLevel";
    int32_t bandwidthHint = 0;
    int32_t resumeMs = 0;  ///< until a session has reported a position
    std::vector<Failure> failures;
};

/// One call that came in, as it was asked and as it ended.
struct Received {
    std::string operation;
    std::vector<std::pair<std::string, std::string>> fields;
    std::string outcome = "ok";

    std::string Field(const std::string& name) const;
};
std::string ToText(const Received& call);
std::string ToJson(const Received& call);

/// The content services of a ticket start, in one process: for demonstrations and tests.
///
/// Keeps the first 100000 calls, and 64 MiB of them at most.
///
/// Threading: threads of its own from Start to Stop; the observer is called by one at a time.
class Simulator {
  public:
    explicit Simulator(SimulatorSettings settings);
    ~Simulator();
    Simulator(const Simulator&) = delete;
    Simulator& operator=(const Simulator&) = delete;

    /// Before Start.
    void SetObserver(std::function<void(const Received&)> observer);
    bool Start(std::string* pError);
    void Stop();
    uint16_t Port() const;
    /// From now on; those before are forgotten.
    void SetFailures(const std::vector<Failure>& failures);
    size_t ConnectionsAccepted() const;
    std::vector<Received> Calls() const;
    /// What a client's WNCEndPoint.cfg has to say.
    std::string EndpointFile() const;

  private:
    class Impl;
    std::unique_ptr<Impl> m_impl;
};

}  // namespace opal::service
