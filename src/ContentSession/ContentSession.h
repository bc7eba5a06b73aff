#pragma once

class IProtectedContent;
class ILogEventSender;
struct LogEventSenderConfig;

/// The content session of a ticket start; the caller owns it. Null on failure.
IProtectedContent* NewContentSession();

/// A log sender that uploads through the content session that is given to it as context; the caller
/// owns it. With `config` the settings are local, and the service's are not taken over. Null on
/// failure.
ILogEventSender* NewUploadLogEventSender(const LogEventSenderConfig* config);
