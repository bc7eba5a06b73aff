#pragma once

#include <atomic>
#include <boost/date_time/posix_time/posix_time_types.hpp>
#include <boost/scoped_ptr.hpp>
#include <boost/thread/thread.hpp>
#include <functional>
#include <memory>

#include "Common/LockedQueue.h"
#include "Common/Mutex.h"
#include "Common/StopSignal.h"
#include "Common/logging/Logger.h"
#include "Common/network/BandwidthProbe.h"
#include "PlatformAdapter/Common/IPlatform.h"
#include "PlatformAdapter/Common/IPlatformSubtitleNotify.h"
#include "PlatformAdapter/Mstar/HABTypes.h"
#include "StreamSwitchingAlgorithm/IStreamSwitchingController.h"
#include "StreamingController/BufferingSession.h"
#include "StreamingController/IStreamingController.h"
#include "StreamingReader/IStreamingReaderNotify.h"

class IClusterBuffer;
class ILogEventSender;
class IProtectedContent;
class ISMILParser;
class IStreamingWriter;
class Readers;

/// The controller that NewStreamingController makes: the shell of a session. It has the interface,
/// the lock, the queue, the loop and the order of events; what is done to streams, subtitles, audio
/// tracks and the content session lies with the parts beside it, which do not know the controller.
/// Public operations do what is immediate under m_mutex and post a message; the event loop on
/// m_thread does the rest, one message a turn of 10 ms: it checks readers and writers, reports the
/// position, handles the message, looks for an underflow and reports progress and play state.
///
/// Threading: as IStreamingController. Locks, in the order in which they are taken:
/// m_lifecycleMutex (a whole Initialize... or Finalize), m_mutex (everything of a session),
/// m_objectsMutex (shared by the accessors that do not take m_mutex; exclusive only while an object
/// is put in place or dropped), then a reader manager's, a reader's or a writer's, a sink's. Reader
/// callbacks run under manager and reader and take none of the first three, so a reader never waits
/// for the controller. An object of the session is written with m_mutex and m_objectsMutex held, so
/// either one is enough to read it. m_mutex is not held while the network is waited for, but by
/// Initialize... and, for as long as a transfer takes to be cancelled, by a jump. Finalize first
/// raises the session's stop signal, so that everything that waits lets go.
/// Ownership: owns all objects of a session; the listener is the application's. A derived class
/// calls Finalize in its destructor, since the loop calls its virtual operations.
/// Units: milliseconds, bytes, bits per second.
class StreamingController : public IStreamingController {
  public:
    static constexpr size_t kNone = static_cast<size_t>(-1);

    enum MessageKind : int {
        MSG_PAUSED = 1,
        MSG_STOP = 2,
        MSG_SET_AUDIO_TRACK = 3,
        MSG_SET_SUBTITLE_TRACK = 4,
        MSG_SUBTITLE_PENDING = 6,
        MSG_START = 7,
        MSG_VIDEO_CLUSTER = 9,
        MSG_AUDIO_CLUSTER = 10,
        MSG_SUBTITLE_CLUSTER = 11,
        MSG_TRICK_CLUSTER = 12,
        MSG_TRICK_STARTED = 13,
        MSG_SEEK_DONE = 14
    };

    struct StreamingControllerMessage {
        int kind = 0;
        size_t argument = kNone;
    };

    enum ControllerState : int {
        CONTROLLER_IDLE = 0,
        CONTROLLER_PAUSED = 1,
        CONTROLLER_PLAYING = 2,
        CONTROLLER_TRICK = 3,
        CONTROLLER_ERROR = 4
    };

    StreamingController();
    ~StreamingController() override;

    OPALError InitializeFromSMILFile(const std::string& url, const std::string& country,
                                     const std::string& language, OPALWriterModel model) override;
    OPALError InitializeFromTIXString(const std::string& tixString, const std::string& sessionData,
                                      const std::string& country, const std::string& language,
                                      OPALWriterModel model) override;
    OPALError Finalize() override;
    OPALError Play() override;
    OPALError Pause() override;
    OPALError Stop() override;
    OPALError GetBufferedDuration(OPALStreamType type, int64_t& ms) override;
    OPALError SetNotify(IStreamingControllerNotify* notify) override;
    OPALError GetDuration(int64_t& ms) override;
    OPALError Resume(int64_t positionMs) override;
    OPALError Seek(int64_t& positionMs) override;
    OPALError SetPlayRate(OPALPlayRate rate) override;
    OPALError GetPlayRate(OPALPlayRate& rate) override;
    OPALError GetVideoLevelInfo(size_t index, VideoLevelInfo& info) override;
    OPALError GetAudioTrackInfo(size_t index, AudioTrackInfo& info) override;
    OPALError GetSubtitleTrackInfo(size_t index, SubtitleTrackInfo& info) override;
    OPALError GetSubtitleFont(void* destination, size_t& size) override;
    size_t GetVideoLevelCount() override;
    size_t GetAudioTrackCount() override;
    size_t GetSubtitleTrackCount() override;
    size_t GetCurrentVideoLevel() override;
    size_t GetCurrentAudioTrack() override;
    size_t GetCurrentSubtitleTrack() override;
    OPALError SetAudioTrack(size_t index) override;
    OPALError SetSubtitleTrack(size_t index) override;
    OPALError PullAudioBlock(qutl::MemoryBuffer<unsigned char>& data, int64_t& time,
                             int64_t& duration, uint32_t& level, uint32_t& flags) override;
    OPALError PullVideoBlock(qutl::MemoryBuffer<unsigned char>& data, int64_t& time,
                             int64_t& duration, uint32_t& level, uint32_t& flags) override;
    OPALError PullSubtitleBlock(qutl::MemoryBuffer<unsigned char>& data, int64_t& time,
                                int64_t& duration, uint32_t& level, uint32_t& flags) override;
    OPALError GetPlatformPreferences(HABPreferences& preferences) override;
    OPALError GetDefaultTracks(size_t& audio, size_t& subtitle) override;
    OPALError GetBufferingProgress(size_t& percent) override;

  protected:
    // What a derived controller may adapt in a session, with m_mutex held. `out` stays valid until
    // the next call.
    virtual OPALError AdaptVideoHeader(const void* in, size_t inSize, const void*& out,
                                       size_t& outSize);
    virtual OPALError AdaptAudioHeader(const void* in, size_t inSize, const void*& out,
                                       size_t& outSize);
    virtual OPALError AdaptSubtitleHeader(const void* in, size_t inSize, const void*& out,
                                          size_t& outSize);
    virtual IClusterBuffer* NewClusterBuffer(size_t capacity);
    virtual OPALError SetSubtitleTrackInternal(size_t index);
    virtual OPALError SeekInternal(int64_t& positionMs);

    // What a session is made of. Null when there is none to be had.
    virtual Readers* NewReaders();
    virtual IStreamSwitchingController* NewSwitchingController();
    // The sinks are an IVideoSink, an IAudioSink and an ISubtitleSink too.
    virtual IPlatform* NewVideoSink(HHABARCH hArch, HHABTIMER hTimer);
    virtual IPlatform* NewAudioSink(HHABARCH hArch, HHABTIMER hTimer);
    virtual IPlatform* NewSubtitleSink(HHABARCH hArch, HHABTIMER hTimer);
    /// Runs the loop's thread; a derived controller that steps the loop itself does nothing.
    virtual void StartLoop();

    /// What the loop keeps from turn to turn.
    struct LoopState {
        LoopState();
        /// Playback has been declared started: position, end and underflow are watched.
        bool playing = false;
        /// The writers are to be started as soon as playing is true.
        bool writersStartPending = true;
        boost::posix_time::ptime lastPositionReport;
        boost::posix_time::ptime lastStart;  ///< the player was last told to run
        boost::posix_time::ptime lastLogFlush;
        size_t bufferingPercent = 0;
        size_t reportedPercent = kNone;
        /// What the handler of this turn's message wants reported to the content session.
        int playStateToReport = kNoPlayState;
    };

    /// One turn of the loop, without its sleep.
    void RunTurn(LoopState& state);
    /// What the loop does when it has ended.
    void LeaveLoop();
    ControllerState GetState();
    OPALError Post(int kind, size_t argument = kNone);
    bool IsTerminated();

  private:
    using Ptime = boost::posix_time::ptime;

    /// The listener of all readers.
    class ReaderNotify : public IStreamingReaderNotify {
      public:
        void OnDownloadComplete(OPALStreamType type, int64_t downloadTime, int64_t downloadSize,
                                size_t index) override;
        void OnClusterBufferWrite(OPALStreamType type) override;
        StreamingController* controller = nullptr;
    };

    /// The listener of the subtitle sink.
    class SubtitleNotify : public IPlatformSubtitleNotify {
      public:
        void OnSubtitle(int64_t msStart, int64_t msEnd, const std::string& text) override;
        StreamingController* controller = nullptr;
    };

    /// The listener of the probe; its pointer is set only while a probe may run.
    class ProbeNotify : public BandwidthProbeNotify {
      public:
        void OnProbe(int kind, int64_t size, int64_t duration) override;
        StreamingController* controller = nullptr;
    };

    /// The parts beside the shell, and what the session remembers between messages.
    struct Session;

    static constexpr int kNoPlayState = -1;

    // Initialization.cpp
    OPALError RunInitialization(const std::function<OPALError()>& build);
    void BeginInitialization(const char* trace, int senderKind) OPAL_REQUIRES(m_mutex);
    OPALError BuildFromManifest(const std::string& url, const std::string& country,
                                const std::string& language, OPALWriterModel model)
        OPAL_REQUIRES(m_mutex);
    OPALError BuildFromTicket(const std::string& tixString, const std::string& sessionData,
                              const std::string& country, const std::string& language,
                              OPALWriterModel model) OPAL_REQUIRES(m_mutex);
    OPALError InitializeInternal(const std::string& ticket, OPALWriterModel model)
        OPAL_REQUIRES(m_mutex);
    OPALError CreateRuntimeHandles() OPAL_REQUIRES(m_mutex);
    OPALError OpenVideo(size_t level) OPAL_REQUIRES(m_mutex);
    OPALError CreateVideoSink(size_t level) OPAL_REQUIRES(m_mutex);
    bool ProbeBandwidth() OPAL_REQUIRES(m_mutex);

    // Shutdown.cpp
    void EndPreviousSession();
    void EndLoop();
    OPALError TearDown(bool keepForNextSession) OPAL_REQUIRES(m_mutex);
    void ResetFigures() OPAL_REQUIRES(m_mutex);
    OPALError Terminate(OPALError code);

    // EventLoop.cpp
    OPALError EventLoop();
    bool CheckHealth(LoopState& state);
    void WatchPlayback(LoopState& state);
    OPALError HandleMessage(LoopState& state);
    OPALError Dispatch(const StreamingControllerMessage& message, LoopState& state)
        OPAL_REQUIRES(m_mutex);
    OPALError HandleStop(LoopState& state) OPAL_REQUIRES(m_mutex);
    OPALError EndAudioSelection(OPALError code) OPAL_REQUIRES(m_mutex);
    OPALError HandleSetSubtitleTrack(size_t index, LoopState& state) OPAL_REQUIRES(m_mutex);
    OPALError HandleSubtitlePending(size_t index, LoopState& state) OPAL_REQUIRES(m_mutex);
    OPALError EndSubtitleSelection(LoopState& state) OPAL_REQUIRES(m_mutex);
    OPALError DropSubtitles(LoopState& state) OPAL_REQUIRES(m_mutex);
    OPALError StartWhenReady(LoopState& state) OPAL_REQUIRES(m_mutex);
    OPALError HandleTrickStarted(LoopState& state) OPAL_REQUIRES(m_mutex);
    OPALError HandleVideoCluster(LoopState& state) OPAL_REQUIRES(m_mutex);
    bool WatchBuffer(LoopState& state);
    OPALError IsReadyToStart() OPAL_REQUIRES(m_mutex);
    OPALError ReportPlayState(int playState);

    // PlaybackControl.cpp
    OPALError Refusal() const OPAL_REQUIRES(m_mutex);
    OPALError PrepareAudio() OPAL_REQUIRES(m_mutex);
    OPALError OpenFirstAudioTrack(bool tolerateUnsupported) OPAL_REQUIRES(m_mutex);
    OPALError StartPlayback() OPAL_REQUIRES(m_mutex);
    OPALError StartWriters() OPAL_REQUIRES(m_mutex);
    OPALError PauseWriters() OPAL_REQUIRES(m_mutex);
    OPALError ChangeRate(bool trick) OPAL_REQUIRES(m_mutex);
    OPALError MoveReaders(int64_t& positionMs) OPAL_REQUIRES(m_mutex);

    // StreamingController.cpp
    void Trace(const char* text);

    // What a session is made of, in the order of its design; the objects are as told above.
    boost::scoped_ptr<ISMILParser> m_pSMILParser;
    HHABARCH m_hArch = nullptr;
    HHABTIMER m_hTimer = nullptr;
    boost::scoped_ptr<IStreamSwitchingController> m_pSwitching;
    boost::scoped_ptr<IStreamingReaderNotify> m_pReaderNotify;
    boost::scoped_ptr<IPlatformSubtitleNotify> m_pSubtitleNotify;
    opal::RecursiveMutex m_mutex;
    boost::scoped_ptr<IProtectedContent> m_pProtectedContent;
    boost::scoped_ptr<IClusterBuffer> m_pVideoBuffer;
    boost::scoped_ptr<IClusterBuffer> m_pAudioBuffer;
    boost::scoped_ptr<IClusterBuffer> m_pSubtitleBuffer;
    boost::scoped_ptr<Readers> m_pReaders;
    boost::scoped_ptr<IStreamingWriter> m_pVideoWriter;
    boost::scoped_ptr<IStreamingWriter> m_pAudioWriter;
    boost::scoped_ptr<IStreamingWriter> m_pSubtitleWriter;
    boost::scoped_ptr<IPlatform> m_pVideoPlatform;
    boost::scoped_ptr<IPlatform> m_pAudioPlatform;
    boost::scoped_ptr<IPlatform> m_pSubtitlePlatform;
    boost::scoped_ptr<BandwidthProbe> m_pProbe;
    boost::thread m_thread;
    LockedQueue<StreamingControllerMessage> m_queue;
    std::atomic<bool> m_terminated{false};
    bool m_writersPaused OPAL_GUARDED_BY(m_mutex) = false;
    /// Of the field above, across a subtitle selection.
    bool m_savedWritersPaused OPAL_GUARDED_BY(m_mutex) = false;
    OPALPlayRate m_playRate OPAL_GUARDED_BY(m_mutex) = OPAL_PLAYRATE_ONEX;
    bool m_initialized OPAL_GUARDED_BY(m_mutex) = false;
    std::atomic<bool> m_subtitlesOn{false};
    bool m_trickClusterArrived OPAL_GUARDED_BY(m_mutex) = false;
    OPALError m_error OPAL_GUARDED_BY(m_mutex) = OPAL_OK;
    int64_t m_duration OPAL_GUARDED_BY(m_mutex) = 0;
    log4cxx::LoggerPtr logger;
    Ptime m_timeInitDone;
    Ptime m_lastPlayReport;  ///< the loop's
    Ptime m_timeEnter;
    ProbeNotify m_probeNotify;
    OPALWriterModel m_writerModel OPAL_GUARDED_BY(m_mutex) = OPAL_WRITER_MODEL_PUSH;
    std::atomic<IStreamingControllerNotify*> m_pNotify{nullptr};
    /// Each is used on its reader manager's thread only.
    StreamSwitchingNotify::Message m_lastVideoSample;
    StreamSwitchingNotify::Message m_lastAudioSample;
    bool m_sessionContent OPAL_GUARDED_BY(m_mutex) = false;
    std::atomic<int64_t> m_positionSeconds{0};
    boost::scoped_ptr<ILogEventSender> m_pLogSender;
    size_t m_subtitleTargetBytes OPAL_GUARDED_BY(m_mutex) = 0;
    BufferingSession m_buffering;
    /// A pause came while playback ran: the next start needs no new buffering session.
    bool m_pausedWhilePlaying OPAL_GUARDED_BY(m_mutex) = false;
    /// Audio is held back until video has caught up.
    bool m_audioAhead OPAL_GUARDED_BY(m_mutex) = false;

    opal::Mutex m_lifecycleMutex OPAL_ACQUIRED_BEFORE(m_mutex);
    opal::SharedMutex m_objectsMutex OPAL_ACQUIRED_AFTER(m_mutex);
    opal::StopSignal m_stop;
    const std::unique_ptr<Session> m_session;
};
