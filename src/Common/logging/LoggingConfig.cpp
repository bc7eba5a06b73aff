#include "Common/logging/LoggingConfig.h"

#include <tinyxml.h>

#include <boost/lexical_cast.hpp>
#include <cstdio>
#include <string>

#include "Common/ConfigurationFiles.h"
#include "Common/XmlParse.h"

namespace {

/// False for a value that does not convert; an element without text has none that does.
template <typename T>
bool Convert(const TiXmlElement& element, T& value) {
    const char* text = element.GetText();
    return text && boost::conversion::try_lexical_convert(std::string(text), value);
}

/// Elements of other names are passed over.
bool Apply(const TiXmlElement& element, LogEventSenderConfig& config) {
    const std::string& name = element.ValueStr();
    if (name == "transaction-interval")
        return Convert(element, config.transactionInterval);
    if (name == "transaction-size")
        return Convert(element, config.transactionSize);
    if (name == "enable-level1")
        return Convert(element, config.enableLevel1);
    if (name == "enable-level2")
        return Convert(element, config.enableLevel2);
    if (name == "enable-level3")
        return Convert(element, config.enableLevel3);
    return true;
}

}  // namespace

LoggingConfig::LoggingConfig() = default;
LoggingConfig::~LoggingConfig() = default;

OPALError LoggingConfig::Load() {
    std::string text;
    if (!opal::ReadConfigurationFile("kmt_logging_config.xml", text))
        return OPAL_ERROR_GENERAL;
    std::puts("FOUND CONFIG FILE!!!");
    m_document.reset(new TiXmlDocument);
    if (opal::ParseSettings(*m_document, text))
        return OPAL_OK;
    m_document.reset();
    return OPAL_ERROR_GENERAL;
}

OPALError LoggingConfig::Read(LogEventSenderConfig& config) const {
    if (!m_document)
        return OPAL_ERROR_GENERAL;
    LogEventSenderConfig result = config;
    for (const TiXmlElement* settings = m_document->FirstChildElement("settings"); settings;
         settings = settings->NextSiblingElement("settings")) {
        for (const TiXmlElement* element = settings->FirstChildElement(); element;
             element = element->NextSiblingElement()) {
            if (!Apply(*element, result))
                return OPAL_ERROR_GENERAL;
        }
    }
    config = result;
    return OPAL_OK;
}
