#pragma once

#include <boost/date_time/posix_time/posix_time_types.hpp>
#include <boost/scoped_ptr.hpp>
#include <string>

#include "Common/Mutex.h"
#include "StreamSwitchingAlgorithm/IStreamSwitchingController.h"
#include "StreamSwitchingAlgorithm/src/BandwidthMonitor.h"
#include "StreamSwitchingAlgorithm/src/SwitchingCalls.h"
#include "StreamSwitchingAlgorithm/src/VideoStreamSwitchingAlgorithm.h"

/// The door to stream switching: takes the events of downloads and restarts, keeps the bandwidth
/// estimate and the audio side's requirement, changes between agile and steady mode, and answers
/// from the algorithm.
///
/// Modes: agile after construction, after a restart, and when the level falls in steady mode;
/// steady once agile mode has lasted maxSecondsInAgileMode, or one level minSecondsInAgileMode.
///
/// Threading: every operation and event takes the one lock; below it only the log server's queue is
/// touched.
class StreamSwitchingController : public IStreamSwitchingController,
                                  private StreamSwitchingNotify::Handler {
  public:
    StreamSwitchingController();
    ~StreamSwitchingController() override;

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

    /// Location of the current level, or of any level.
    std::string GetLevelURI();
    std::string GetLevelURI(int level);
    bool HasAudioBitrate();

  private:
    using Message = StreamSwitchingNotify::Message;

    void eventHandler(OPALStreamType type, StreamSwitchingNotify::event what,
                      const Message& message) override;
    void eventHandler(OPALStreamType type, StreamSwitchingNotify::event what, int first,
                      int second) override;

    /// What `answer` gives, told to the session's observer.
    template <typename Answer>
    auto Ask(SwitchingCalls::Kind kind, Answer answer) OPAL_REQUIRES(m_mutex);
    void OnDownloadComplete(OPALStreamType type, const Message& message) OPAL_REQUIRES(m_mutex);
    void OnRestart(OPALStreamType type) OPAL_REQUIRES(m_mutex);
    void UpdateStability(int level, int64_t downloadTime) OPAL_REQUIRES(m_mutex);
    void UpdateMode(int level, int64_t downloadTime) OPAL_REQUIRES(m_mutex);
    void SwitchMode(int mode) OPAL_REQUIRES(m_mutex);
    void StoreBandwidth(int bandwidth) OPAL_REQUIRES(m_mutex);
    void StoreAudioBitrate(int bitrate) OPAL_REQUIRES(m_mutex);

    StreamSwitchingNotify m_notify;
    opal::Mutex m_mutex;
    const boost::scoped_ptr<VideoStreamSwitchingAlgorithm> m_algorithm OPAL_PT_GUARDED_BY(m_mutex);
    int m_bandwidth OPAL_GUARDED_BY(m_mutex) = 0;
    BandwidthMonitor m_monitor OPAL_GUARDED_BY(m_mutex);
    int m_mode OPAL_GUARDED_BY(m_mutex) = 0;
    boost::posix_time::ptime m_agileStart
        OPAL_GUARDED_BY(m_mutex);  ///< when the present agile period began
    boost::posix_time::ptime m_stableSince
        OPAL_GUARDED_BY(m_mutex);                           ///< when the present level was reached
    int64_t m_stableDuration OPAL_GUARDED_BY(m_mutex) = 0;  ///< ms at the present level
    int m_lastLevel OPAL_GUARDED_BY(m_mutex) =
        -1;  ///< of the last decision; -1: none since a restart
    int m_audioBuffered OPAL_GUARDED_BY(m_mutex) = 0;        ///< ms
    int m_audioBitrate OPAL_GUARDED_BY(m_mutex) = 0;         ///< taken off the video's bandwidth
    int64_t m_audioBufferSize OPAL_GUARDED_BY(m_mutex) = 0;  ///< bits
    int m_audioDelay OPAL_GUARDED_BY(m_mutex) = 0;           ///< audio's buffer requirement, ms
    int64_t m_blockTime OPAL_GUARDED_BY(m_mutex) = 0;        ///< see SetBandwidth
    SwitchingCalls m_calls OPAL_GUARDED_BY(m_mutex);
};
