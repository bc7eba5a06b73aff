#pragma once

#include <boost/noncopyable.hpp>
#include <boost/shared_ptr.hpp>
#include <cstdint>
#include <vector>

#include "Common/InitialBandwidthMode.h"
#include "Common/OPALError.h"
#include "Common/OPALStreamType.h"
#include "StreamSwitchingAlgorithm/StreamSwitchingNotify.h"

class IAudioTrack;
class IClusterIndex;
class IVideoLevel;

/// Decides which video level the next cluster comes from, when playback may start, and how much may
/// be buffered.
///
/// Threading: any operation from any thread; it has a lock of its own, below which it takes no
/// other lock of the library. Ownership: the vector given to SetClusterIndexes and the indexes in
/// it must outlive their use. Units: bits per second, milliseconds.
class IStreamSwitchingController : boost::noncopyable {
  public:
    virtual ~IStreamSwitchingController() = default;
    /// The level that the next cluster shall come from; -1 without levels. Decides if news came in.
    virtual int GetCurrentLevel() = 0;
    virtual int GetTrickLevel() = 0;
    virtual OPALError SetLevels(const std::vector<boost::shared_ptr<IVideoLevel>>& levels,
                                const std::vector<boost::shared_ptr<IAudioTrack>>& audioTracks) = 0;
    virtual int GetVideoExcessBuffer() = 0;
    virtual int GetAudioExcessBuffer() = 0;
    /// Enough is buffered for playback to start.
    virtual bool IsVideoBuffered() = 0;
    virtual bool IsAudioBuffered() = 0;
    virtual InitialBandwidthMode GetInitialBandwidthMode() = 0;
    virtual int GetBandwidth() = 0;
    virtual void SetBandwidth(int bandwidth) = 0;
    virtual void SetStartupTime(int64_t ms) = 0;
    virtual StreamSwitchingNotify* GetNotify() = 0;
    /// Duration limit of the video buffer; 0 or less: none.
    virtual int64_t GetMaxBuffer() = 0;
    virtual void SetAudioBitrate(int bitrate) = 0;
    /// What a stream needs buffered before it may start.
    virtual void GetBufferRequirement(int& ms, OPALStreamType type) = 0;
    /// Indexes of the video levels, one entry a level, null until the level is open. Null: none.
    virtual void SetClusterIndexes(const std::vector<IClusterIndex*>* indexes) = 0;
};

/// A new controller, owned by the caller.
IStreamSwitchingController* NewStreamSwitchingController();
