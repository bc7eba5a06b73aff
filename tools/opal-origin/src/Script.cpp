#include "opal-origin/Script.h"

#include <functional>
#include <limits>
#include <map>
#include <nlohmann/json.hpp>
#include <stdexcept>

namespace opal::origin {
namespace {

using nlohmann::json;
using Setter = std::function<void(const json&, Fault*)>;

// The parsers here throw with a text; FromJson alone turns that into its result.
[[noreturn]] void Refuse(const std::string& text) {
    throw std::invalid_argument(text);
}

int64_t Number(const json& value, int64_t least,
               int64_t most = std::numeric_limits<int64_t>::max()) {
    if (!value.is_number_integer() || value.get<int64_t>() < least || value.get<int64_t>() > most ||
        (value.is_number_unsigned() &&
         value.get<uint64_t>() > static_cast<uint64_t>(std::numeric_limits<int64_t>::max())))
        Refuse(value.dump() + " is not a whole number from " + std::to_string(least) + " on");
    return value.get<int64_t>();
}

Setter NumberTo(int64_t Fault::*member, int64_t least) {
    return [member, least](const json& value, Fault* pFault) {
        pFault->*member = Number(value, least);
    };
}

Setter PositionTo(int64_t Fault::*member) {
    return [member](const json& value, Fault* pFault) {
        pFault->*member = value == "before-head" ? kBeforeHead : Number(value, 0);
    };
}

Setter TextTo(std::string Fault::*member) {
    return [member](const json& value, Fault* pFault) { pFault->*member = value; };
}

Setter FlagTo(bool Fault::*member) {
    return [member](const json& value, Fault* pFault) { pFault->*member = value; };
}

void SetMethod(const json& value, Fault* pFault) {
    if (value == "GET")
        pFault->method = Method::Get;
    else if (value == "HEAD")
        pFault->method = Method::Head;
    else
        Refuse(value.dump() + " is neither \"GET\" nor \"HEAD\"");
}

void SetHeaders(const json& value, Fault* pFault) {
    for (const auto& [name, text] : value.items())
        pFault->setHeaders.emplace_back(name, text.get<std::string>());
}

const std::map<std::string, Setter>& FaultKeys() {
    static const std::map<std::string, Setter> keys{
        {"url", TextTo(&Fault::pattern)},
        {"method", SetMethod},
        {"range_start", NumberTo(&Fault::rangeStart, 0)},
        {"covers", NumberTo(&Fault::covers, 0)},
        {"skip", NumberTo(&Fault::skip, 0)},
        {"times", NumberTo(&Fault::count, 1)},
        {"nth", [](const json& value, Fault* pFault) { *pFault = pFault->Nth(Number(value, 1)); }},
        {"status",
         [](const json& value, Fault* pFault) {
             pFault->status = static_cast<int>(Number(value, 200, 599));
         }},
        {"body", [](const json& value, Fault* pFault) { pFault->body = value.get<std::string>(); }},
        {"redirect", TextTo(&Fault::location)},
        {"ignore_range", FlagTo(&Fault::ignoreRange)},
        {"extra_bytes", NumberTo(&Fault::extraBytes, 0)},
        {"headers", SetHeaders},
        {"drop_headers",
         [](const json& value, Fault* pFault) {
             pFault->dropHeaders = value.get<std::vector<std::string>>();
         }},
        {"delay_ms", NumberTo(&Fault::delayMs, 0)},
        {"stall_at", PositionTo(&Fault::stallAt)},
        {"stall_ms", NumberTo(&Fault::stallMs, 0)},
        {"reset_at", PositionTo(&Fault::resetAt)},
        {"close_at", PositionTo(&Fault::closeAt)},
        {"close_after", FlagTo(&Fault::closeAfter)},
        {"hold", [](const json& value,
                    Fault* pFault) { pFault->stallAt = value.get<bool>() ? kBeforeHead : kNever; }},
    };
    return keys;
}

Fault ParseFault(const json& value) {
    Fault fault;
    if (!value.is_object())
        Refuse("is not an object");
    for (const auto& [key, setting] : value.items()) {
        const auto found = FaultKeys().find(key);
        if (found == FaultKeys().end())
            Refuse("has an unknown key \"" + key + "\"");
        try {
            found->second(setting, &fault);
        } catch (const std::exception& error) {
            Refuse("key \"" + key + "\": " + error.what());
        }
    }
    return fault;
}

void ParseFaults(const json& value, std::vector<Fault>* pFaults) {
    if (!value.is_array())
        Refuse("\"faults\" is not an array");
    for (const json& item : value) {
        try {
            pFaults->push_back(ParseFault(item));
        } catch (const std::exception& error) {
            Refuse("fault " + std::to_string(pFaults->size() + 1) + ": " + error.what());
        }
    }
}

void ParseRates(const std::string& key, const json& value, Script* pScript) {
    std::string error;
    if (pScript->hasRates)
        Refuse("\"" + key + "\" stands beside another rate");
    pScript->hasRates = true;
    if (key == "rate") {
        int64_t rate = 0;
        if (!ParseRate(value.get<std::string>(), &rate))
            Refuse("\"rate\": " + value.dump() + " is not a rate such as \"6000k\"");
        pScript->rates = RateScript::Constant(rate);
    } else if (key == "rates"
                   ? !RateScript::FromText(value.get<std::string>(), &pScript->rates, &error)
                   : !RateScript::FromTrace(value.dump(), &pScript->rates, &error)) {
        Refuse("\"" + key + "\": " + error);
    }
}

}  // namespace

bool Script::FromJson(const std::string& text, Script* pScript, std::string* pError) {
    try {
        const json root = json::parse(text);
        Script script;
        if (!root.is_object())
            Refuse("a script is a JSON object");
        for (const auto& [key, value] : root.items()) {
            if (key == "rate" || key == "rates" || key == "trace")
                ParseRates(key, value, &script);
            else if (key == "latency_ms")
                script.latencyMs = Number(value, 0);
            else if (key == "faults")
                ParseFaults(value, &script.faults);
            else
                Refuse("unknown key \"" + key + "\"");
        }
        *pScript = script;
        return true;
    } catch (const std::exception& error) {
        *pError = error.what();
        return false;
    }
}

void Script::ApplyTo(Origin* pOrigin) const {
    if (hasRates)
        pOrigin->SetRateScript(rates);
    pOrigin->SetLatency(latencyMs);
    for (const Fault& fault : faults)
        pOrigin->AddFault(fault);
}

}  // namespace opal::origin
