#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

#include "Common/OPALError.h"

namespace opal {
class StopSignal;
}

/// Uploads documents of log events.
///
/// Threading: Initialize, Send and Shutdown on the log thread and, once that has ended, the
/// controller's; the rest from any thread.
/// Ownership: the controller's; `context` is not owned.
/// Units: milliseconds, bytes.
class ILogEventSender {
  public:
    ILogEventSender() = default;
    ILogEventSender(const ILogEventSender&) = delete;
    ILogEventSender& operator=(const ILogEventSender&) = delete;
    virtual OPALError Initialize() = 0;
    virtual void SetLocale(const std::string& country, const std::string& language) = 0;
    virtual OPALError Send(const std::string& document) = 0;
    virtual OPALError Shutdown() = 0;
    /// How often to flush.
    virtual int64_t GetTransactionInterval() = 0;
    virtual size_t GetTransactionSize() = 0;
    virtual bool IsLevel1Enabled() = 0;
    virtual bool IsLevel2Enabled() = 0;
    virtual bool IsLevel3Enabled() = 0;
    /// The session under which to upload; the first one given stays.
    virtual void SetContext(void* context) = 0;
    virtual ~ILogEventSender() = default;
    /// Raised, the signal ends the upload that runs, and every one to come, within a second. Not
    /// owned; it outlives the sender.
    virtual void SetStopSignal(const opal::StopSignal* /*signal*/) {}
};
