#include "Common/logging/LoggingConfig.h"

#include <tinyxml.h>

#include <boost/lexical_cast.hpp>
#include <cstdio>
#include <string>

#include "Common/ConfigurationFiles.h"
#include "Common/XmlNesting.h"

namespace {

void Apply(const std::string& name, const std::string& text, LogEventSenderConfig& config) {
    if (name == "transaction-interval")
        config.transactionInterval = boost::lexical_cast<int64_t>(text);
    else if (name == "transaction-size")
        config.transactionSize = boost::lexical_cast<size_t>(text);
    else if (name == "enable-level1")
        config.enableLevel1 = boost::lexical_cast<bool>(text);
    else if (name == "enable-level2")
        config.enableLevel2 = boost::lexical_cast<bool>(text);
    else if (name == "enable-level3")
        config.enableLevel3 = boost::lexical_cast<bool>(text);
}

}  // namespace

LoggingConfig::LoggingConfig() = default;
LoggingConfig::~LoggingConfig() = default;

OPALError LoggingConfig::Load() {
    std::string text;
    if (!opal::ReadConfigurationFile("kmt_logging_config.xml", text))
        return OPAL_ERROR_GENERAL;
    std::puts("FOUND CONFIG FILE!!!");
    if (!opal::IsXmlNestingBounded(text.data(), text.size()))
        return OPAL_ERROR_GENERAL;
    m_document.reset(new TiXmlDocument);
    m_document->Parse(text.c_str(), nullptr, TIXML_ENCODING_UTF8);
    return m_document->Error() ? OPAL_ERROR_GENERAL : OPAL_OK;
}

OPALError LoggingConfig::Read(LogEventSenderConfig& config) const {
    if (!m_document)
        return OPAL_ERROR_GENERAL;
    LogEventSenderConfig result = config;
    for (const TiXmlElement* settings = m_document->FirstChildElement("settings"); settings;
         settings = settings->NextSiblingElement("settings")) {
        for (const TiXmlElement* element = settings->FirstChildElement(); element;
             element = element->NextSiblingElement()) {
            const char* text = element->GetText();
            if (!text)
                return OPAL_ERROR_GENERAL;
            try {
                Apply(element->ValueStr(), text, result);
            } catch (const boost::bad_lexical_cast&) {
                return OPAL_ERROR_GENERAL;
            }
        }
    }
    config = result;
    return OPAL_OK;
}
