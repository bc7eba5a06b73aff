#pragma once

#include <string>

#include "Common/OPALError.h"

/// Settings of a packet capture for diagnosis.
struct NetworkCaptureConfig {
    std::string device;  ///< interface to capture on
    std::string filter;
    unsigned snapshotLength = 0;  ///< bytes kept of each packet

    static const std::string kDefaultDevice;
    static const std::string kDefaultFilter;

    /// Reads `kmt_net_cap_config.xml`. Device and filter start from their defaults, the snapshot
    /// length from what it was. -1 if there is no such file, if it is not XML, or if a setting has
    /// no text or no number where one is needed; the record is then as it was.
    OPALError Load();
};
