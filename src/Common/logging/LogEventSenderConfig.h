#pragma once

#include <cstddef>
#include <cstdint>

/// Settings of a log sender: how often and how much is uploaded, and which levels of events.
struct LogEventSenderConfig {
    virtual ~LogEventSenderConfig() = default;

    int64_t transactionInterval = 5000;  ///< ms
    size_t transactionSize = 0x20000;    ///< bytes
    bool enableLevel1 = false;
    bool enableLevel2 = false;
    bool enableLevel3 = false;
};
