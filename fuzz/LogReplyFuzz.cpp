// Any bytes as the reply to an upload of the log.
#include <cstdint>
#include <cstdlib>
#include <string>

#include "ContentSession/src/LogUpload.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const std::string reply(reinterpret_cast<const char*>(data), size);
    if (IsLogReplySuccess(reply) && (reply.find("serviceresponse") == std::string::npos ||
                                     reply.find("success") == std::string::npos))
        std::abort();
    return 0;
}
