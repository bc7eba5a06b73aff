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
