#pragma once

#include <string>

#include "Common/Mutex.h"
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
    opal::RecursiveMutex m_mutex;
    int64_t m_interval OPAL_GUARDED_BY(m_mutex) = 300000;
    size_t m_size OPAL_GUARDED_BY(m_mutex) = 0x20000;
    bool m_level1 OPAL_GUARDED_BY(m_mutex) = true;
    bool m_level2 OPAL_GUARDED_BY(m_mutex) = false;
    bool m_level3 OPAL_GUARDED_BY(m_mutex) = false;
    std::string m_country OPAL_GUARDED_BY(m_mutex) = "US";
    std::string m_language OPAL_GUARDED_BY(m_mutex) = "en";
};

/// Throws everything away.
class NullLogEventSender : public LogEventSender {
  public:
    OPALError Initialize() override { return OPAL_OK; }
    OPALError Send(const std::string&) override { return OPAL_OK; }
    OPALError Shutdown() override { return OPAL_OK; }
    void SetContext(void*) override {}
};
