#pragma once

#include <boost/date_time/posix_time/posix_time_types.hpp>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "StreamSwitchingAlgorithm/IStreamSwitchingController.h"

namespace opal::simulate {

/// What a session asked of its switching controller and reported to it, in order, with the time of
/// each call and what was answered.
struct Recording {
    enum class Kind : int {
        SetLevels,
        SetBandwidth,
        SetStartupTime,
        SetAudioBitrate,
        SetClusterIndexes,
        Event,
        GetCurrentLevel,
        IsVideoBuffered,
        GetExcessBuffer
    };

    struct Level {
        std::string uri;
        int bitrate = 0;
        int vbv = 0;
    };

    struct Call {
        Kind kind = Kind::Event;
        double nowMs = 0.0;        ///< since the recording began
        uint64_t openIndexes = 0;  ///< bit per level whose index was there
        OPALStreamType type = OPAL_STREAM_VIDEO;
        int event = 0;
        StreamSwitchingNotify::Message message;
        int64_t value = 0;   ///< argument of a setter
        int64_t answer = 0;  ///< what a query answered
    };

    std::vector<Level> levels;
    std::vector<std::pair<std::string, int>> audioTracks;  ///< language, reserved bandwidth
    std::vector<std::vector<int64_t>> clusterSizes;        ///< a level; empty if never open
    std::vector<Call> calls;

    /// The levels that GetCurrentLevel answered, in order.
    std::vector<int> Decisions() const;

    std::string ToJson() const;
    /// Throws std::runtime_error for what is no recording.
    static Recording FromJson(const std::string& text);
};

/// Feeds a recording to a new switching controller, each call at its time. Returns the same calls
/// with the answers that came this time. Needs a SimulatedClock in force.
Recording Replay(const Recording& recording);

/// A switching controller that keeps a recording of all that goes to and from another one.
///
/// Threading: as the other one; calls are recorded in the order in which they take effect.
/// Ownership: owns the other one. The recording outlives it through `recording`.
class RecordingSwitchingController : public IStreamSwitchingController,
                                     private StreamSwitchingNotify::Handler {
  public:
    RecordingSwitchingController(IStreamSwitchingController* inner,
                                 std::shared_ptr<Recording> recording);
    ~RecordingSwitchingController() override;

    int GetCurrentLevel() override;
    int GetTrickLevel() override;
    OPALError SetLevels(const std::vector<boost::shared_ptr<IVideoLevel>>& levels,
                        const std::vector<boost::shared_ptr<IAudioTrack>>& audioTracks) override;
    int GetVideoExcessBuffer() override;
    int GetAudioExcessBuffer() override;
    bool IsVideoBuffered() override;
    bool IsAudioBuffered() override;
    InitialBandwidthMode GetInitialBandwidthMode() override;
    int GetBandwidth() override;
    void SetBandwidth(int bandwidth) override;
    void SetStartupTime(int64_t ms) override;
    StreamSwitchingNotify* GetNotify() override;
    int64_t GetMaxBuffer() override;
    void SetAudioBitrate(int bitrate) override;
    void GetBufferRequirement(int& ms, OPALStreamType type) override;
    void SetClusterIndexes(const std::vector<IClusterIndex*>* indexes) override;

  private:
    using Message = StreamSwitchingNotify::Message;

    void eventHandler(OPALStreamType type, StreamSwitchingNotify::event what,
                      const Message& message) override;
    void eventHandler(OPALStreamType type, StreamSwitchingNotify::event what, int first,
                      int second) override;
    Recording::Call& Record(Recording::Kind kind, int64_t value = 0,
                            OPALStreamType type = OPAL_STREAM_VIDEO);
    uint64_t OpenIndexes();

    std::unique_ptr<IStreamSwitchingController> m_inner;
    std::shared_ptr<Recording> m_recording;
    StreamSwitchingNotify m_notify;
    std::mutex m_mutex;
    const std::vector<IClusterIndex*>* m_indexes = nullptr;
    uint64_t m_openIndexes = 0;
    boost::posix_time::ptime m_start;
};

}  // namespace opal::simulate
