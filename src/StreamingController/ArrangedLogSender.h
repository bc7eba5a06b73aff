#pragma once

#include "Common/Export.h"
#include "Common/logging/ILogEventSender.h"

extern "C" {

/// Makes the sessions to come report to senders of the application's own: each session takes one
/// from `maker`, owns it, and deletes it. A "kmt_logging_config.xml" that applies goes first. Null:
/// the library's senders again. To be called while no session runs.
OPAL_EXPORT void KMTArrangeLogSender(ILogEventSender* (*maker)());
}
