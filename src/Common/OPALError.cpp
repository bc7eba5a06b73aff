#include "Common/OPALError.h"

bool IsFatalError(OPALError code) {
    switch (code) {
        case OPAL_OK:
        case OPAL_ERROR_NOT_YET:
        case OPAL_ERROR_END_OF_DATA:
        case OPAL_ERROR_BUFFER_FULL:
        case OPAL_ERROR_CANCELLED:
            return false;
        default:
            return true;
    }
}

bool IsWaitError(OPALError code) {
    return code == OPAL_OK || code == OPAL_ERROR_END_OF_DATA || code == OPAL_ERROR_CANCELLED;
}

const char* OPALErrorText(OPALError code) {
    switch (code) {
        case OPAL_OK:
            return "success";
        case OPAL_ERROR_GENERAL:
            return "general failure";
        case OPAL_ERROR_INVALID_ARGUMENT:
            return "invalid argument";
        case OPAL_ERROR_OUT_OF_RANGE:
            return "out of range";
        case OPAL_ERROR_NOT_READY:
            return "not ready";
        case OPAL_ERROR_NO_MEMORY:
            return "no memory, or too large";
        case OPAL_ERROR_RANGE:
            return "byte range refused";
        case OPAL_ERROR_NOT_YET:
            return "nothing yet, call again";
        case OPAL_ERROR_TERMINATED:
            return "orderly shutdown";
        case OPAL_ERROR_END_OF_DATA:
            return "no more data";
        case OPAL_ERROR_CONTENT_SESSION:
            return "content session failed";
        case OPAL_ERROR_HTTP_CLIENT:
            return "HTTP status 4xx";
        case OPAL_ERROR_HTTP_SERVER:
            return "HTTP status 5xx";
        case OPAL_ERROR_TIMEOUT:
            return "transfer or connection timed out";
        case OPAL_ERROR_CONNECT:
            return "no connection, or no such file";
        case OPAL_ERROR_LINK_DOWN:
            return "network link down";
        case OPAL_ERROR_LINK_UNKNOWN:
            return "network link state unknown";
        case OPAL_ERROR_BUFFER_FULL:
            return "cluster buffer full";
        case OPAL_ERROR_SERVICE_20:
        case OPAL_ERROR_SERVICE_21:
        case OPAL_ERROR_SERVICE_24:
        case OPAL_ERROR_SERVICE_27:
            return "refused by the content service";
        case OPAL_ERROR_AUDIO_UNSUPPORTED:
            return "audio codec not supported";
        case OPAL_ERROR_CANCELLED:
            return "transfer cancelled";
    }
    return "unknown error";
}
