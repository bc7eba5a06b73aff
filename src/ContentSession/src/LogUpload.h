#pragma once

#include <string>

/// The document around the events of an upload, and what the service answers to it.

struct LogUploadIdentity {
    std::string model;
    std::string instance;
    std::string session;
    std::string version;
};

/// What stands before the events. Values are not escaped, and an empty one is left out.
std::string LogUploadPrefix(const LogUploadIdentity& identity);
/// What stands behind them.
std::string LogUploadSuffix();
/// Where to send it to: the service's address, with the path that every such address ends in.
std::string LogUploadUrl(const std::string& serviceUrl);
/// Whether the service says that it has taken the document.
bool IsLogReplySuccess(const std::string& reply);
