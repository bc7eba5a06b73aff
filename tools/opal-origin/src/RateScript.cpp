#include "opal-origin/RateScript.h"

#include <charconv>
#include <cmath>
#include <nlohmann/json.hpp>
#include <string_view>

namespace opal::origin {
namespace {

constexpr double kMaxRate = 1e12;      // bit/s; keeps every product below 2^63
constexpr double kMaxScriptMs = 1e12;  // 31 years
constexpr const char* kBlanks = " \t\r\n";

std::string_view Trim(std::string_view text) {
    const size_t first = text.find_first_not_of(kBlanks);
    if (first == std::string_view::npos)
        return {};
    return text.substr(first, text.find_last_not_of(kBlanks) - first + 1);
}

// A finite number >= 0 at the beginning of the text, which is then cut off.
bool TakeNumber(std::string_view* pText, double* pValue) {
    const auto result = std::from_chars(pText->data(), pText->data() + pText->size(), *pValue);
    if (result.ec != std::errc() || !std::isfinite(*pValue) || *pValue < 0)
        return false;
    pText->remove_prefix(static_cast<size_t>(result.ptr - pText->data()));
    return true;
}

bool ParseStep(std::string_view text, RateScript::Step* pStep) {
    double seconds = 0;
    text = Trim(text);
    if (!TakeNumber(&text, &seconds) || seconds * 1000 > kMaxScriptMs || text.empty() ||
        std::string_view(kBlanks).find(text.front()) == std::string_view::npos)
        return false;
    pStep->atMs = std::llround(seconds * 1000);
    return ParseRate(std::string(Trim(text)), &pStep->bitsPerSecond);
}

}  // namespace

bool ParseRate(const std::string& text, int64_t* pBitsPerSecond) {
    if (text == "unlimited") {
        *pBitsPerSecond = kUnlimited;
        return true;
    }
    std::string_view rest = text;
    double value = 0;
    if (!TakeNumber(&rest, &value) || rest.size() > 1)
        return false;
    if (!rest.empty()) {
        switch (rest.front()) {
            case 'k':
            case 'K':
                value *= 1e3;
                break;
            case 'm':
            case 'M':
                value *= 1e6;
                break;
            case 'g':
            case 'G':
                value *= 1e9;
                break;
            default:
                return false;
        }
    }
    if (value > kMaxRate)
        return false;
    *pBitsPerSecond = std::llround(value);
    return true;
}

RateScript RateScript::Constant(int64_t bitsPerSecond) {
    RateScript script;
    script.steps.push_back({0, bitsPerSecond, 0});
    return script;
}

bool RateScript::FromText(const std::string& text, RateScript* pScript, std::string* pError) {
    RateScript script;
    for (size_t start = 0; start <= text.size();) {
        const size_t end = std::min(text.find(',', start), text.size());
        const std::string part = text.substr(start, end - start);
        Step step;
        if (!ParseStep(part, &step)) {
            *pError = "'" + part + "' is not a time in seconds and a rate, such as '20 1000k'";
            return false;
        }
        if (script.steps.empty()) {
            step.atMs = 0;
        } else if (step.atMs <= script.steps.back().atMs) {
            *pError = "the time in '" + part + "' is not behind the one before";
            return false;
        }
        script.steps.push_back(step);
        start = end + 1;
    }
    *pScript = script;
    return true;
}

bool RateScript::FromTrace(const std::string& json, RateScript* pScript, std::string* pError) {
    try {
        const nlohmann::json trace = nlohmann::json::parse(json);
        RateScript script;
        double atMs = 0;
        if (!trace.is_array()) {
            *pError = "a bandwidth trace is a JSON array";
            return false;
        }
        for (const nlohmann::json& entry : trace) {
            const double durationMs = entry.at("duration_ms").get<double>();
            const double rate = entry.at("bandwidth_kbps").get<double>() * 1000;
            const double latencyMs = entry.value("latency_ms", 0.0);
            if (!(durationMs >= 0 && rate >= 0 && rate <= kMaxRate && latencyMs >= 0 &&
                  latencyMs <= kMaxScriptMs && atMs + durationMs <= kMaxScriptMs)) {
                *pError = "entry " + entry.dump() + " is negative or too large";
                return false;
            }
            const Step step{std::llround(atMs), std::llround(rate), std::llround(latencyMs)};
            atMs += durationMs;
            if (std::llround(atMs) > step.atMs)
                script.steps.push_back(step);
        }
        script.loopMs = std::llround(atMs);
        if (script.steps.empty()) {
            *pError = "the bandwidth trace lasts no time";
            return false;
        }
        *pScript = script;
        return true;
    } catch (const nlohmann::json::exception& error) {
        *pError = error.what();
        return false;
    }
}

}  // namespace opal::origin
