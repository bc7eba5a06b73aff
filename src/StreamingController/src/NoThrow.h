#pragma once

#include <exception>
#include <new>

#include "Common/OPALError.h"

namespace opal {

/// Runs an operation of the interface: no exception crosses into the application.
template <typename Operation>
OPALError NoThrow(Operation operation) {
    try {
        return operation();
    } catch (const std::bad_alloc&) {
        return OPAL_ERROR_NO_MEMORY;
    } catch (...) {
        return OPAL_ERROR_GENERAL;
    }
}

}  // namespace opal
