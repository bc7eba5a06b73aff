#pragma once

/// How the first video level is chosen.
enum InitialBandwidthMode : int {
    InitialBandwidthMode_LowestLevel = 0,     ///< start without any estimate
    InitialBandwidthMode_BandwidthProbe = 1,  ///< measure the link first
    InitialBandwidthMode_BandwidthHint = 2    ///< take the configured hint as the estimate
};
