#include "ContentSession/ContentSession.h"

#include <new>

#include "ContentSession/src/ProtectedContent_WNC.h"
#include "ContentSession/src/WNCLogEventSender.h"

IProtectedContent* NewContentSession() {
    return new (std::nothrow) ProtectedContent_WNC;
}

ILogEventSender* NewUploadLogEventSender(const LogEventSenderConfig* config) {
    return new (std::nothrow) WNCLogEventSender(config);
}
