#include "opal-simulate/Tunables.h"

#include <algorithm>
#include <boost/lexical_cast.hpp>
#include <functional>
#include <map>
#include <sstream>
#include <utility>

namespace opal::simulate {
namespace {

using Global = AlgorithmConfig::Global;
using Mode = AlgorithmConfig::Mode;

constexpr size_t kMaxGrid = 100000;

const std::map<std::string, std::function<void(Global&, int64_t)>>& GlobalFields() {
    static const std::map<std::string, std::function<void(Global&, int64_t)>> fields = {
        {"initialBandwidthDecision",
         [](Global& g, int64_t v) {
             g.initialBandwidthDecision = static_cast<InitialBandwidthMode>(v);
         }},
        {"bandwidthHint", [](Global& g, int64_t v) { g.bandwidthHint = static_cast<int>(v); }},
        {"maxSecondsInAgileMode", [](Global& g, int64_t v) { g.maxSecondsInAgileMode = v; }},
        {"minSecondsInAgileMode", [](Global& g, int64_t v) { g.minSecondsInAgileMode = v; }},
        {"maxBufferFromEmpty", [](Global& g, int64_t v) { g.maxBufferFromEmpty = v; }},
        {"maxBuffer", [](Global& g, int64_t v) { g.maxBuffer = v; }},
        {"minBufferedToEnterAgile", [](Global& g, int64_t v) { g.minBufferedToEnterAgile = v; }},
        {"upperGuardTrigger",
         [](Global& g, int64_t v) { g.upperGuardTrigger = static_cast<int>(v); }},
        {"algorithmCycle", [](Global& g, int64_t v) { g.algorithmCycle = v != 0; }},
        {"disableQuickstart", [](Global& g, int64_t v) { g.disableQuickstart = v != 0; }},
        {"disableSteadyState", [](Global& g, int64_t v) { g.disableSteadyState = v != 0; }},
        {"maxLevelDrop", [](Global& g, int64_t v) { g.maxLevelDrop = static_cast<int>(v); }},
        {"bandwidthMonitorSampleCount",
         [](Global& g, int64_t v) { g.bandwidthMonitorSampleCount = v; }},
        {"bandwidthMonitorWindowInterval",
         [](Global& g, int64_t v) { g.bandwidthMonitorWindowInterval = v; }},
        {"bandwidthMonitorMinWindowInterval",
         [](Global& g, int64_t v) { g.bandwidthMonitorMinWindowInterval = v; }},
        {"bandwidthMonitorGapOrder",
         [](Global& g, int64_t v) { g.bandwidthMonitorGapOrder = static_cast<int>(v); }},
        {"abandonTransfers", [](Global& g, int64_t v) { g.abandonTransfers = v != 0; }},
    };
    return fields;
}

int64_t* ModeField(Mode& mode, const std::string& name) {
    if (name == "minPeriodUpSwitch")
        return &mode.minPeriodUpSwitch;
    if (name == "minPeriodDownSwitch")
        return &mode.minPeriodDownSwitch;
    return nullptr;
}

std::pair<std::string, std::string> Split(const std::string& assignment) {
    const size_t equals = assignment.find('=');
    if (equals == std::string::npos || equals == 0)
        throw UsageError(assignment + ": not of the form NAME=VALUE");
    return {assignment.substr(0, equals), assignment.substr(equals + 1)};
}

}  // namespace

Tunables Tunables::Current() {
    const AlgorithmConfig& config = AlgorithmConfig::Instance();
    Tunables tunables;
    Global& global = tunables.m_global;
    global.initialBandwidthDecision = config.GetInitialBandwidthDecision();
    global.bandwidthHint = config.GetBandwidthHint();
    global.maxSecondsInAgileMode = config.GetMaxSecondsInAgileMode();
    global.minSecondsInAgileMode = config.GetMinSecondsInAgileMode();
    global.maxBufferFromEmpty = config.GetMaxBufferFromEmpty();
    global.maxBuffer = config.GetMaxBuffer();
    global.minBufferedToEnterAgile = config.GetMinBufferedToEnterAgile();
    global.upperGuardTrigger = config.GetUpperGuardTrigger();
    global.algorithmCycle = config.GetAlgorithmCycle();
    global.disableQuickstart = config.GetDisableQuickstart();
    global.disableSteadyState = config.GetDisableSteadyState();
    global.maxLevelDrop = config.GetMaxLevelDrop();
    global.bandwidthMonitorSampleCount = config.GetBandwidthMonitorSampleCount();
    global.bandwidthMonitorWindowInterval = config.GetBandwidthMonitorWindowInterval();
    global.bandwidthMonitorMinWindowInterval = config.GetBandwidthMonitorMinWindowInterval();
    global.bandwidthMonitorGapOrder = config.GetBandwidthMonitorGapOrder();
    global.abandonTransfers = config.GetAbandonTransfers();
    for (auto [record, mode] : {std::pair<Mode*, int>{&tunables.m_agile, AlgorithmConfig::kAgile},
                                {&tunables.m_steady, AlgorithmConfig::kSteady}}) {
        record->minPeriodUpSwitch = config.GetMinPeriodUpSwitch(mode);
        record->minPeriodDownSwitch = config.GetMinPeriodDownSwitch(mode);
    }
    return tunables;
}

void Tunables::Set(const std::string& assignment) {
    const auto [name, text] = Split(assignment);
    int64_t value = 0;
    if (!boost::conversion::try_lexical_convert(text, value))
        throw UsageError(assignment + ": the value is not a whole number");
    int64_t* modeField = nullptr;
    if (name.rfind("agile.", 0) == 0)
        modeField = ModeField(m_agile, name.substr(6));
    else if (name.rfind("steady.", 0) == 0)
        modeField = ModeField(m_steady, name.substr(7));
    const auto global = GlobalFields().find(name);
    if (modeField)
        *modeField = value;
    else if (global != GlobalFields().end())
        global->second(m_global, value);
    else
        throw UsageError(assignment + ": there is no tunable of that name");
    m_given.push_back(assignment);
}

void Tunables::Apply() const {
    (void)AlgorithmConfig::Instance().Set(m_global, m_agile, m_steady);
}

std::string Tunables::Describe() const {
    std::string text;
    for (const std::string& given : m_given)
        text += (text.empty() ? "" : " ") + given;
    return text.empty() ? "default" : text;
}

std::string Tunables::ToSettingsFile() const {
    std::ostringstream text;
    const auto number = [&text](const char* name, int64_t value) {
        text << "<" << name << ">" << value << "</" << name << ">";
    };
    const auto seconds = [&number](const char* name, int64_t ms) {
        if (ms % 1000 != 0)
            throw UsageError(std::string(name) + ": a recording takes whole seconds");
        number(name, ms / 1000);
    };
    static const std::map<InitialBandwidthMode, const char*> modes = {
        {InitialBandwidthMode_LowestLevel, "LowestLevel"},
        {InitialBandwidthMode_BandwidthProbe, "BandwidthProbe"},
        {InitialBandwidthMode_BandwidthHint, "BandwidthHint"}};
    const Global& g = m_global;
    text << "<global><initialBandwidthDecision>InitialBandwidthMode_"
         << modes.at(g.initialBandwidthDecision) << "</initialBandwidthDecision>";
    number("bandwidthHint", g.bandwidthHint);
    seconds("maxSecondsInAgileMode", g.maxSecondsInAgileMode);
    seconds("minSecondsInAgileMode", g.minSecondsInAgileMode);
    seconds("maxBufferFromEmpty", g.maxBufferFromEmpty);
    seconds("maxBuffer", std::max<int64_t>(0, g.maxBuffer));
    seconds("minBufferedToEnterAgile", g.minBufferedToEnterAgile);
    number("upperGuardTrigger", g.upperGuardTrigger);
    number("algorithmCycle", g.algorithmCycle);
    number("disableQuickstart", g.disableQuickstart);
    number("disableSteadyState", g.disableSteadyState);
    number("maxLevelDrop", g.maxLevelDrop);
    number("bandwidthMonitorSampleCount", g.bandwidthMonitorSampleCount);
    seconds("bandwidthMonitorWindowInterval", g.bandwidthMonitorWindowInterval);
    seconds("bandwidthMonitorMinWindowInterval", g.bandwidthMonitorMinWindowInterval);
    number("bandwidthMonitorGapOrder", g.bandwidthMonitorGapOrder);
    number("abandonTransfers", g.abandonTransfers);
    text << "</global>";
    for (const auto& [section, mode] :
         {std::pair<const char*, const Mode*>{"agile", &m_agile}, {"steady", &m_steady}}) {
        text << "<" << section << ">";
        seconds("minPeriodUpSwitch", mode->minPeriodUpSwitch);
        seconds("minPeriodDownSwitch", mode->minPeriodDownSwitch);
        text << "</" << section << ">";
    }
    return text.str();
}

std::vector<Tunables> Grid(const Tunables& base, const std::vector<std::string>& axes) {
    std::vector<Tunables> grid = {base};
    for (const std::string& axis : axes) {
        const auto [name, values] = Split(axis);
        std::vector<Tunables> next;
        for (const Tunables& tunables : grid) {
            std::istringstream stream(values);
            for (std::string value; std::getline(stream, value, ',');) {
                next.push_back(tunables);
                next.back().Set(name + "=" + value);
            }
        }
        if (next.empty() || next.size() > kMaxGrid)
            throw UsageError(axis + ": no values, or too large a grid");
        grid = std::move(next);
    }
    return grid;
}

}  // namespace opal::simulate
