#pragma once

#include <boost/thread/recursive_mutex.hpp>
#include <string>

#include "Common/logging/ILogEventSender.h"

/// The settings of a log sender; what it does with a document is left to the derived class.
///
/// Threading: the settings have a lock of their own.
class LogEventSender : public ILogEventSender {
  public:
    void SetLocale(const std::string& country, const std::string& language) override;
    /// More than a day counts as 300 s.
    int64_t GetTransactionInterval() override;
    /// More than 32 MiB counts as 128 KiB.
    size_t GetTransactionSize() override;
    bool IsLevel1Enabled() override;
    bool IsLevel2Enabled() override;
    bool IsLevel3Enabled() override;

  protected:
    boost::recursive_mutex m_mutex;
    int64_t m_interval = 300000;
    size_t m_size = 0x20000;
    bool m_level1 = true;
    bool m_level2 = false;
    bool m_level3 = false;
    std::string m_country = "US";
    std::string m_language = "en";
};

/// Throws everything away.
class NullLogEventSender : public LogEventSender {
  public:
    OPALError Initialize() override { return OPAL_OK; }
    OPALError Send(const std::string&) override { return OPAL_OK; }
    OPALError Shutdown() override { return OPAL_OK; }
    void SetContext(void*) override {}
};
