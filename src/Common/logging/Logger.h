#pragma once

#include <log4cxx/logger.h>

#include <string>

#include "Common/Export.h"

/// The diagnostic logger of that name; the library's own lie below "opal.". The same name gives the
/// same logger. Any thread.
OPAL_EXPORT log4cxx::LoggerPtr getLogger(const std::string& name);

/// Configures the diagnostic loggers from a log4cxx property file. A missing file leaves them as
/// they are, and nothing is written.
OPAL_EXPORT void LoggerPropertyConfigure(const std::string& path);
