#pragma once

#include <boost/scoped_ptr.hpp>

#include "Common/OPALError.h"
#include "Common/logging/LogEventSenderConfig.h"

class TiXmlDocument;

/// Reader of the optional settings file "kmt_logging_config.xml".
class LoggingConfig {
  public:
    LoggingConfig();
    ~LoggingConfig();

    /// -1 if the file is not there or no XML.
    OPALError Load();
    /// Overlays what the file names. -1, with `config` as it was, if a value does not convert.
    OPALError Read(LogEventSenderConfig& config) const;

  private:
    boost::scoped_ptr<TiXmlDocument> m_document;
};
