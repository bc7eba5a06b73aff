#include "Common/logging/Logger.h"

#include <log4cxx/appenderskeleton.h>
#include <log4cxx/file.h>
#include <log4cxx/helpers/pool.h>
#include <log4cxx/propertyconfigurator.h>

#include <filesystem>

namespace {

/// An appender that drops everything. It stands at "opal" so that log4cxx does not complain on
/// stderr about loggers that nobody configured.
class SilentAppender : public log4cxx::AppenderSkeleton {
  public:
    void close() override {}
    bool requiresLayout() const override { return false; }

  protected:
    void append(const log4cxx::spi::LoggingEventPtr&, log4cxx::helpers::Pool&) override {}
};

void SilenceUnconfiguredLoggers() {
    static const bool done = [] {
        log4cxx::Logger::getLogger("opal")->addAppender(std::make_shared<SilentAppender>());
        return true;
    }();
    (void)done;
}

}  // namespace

log4cxx::LoggerPtr getLogger(const std::string& name) {
    SilenceUnconfiguredLoggers();
    return log4cxx::Logger::getLogger(name);
}

void LoggerPropertyConfigure(const std::string& path) {
    std::error_code error;
    if (std::filesystem::is_regular_file(path, error))
        log4cxx::PropertyConfigurator::configure(log4cxx::File(path));
}
