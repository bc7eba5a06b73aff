#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "opal-origin/Origin.h"

namespace opal::origin {

/// A script file: what happens to the link and to the requests.
///
///     {
///       "rates": "0 6000k, 20 1000k, 60 8000k",
///       "latency_ms": 20,
///       "faults": [
///         {"url": "video*.mkv", "method": "GET", "nth": 3, "status": 503},
///         {"url": "/audio0.mkv", "range_start": 4096, "stall_at": 1000, "stall_ms": 5000}
///       ]
///     }
///
/// Of "rate", "rates" and "trace" (the array of a bandwidth trace) one may stand. A fault's keys
/// are Fault's members in this spelling: url (the pattern), method, range_start, covers, nth or
/// skip, times (the count), status, body, redirect (the location), ignore_range, extra_bytes,
/// headers (an object), drop_headers (an array), delay_ms, stall_at, stall_ms, reset_at, close_at,
/// hold, close_after. A position is a number or "before-head".
struct Script {
    bool hasRates = false;
    RateScript rates;
    int64_t latencyMs = 0;
    std::vector<Fault> faults;

    /// False with a text for people that names the fault and the key.
    static bool FromJson(const std::string& json, Script* pScript, std::string* pError);
    void ApplyTo(Origin* pOrigin) const;
};

}  // namespace opal::origin
