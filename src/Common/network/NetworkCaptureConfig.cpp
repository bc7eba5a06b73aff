#include "Common/network/NetworkCaptureConfig.h"

#include <tinyxml.h>

#include <boost/lexical_cast.hpp>
#include <cstdio>

#include "Common/ConfigurationFiles.h"
#include "Common/XmlParse.h"

const std::string NetworkCaptureConfig::kDefaultDevice;
const std::string NetworkCaptureConfig::kDefaultFilter = "port 80";

OPALError NetworkCaptureConfig::Load() {
    const char* const name = "kmt_net_cap_config.xml";
    std::string text;
    if (!opal::ReadConfigurationFile(name, text))
        return OPAL_ERROR_GENERAL;
    std::printf("FOUND CONFIG FILE!!! : %s\n", name);
    TiXmlDocument document;
    if (!opal::ParseSettings(document, text))
        return OPAL_ERROR_GENERAL;

    NetworkCaptureConfig loaded = *this;
    loaded.device = kDefaultDevice;
    loaded.filter = kDefaultFilter;
    const TiXmlElement* settings = document.FirstChildElement("settings");
    for (const TiXmlElement* element = settings ? settings->FirstChildElement() : nullptr; element;
         element = element->NextSiblingElement()) {
        const std::string setting = element->ValueStr();
        const char* value = element->GetText();
        if (setting != "device" && setting != "filter" && setting != "snapshot-length")
            continue;
        if (!value)
            return OPAL_ERROR_GENERAL;
        if (setting == "device")
            loaded.device = value;
        else if (setting == "filter")
            loaded.filter = value;
        else if (!boost::conversion::try_lexical_convert(value, loaded.snapshotLength))
            return OPAL_ERROR_GENERAL;
    }
    *this = loaded;
    return OPAL_OK;
}
