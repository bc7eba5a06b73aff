#pragma once

#include <log4cxx/logger.h>

#include <memory>
#include <string>

#include "Common/logging/LogEventSender.h"
#include "Common/logging/LogEventSenderConfig.h"
#include "ContentSession/src/Services.h"
#include "StreamingReader/HTTPFile/HTTPPost.h"

/// Uploads the log under a content session, which tells where to and how much.
///
/// Threading: as ILogEventSender.
/// Ownership: the session that is given as context outlives Shutdown.
/// Errors: -21 without a session, else as the services' calls. Once the stop signal is raised, an
/// upload has less than a second left.
class WNCLogEventSender : public LogEventSender {
  public:
    explicit WNCLogEventSender(const LogEventSenderConfig* config);
    ~WNCLogEventSender() override;

    OPALError Initialize() override;
    OPALError Send(const std::string& document) override;
    OPALError Shutdown() override;
    void SetContext(void* context) override;
    void SetStopSignal(const opal::StopSignal* signal) override;

  private:
    void TakeOver(const CLogSettingsService::Settings& settings);

    const log4cxx::LoggerPtr m_logger;
    bool m_localSettings = false;
    ServiceSession* m_context = nullptr;
    const opal::StopSignal* m_stop = nullptr;
    std::unique_ptr<CLogSettingsService> m_service;
    std::unique_ptr<opal::HTTPPost> m_post;
    std::string m_url;
    std::string m_prefix;
    std::string m_suffix;
};
