#include "opal-service/Simulator.h"

#include <boost/property_tree/ptree.hpp>
#include <boost/property_tree/xml_parser.hpp>
#include <nlohmann/json.hpp>
#include <sstream>
#include <stdexcept>

#include "opal-service/Operations.h"

namespace opal::service {
namespace {

constexpr const char* kUpload = "logUpload";
constexpr const char* kOperations[] = {
    "renewSession",          "openTicket",           "getStreamingConfiguration",
    "getPulseConfiguration", "getLogServerSettings", "saveEvent",
    "resumePlayBack"};
constexpr size_t kMaxCalls = 100000;
constexpr size_t kMaxKept = 64 << 20;
constexpr const char* kEmptyEnvelope =
    "<e:Envelope xmlns:e=\"http://schemas.xmlsoap.org/soap/envelope/\"><e:Body></e:Body>"
    "</e:Envelope>";

/// By the first element that bears an operation's name; the stub finds out the rest.
std::string OperationOf(const HttpRequest& request) {
    const std::string upload = "/WNCLogServer";
    if (request.path.size() >= upload.size() &&
        request.path.compare(request.path.size() - upload.size(), upload.size(), upload) == 0)
        return kUpload;
    for (const char* operation : kOperations) {
        if (request.body.find(std::string(":") + operation + ">") != std::string::npos ||
            request.body.find(std::string("<") + operation) != std::string::npos)
            return operation;
    }
    return "unknown";
}

Received ReadUpload(const HttpRequest& request) {
    const std::string& body = request.body;
    Received call;
    call.operation = kUpload;
    size_t actions = 0;
    for (size_t at = body.find("<action>"); at != std::string::npos; ++actions)
        at = body.find("<action>", at + 1);
    std::istringstream stream(body);
    boost::property_tree::ptree tree;
    std::string parses = "true";
    try {
        boost::property_tree::read_xml(stream, tree);
    } catch (const boost::property_tree::xml_parser_error& error) {
        parses = error.message();
    }
    call.fields = {{"method", request.method},
                   {"type", request.contentType},
                   {"bytes", std::to_string(body.size())},
                   {"events", std::to_string(actions)},
                   {"parses", parses},
                   {"document", body}};
    return call;
}

/// The service itself tells these, in an answer of its own.
bool IsSpoken(Failure::Kind kind) {
    return kind == Failure::Kind::Fault || kind >= Failure::Kind::RunOut;
}

/// `reply` is what it would be without the failure.
HttpReply FailedReply(const Failure& failure, const HttpReply& sound) {
    HttpReply reply;
    switch (failure.kind) {
        case Failure::Kind::Status:
            reply.status = failure.value;
            reply.contentType.clear();
            break;
        case Failure::Kind::Garbage:
            reply.body = "no <xml";
            break;
        case Failure::Kind::Html:
            reply.contentType = "text/html";
            reply.body = "<html><body>A page</body></html>";
            break;
        case Failure::Kind::Empty:
            reply.status = 202;
            reply.contentType.clear();
            break;
        case Failure::Kind::EmptyBody:
            reply.body = kEmptyEnvelope;
            break;
        case Failure::Kind::Namespace:
            reply = sound;
            for (size_t at = 0; (at = reply.body.find("urn:opal:", at)) != std::string::npos;)
                reply.body.replace(at, 4, "urx:");
            break;
        case Failure::Kind::Stall:
            reply.manner = HttpReply::Manner::Stall;
            break;
        default:
            reply.manner = HttpReply::Manner::Close;
            break;
    }
    return reply;
}

const std::pair<const char*, Failure::Kind> kKinds[] = {{"fault", Failure::Kind::Fault},
                                                        {"garbage", Failure::Kind::Garbage},
                                                        {"html", Failure::Kind::Html},
                                                        {"empty", Failure::Kind::Empty},
                                                        {"empty-body", Failure::Kind::EmptyBody},
                                                        {"namespace", Failure::Kind::Namespace},
                                                        {"stall", Failure::Kind::Stall},
                                                        {"close", Failure::Kind::Close},
                                                        {"run-out", Failure::Kind::RunOut},
                                                        {"no-record", Failure::Kind::NoRecord},
                                                        {"echo", Failure::Kind::Echo}};

int ToNumber(const std::string& text, const std::string& whole) {
    if (text.empty() || text.size() > 9 || text.find_first_not_of("0123456789") != text.npos)
        throw std::invalid_argument("'" + whole + "': write OPERATION=503, =fault, =garbage, " +
                                    "=html, =empty, =empty-body, =namespace, =stall, =close, " +
                                    "=run-out, =no-record, =echo or =refuse-NUMBER, and :TIMES " +
                                    "behind it");
    return std::stoi(text);
}

}  // namespace

Failure Failure::FromText(const std::string& text) {
    Failure failure;
    const size_t equals = text.find('=');
    failure.operation = text.substr(0, equals);
    std::string what = equals == std::string::npos ? "" : text.substr(equals + 1);
    const size_t colon = what.find(':');
    if (colon != std::string::npos) {
        failure.times = ToNumber(what.substr(colon + 1), text);
        what.erase(colon);
    }
    for (const auto& [name, kind] : kKinds) {
        if (what == name) {
            failure.kind = kind;
            return failure;
        }
    }
    const std::string refuse = "refuse-";
    if (what.compare(0, refuse.size(), refuse) == 0) {
        failure.kind = Kind::Refuse;
        what.erase(0, refuse.size());
    }
    failure.value = ToNumber(what, text);
    return failure;
}

std::string Received::Field(const std::string& name) const {
    for (const auto& field : fields) {
        if (field.first == name)
            return field.second;
    }
    return {};
}

std::string ToText(const Received& call) {
    std::string text = call.operation;
    for (const auto& field : call.fields) {
        if (field.first != "document")
            text += " " + field.first + "=" + field.second;
    }
    return text + " -> " + call.outcome;
}

std::string ToJson(const Received& call) {
    nlohmann::ordered_json json;
    json["operation"] = call.operation;
    for (const auto& field : call.fields)
        json[field.first] = field.second;
    json["outcome"] = call.outcome;
    return json.dump(-1, ' ', false, nlohmann::ordered_json::error_handler_t::replace);
}

class Simulator::Impl {
  public:
    explicit Impl(SimulatorSettings given)
        : settings(std::move(given)),
          server([this](const HttpRequest& request) { return Handle(request); }) {}

    HttpReply Handle(const HttpRequest& request) {
        const std::string operation = OperationOf(request);
        Received call;
        Failure failure;
        const bool fails = Strikes(operation, failure);
        HttpReply reply;
        if (operation == kUpload) {
            call = ReadUpload(request);
            reply.contentType = "text/html";
            const bool refused = fails && failure.kind >= Failure::Kind::NoRecord;
            reply.body = std::string("<serviceresponse><status>") +
                         (refused ? "failure" : "success") + "</status></serviceresponse>";
            if (fails && failure.kind == Failure::Kind::Echo)
                reply.body += request.body;
        } else {
            const std::string scheme = server.HasTls() ? "https" : "http";
            ServiceFacts facts{
                settings, fails ? &failure : nullptr,
                scheme + "://" + settings.address + ":" + std::to_string(server.Port())};
            facts.resumeMs = &resumeMs;
            facts.renewals = &renewals;
            reply = AnswerSoap(request.body, facts, call);
            if (call.operation.empty())
                call.operation = operation;
        }
        if (fails) {
            call.outcome = "failed on purpose";
            if (!IsSpoken(failure.kind))
                reply = FailedReply(failure, reply);
        }
        Keep(call, request.body.size());
        return reply;
    }

    /// The first failure that is meant for the operation, and one less of it.
    bool Strikes(const std::string& operation, Failure& struck) {
        std::lock_guard<std::mutex> lock(mutex);
        for (Failure& failure : settings.failures) {
            if ((failure.operation != operation && failure.operation != "*") || failure.times == 0)
                continue;
            struck = failure;
            if (failure.times > 0)
                --failure.times;
            return true;
        }
        return false;
    }

    void Keep(const Received& call, size_t size) {
        if (observer)
            observer(call);
        std::lock_guard<std::mutex> lock(mutex);
        if (calls.size() >= kMaxCalls || kept + size > kMaxKept)
            return;
        kept += size;
        calls.push_back(call);
    }

    SimulatorSettings settings;
    std::function<void(const Received&)> observer;
    std::map<std::string, int32_t> resumeMs;  ///< by ticket; the handler's alone
    int renewals = 0;
    mutable std::mutex mutex;  ///< of the failures and the calls
    std::vector<Received> calls;
    size_t kept = 0;  ///< bytes that the calls came in
    HttpServer server;
};

Simulator::Simulator(SimulatorSettings settings) : m_impl(new Impl(std::move(settings))) {}

Simulator::~Simulator() = default;

void Simulator::SetObserver(std::function<void(const Received&)> observer) {
    m_impl->observer = std::move(observer);
}

bool Simulator::Start(std::string* pError) {
    const SimulatorSettings& settings = m_impl->settings;
    return (settings.certificate.empty() ||
            m_impl->server.UseTls(settings.certificate, settings.key, pError)) &&
           m_impl->server.Start(settings.address, settings.port, pError);
}

void Simulator::Stop() {
    m_impl->server.Stop();
}

uint16_t Simulator::Port() const {
    return m_impl->server.Port();
}

void Simulator::SetFailures(const std::vector<Failure>& failures) {
    std::lock_guard<std::mutex> lock(m_impl->mutex);
    m_impl->settings.failures = failures;
}

size_t Simulator::ConnectionsAccepted() const {
    return m_impl->server.ConnectionsAccepted();
}

std::vector<Received> Simulator::Calls() const {
    std::lock_guard<std::mutex> lock(m_impl->mutex);
    return m_impl->calls;
}

std::string Simulator::EndpointFile() const {
    return std::string("ServerProtocol ") + (m_impl->server.HasTls() ? "https" : "http") +
           "\nServerHost " + m_impl->settings.address + "\nServerPort " + std::to_string(Port()) +
           "\n";
}

}  // namespace opal::service
