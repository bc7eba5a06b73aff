#pragma once

#include <boost/date_time/posix_time/posix_time_types.hpp>
#include <boost/scoped_ptr.hpp>
#include <boost/thread/mutex.hpp>
#include <string>

#include "StreamSwitchingAlgorithm/IStreamSwitchingController.h"
#include "StreamSwitchingAlgorithm/src/BandwidthMonitor.h"
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

    void OnDownloadComplete(OPALStreamType type, const Message& message);
    void OnRestart(OPALStreamType type);
    void UpdateStability(int level, int64_t downloadTime);
    void UpdateMode(int level, int64_t downloadTime);
    void SwitchMode(int mode);
    void StoreBandwidth(int bandwidth);
    void StoreAudioBitrate(int bitrate);

    StreamSwitchingNotify m_notify;
    boost::scoped_ptr<VideoStreamSwitchingAlgorithm> m_algorithm;
    boost::mutex m_mutex;
    int m_bandwidth = 0;
    BandwidthMonitor m_monitor;
    int m_mode = 0;
    boost::posix_time::ptime m_agileStart;   ///< when the present agile period began
    boost::posix_time::ptime m_stableSince;  ///< when the present level was reached
    int64_t m_stableDuration = 0;            ///< ms at the present level
    int m_lastLevel = -1;                    ///< of the last decision; -1: none since a restart
    int m_audioBuffered = 0;                 ///< ms
    int m_audioBitrate = 0;                  ///< taken off the video's bandwidth
    int64_t m_audioBufferSize = 0;           ///< bits
    int m_audioDelay = 0;                    ///< audio's buffer requirement, ms
    int64_t m_blockTime = 0;                 ///< see SetBandwidth
};
