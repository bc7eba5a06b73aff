#include <tinyxml.h>

#include <boost/lexical_cast.hpp>
#include <cstdio>
#include <map>
#include <stdexcept>
#include <string>

#include "Common/ConfigurationFiles.h"
#include "Common/XmlParse.h"
#include "StreamSwitchingAlgorithm/AlgorithmConfig.h"

namespace {

using Global = AlgorithmConfig::Global;
using Mode = AlgorithmConfig::Mode;

template <typename Record>
using Settings = std::map<std::string, void (*)(const std::string& text, Record& record)>;

/// Seconds to milliseconds in 32-bit arithmetic: large values wrap, as they always have on the
/// television.
uint32_t ShortSeconds(const std::string& text) {
    return boost::lexical_cast<uint32_t>(text) * uint32_t{1000};
}

int64_t LongSeconds(const std::string& text) {
    return static_cast<int64_t>(static_cast<uint64_t>(boost::lexical_cast<int64_t>(text)) * 1000u);
}

int Number(const std::string& text) {
    return static_cast<int>(boost::lexical_cast<uint32_t>(text));
}

bool Flag(const std::string& text) {
    return boost::lexical_cast<uint32_t>(text) != 0;
}

/// Any other text leaves the mode as it was.
void SetInitialBandwidthDecision(const std::string& text, Global& global) {
    if (text == "InitialBandwidthMode_LowestLevel")
        global.initialBandwidthDecision = InitialBandwidthMode_LowestLevel;
    else if (text == "InitialBandwidthMode_BandwidthProbe")
        global.initialBandwidthDecision = InitialBandwidthMode_BandwidthProbe;
    else if (text == "InitialBandwidthMode_BandwidthHint")
        global.initialBandwidthDecision = InitialBandwidthMode_BandwidthHint;
}

const Settings<Global>& GlobalSettings() {
    static const Settings<Global> settings = {
        {"bandwidthHint", [](auto& t, auto& g) { g.bandwidthHint = Number(t); }},
        // The only one of its kind that is sign-extended.
        {"maxBufferFromEmpty",
         [](auto& t, auto& g) { g.maxBufferFromEmpty = static_cast<int32_t>(ShortSeconds(t)); }},
        {"maxBuffer", [](auto& t, auto& g) { g.maxBuffer = LongSeconds(t); }},
        {"minBufferedToEnterAgile",
         [](auto& t, auto& g) { g.minBufferedToEnterAgile = ShortSeconds(t); }},
        {"initialBandwidthDecision", &SetInitialBandwidthDecision},
        {"maxSecondsInAgileMode",
         [](auto& t, auto& g) { g.maxSecondsInAgileMode = ShortSeconds(t); }},
        {"minSecondsInAgileMode",
         [](auto& t, auto& g) { g.minSecondsInAgileMode = ShortSeconds(t); }},
        {"upperGuardTrigger", [](auto& t, auto& g) { g.upperGuardTrigger = Number(t); }},
        {"algorithmCycle", [](auto& t, auto& g) { g.algorithmCycle = Flag(t); }},
        {"disableQuickstart", [](auto& t, auto& g) { g.disableQuickstart = Flag(t); }},
        {"maxLevelDrop", [](auto& t, auto& g) { g.maxLevelDrop = Number(t); }},
        {"disableSteadyState", [](auto& t, auto& g) { g.disableSteadyState = Flag(t); }},
        {"bandwidthMonitorSampleCount",
         [](auto& t, auto& g) { g.bandwidthMonitorSampleCount = boost::lexical_cast<int64_t>(t); }},
        {"bandwidthMonitorWindowInterval",
         [](auto& t, auto& g) { g.bandwidthMonitorWindowInterval = LongSeconds(t); }},
        {"bandwidthMonitorMinWindowInterval",
         [](auto& t, auto& g) { g.bandwidthMonitorMinWindowInterval = LongSeconds(t); }},
        {"bandwidthMonitorGapOrder",
         [](auto& t, auto& g) { g.bandwidthMonitorGapOrder = Number(t); }},
        {"abandonTransfers", [](auto& t, auto& g) { g.abandonTransfers = Flag(t); }},
    };
    return settings;
}

const Settings<Mode>& ModeSettings() {
    static const Settings<Mode> settings = {
        {"minPeriodUpSwitch", [](auto& t, auto& m) { m.minPeriodUpSwitch = ShortSeconds(t); }},
        {"minPeriodDownSwitch", [](auto& t, auto& m) { m.minPeriodDownSwitch = ShortSeconds(t); }},
    };
    return settings;
}

template <typename Record>
void ReadSection(const TiXmlElement& section, const Settings<Record>& settings, Record& record) {
    for (const TiXmlElement* element = section.FirstChildElement(); element;
         element = element->NextSiblingElement()) {
        const auto setting = settings.find(element->ValueStr());
        if (setting == settings.end())
            continue;
        const char* text = element->GetText();
        if (!text)
            throw std::logic_error("setting without text: " + element->ValueStr());
        setting->second(text, record);
    }
}

}  // namespace

bool LoadConfigFile() {
    std::string text;
    if (!opal::ReadConfigurationFile("kmt_ssa_config.xml", text))
        return false;
    std::puts("FOUND CONFIG FILE!!!");
    return LoadConfigText(text);
}

bool LoadConfigText(const std::string& text) {
    TiXmlDocument document;
    if (!opal::ParseSettings(document, text))
        return false;

    Global global;
    Mode agile;
    Mode steady;
    try {
        for (const TiXmlElement* section = document.FirstChildElement(); section;
             section = section->NextSiblingElement()) {
            if (section->ValueStr() == "global")
                ReadSection(*section, GlobalSettings(), global);
            else if (section->ValueStr() == "agile")
                ReadSection(*section, ModeSettings(), agile);
            else if (section->ValueStr() == "steady")
                ReadSection(*section, ModeSettings(), steady);
        }
    } catch (const boost::bad_lexical_cast&) {
        return false;
    }
    return AlgorithmConfig::Instance().Set(global, agile, steady) == OPAL_OK;
}
