#pragma once

#include <cstdint>

#include "Common/OPALError.h"

/// How a call of a service ended, in the services' own numbers.
enum class [[nodiscard]] ServiceCode : uint32_t{
    kOk = 0,
    kBadArgument = 0x80001001,  ///< a null argument, or a server's settings that are not right
    kTimeOut = 0x80001003,
    kNotSent = 0x80001004,      ///< the request did not reach a service that answers
    kErrorRecord = 0x80001006,  ///< the service answered that it will not
    kNotBuilt = 0x80001007,
    kSessionError = 0x8000100B,
    kNoMemory = 0x90000001,
    kNotReady = 0x90000002};

/// The one place where the services' numbers become the library's.
inline OPALError ToOPALError(ServiceCode code) {
    switch (code) {
        case ServiceCode::kOk:
            return OPAL_OK;
        case ServiceCode::kTimeOut:
            return OPAL_ERROR_SERVICE_20;
        case ServiceCode::kNotSent:
            return OPAL_ERROR_SERVICE_27;
        case ServiceCode::kErrorRecord:
            return OPAL_ERROR_SERVICE_21;
        case ServiceCode::kSessionError:
            return OPAL_ERROR_SERVICE_24;
        default:
            return OPAL_ERROR_CONTENT_SESSION;
    }
}
