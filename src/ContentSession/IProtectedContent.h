#pragma once

#include <boost/noncopyable.hpp>
#include <cstdint>
#include <string>

#include "Common/MemoryBuffer.h"
#include "Common/OPALError.h"
#include "StreamSwitchingAlgorithm/AlgorithmConfig.h"

namespace opal {
class StopSignal;
}

/// The service side of a ticket start: turns a ticket into a manifest, brings the switching
/// algorithm's settings, and reports play events.
///
/// Threading: one call at a time, from the controller's initialising and event-loop threads. Calls
/// block on the network, for a bounded time.
/// Ownership: `*session` is the content session's.
/// Units: milliseconds, bits per second.
/// Errors: -10, -20, -21, -24, -27 of the service; GetLastErrorText tells its words for them.
class IProtectedContent : boost::noncopyable {
  public:
    virtual ~IProtectedContent() = default;
    virtual OPALError Initialize(const qutl::MemoryBuffer<unsigned char>& sessionData,
                                 const std::string& country, const std::string& language) = 0;
    virtual OPALError Finalize() = 0;
    virtual OPALError Open(const std::string& tixString, std::string& assetId) = 0;
    virtual OPALError Close() = 0;
    /// -3 if no manifest came with the ticket.
    virtual OPALError GetManifest(std::string& text) = 0;
    virtual OPALError SetupStream() = 0;
    virtual OPALError GetPulseConfiguration(int64_t& intervalMs) = 0;
    virtual OPALError GetStreamingAlgorithmConfig(AlgorithmConfig::Global& global,
                                                  AlgorithmConfig::Mode& agile,
                                                  AlgorithmConfig::Mode& steady) = 0;
    /// A low word of -1 in a track leaves it out of the report.
    virtual OPALError ReportPlayEvent(int state, int64_t position, int64_t bandwidth,
                                      int64_t audioTrack, int64_t subtitleTrack) = 0;
    virtual int32_t GetAudioAssetId() = 0;
    virtual int32_t GetSubtitleAssetId() = 0;
    virtual OPALError Prepare(const qutl::MemoryBuffer<unsigned char>& sessionData,
                              void** session) = 0;
    /// NUL-terminated.
    virtual OPALError GetLastErrorText(qutl::MemoryBuffer<unsigned char>& text) = 0;
    /// Raised, the signal ends the call that runs, and every one to come, within a second. Not
    /// owned; it outlives the content session.
    virtual void SetStopSignal(const opal::StopSignal* /*signal*/) {}
};
