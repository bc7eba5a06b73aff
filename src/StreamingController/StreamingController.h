#pragma once

#include <atomic>
#include <boost/date_time/posix_time/posix_time_types.hpp>
#include <boost/scoped_ptr.hpp>
#include <boost/shared_ptr.hpp>
#include <boost/thread/lock_guard.hpp>
#include <boost/thread/locks.hpp>
#include <boost/thread/mutex.hpp>
#include <boost/thread/recursive_mutex.hpp>
#include <boost/thread/shared_mutex.hpp>
#include <boost/thread/thread.hpp>
#include <functional>

#include "Common/InitialBandwidthMode.h"
#include "Common/LockedQueue.h"
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
class LogEvent;
class Readers;

namespace opal {

/// A new sink, owned by whoever receives it, and the operation that configures it, which lies
/// outside IPlatform. The operation stays valid as long as the sink.
template <typename... Arguments>
struct Sink {
    IPlatform* platform = nullptr;
    std::function<OPALError(Arguments...)> configure;
};

/// Codec, width, height, bit-rate, private data and its size, first.
using VideoSink = Sink<const std::string&, int, int, int64_t, const void*, size_t, bool>;
/// Codec, sampling frequency, channels, private data and its size, first.
using AudioSink = Sink<const std::string&, uint32_t, uint32_t, const uint8_t*, size_t, bool>;
/// Codec, width, height, font and its size.
struct SubtitleSink : Sink<const std::string&, int, int, const void*, size_t> {
    std::function<void(IPlatformSubtitleNotify*)> setNotify;
};

}  // namespace opal

/// The controller that NewStreamingController makes. Public operations do what is immediate under
/// m_mutex and post a message; the event loop on m_thread does the rest, one message a turn of
/// 10 ms: it checks readers and writers, reports the position, handles the message, looks for an
/// underflow and reports progress and play state.
///
/// Threading: as IStreamingController. Locks, in the order in which they are taken:
/// m_lifecycleMutex (a whole Initialize... or Finalize), m_mutex (everything of a session),
/// m_objectsMutex (shared by the accessors that do not take m_mutex; exclusive only while an object
/// is put in place or dropped), m_interruptMutex (likewise, for what Finalize ends before it waits:
/// an accessor may wait for a transfer with the one before), then a reader manager's, a reader's or
/// a writer's, a sink's. Reader callbacks run under manager and reader and take none of the first
/// four, so a reader never waits for the controller. Finalize first ends everything that may wait
/// for the network or the set, without m_mutex, so that it gets m_mutex soon; a running
/// Initialize... then returns an error and Finalize goes on behind it.
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
    // What a derived controller may adapt in a session. `out` stays valid until the next call.
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
    virtual opal::VideoSink NewVideoSink(HHABARCH hArch, HHABTIMER hTimer);
    virtual opal::AudioSink NewAudioSink(HHABARCH hArch, HHABTIMER hTimer);
    virtual opal::SubtitleSink NewSubtitleSink(HHABARCH hArch, HHABTIMER hTimer);
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
        boost::posix_time::ptime lastStart;  ///< the set was last told to run
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
    using Lock = boost::unique_lock<boost::recursive_mutex>;
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

    class CallbackScope;
    class FinalizingScope;

    static constexpr int kNoPlayState = -1;

    // Initialization.cpp
    OPALError RunInitialization(const std::function<OPALError()>& build);
    void BeginInitialization(const char* trace, int senderKind);
    void CreateLogSender(const std::string& country, const std::string& language);
    OPALError BuildFromManifest(const std::string& url, const std::string& country,
                                const std::string& language, OPALWriterModel model);
    OPALError BuildFromTicket(const std::string& tixString, const std::string& sessionData,
                              const std::string& country, const std::string& language,
                              OPALWriterModel model);
    OPALError OpenTicket(const std::string& tixString, const std::string& sessionData,
                         const std::string& country, const std::string& language,
                         std::string& assetId);
    OPALError LoadServiceAlgorithmConfig();
    OPALError FetchManifest(ISMILParser& parser, const std::string& url);
    OPALError CreateSwitchingController();
    OPALError GiveLevelsToSwitching();
    OPALError InitializeInternal(const std::string& ticket, const std::string& country,
                                 const std::string& language, OPALWriterModel model);
    OPALError CreateRuntimeHandles();
    OPALError CreateBuffer(boost::scoped_ptr<IClusterBuffer>& buffer, size_t capacity);
    OPALError OpenVideo(size_t level);
    OPALError CreateVideoSink(size_t level);
    OPALError SetupContentStream();
    OPALError CreateVideoWriter(OPALWriterModel model);
    void DetermineStartupProperties(size_t& level, InitialBandwidthMode& mode, int64_t& startupMs);
    bool ProbeBandwidth();
    void OnProbeResult(int64_t size, int64_t duration);
    void GetProbeProperties(size_t& initSize, int64_t& duration, std::string& uri);
    size_t LevelFromSwitching();
    bool LoadAlgorithmConfigFile();
    /// Puts an object in place under the accessors' eyes.
    template <typename T>
    void Publish(boost::scoped_ptr<T>& slot, T* object) {
        boost::unique_lock<boost::shared_mutex> lock(m_objectsMutex);
        slot.reset(object);
    }

    // Shutdown.cpp
    bool IsInCallback() const;
    void EndPreviousSession();
    void EndLoop();
    void StopLogSender();
    OPALError TearDown(bool keepForNextSession);
    OPALError DropSink(boost::scoped_ptr<IPlatform>& sink);
    void DropHandlesAndBuffers(bool keepBuffers);
    void DropObjects(bool keepForNextSession);
    void ResetFigures();
    OPALError Terminate(OPALError code);

    // EventLoop.cpp
    OPALError EventLoop();
    void Shielded(const std::function<void()>& action);
    void FlushLog(LoopState& state);
    OPALError CheckReaders();
    OPALError CheckWriters();
    bool CheckHealth(LoopState& state);
    OPALError SubtitleStreamError();
    OPALError DropSubtitles(LoopState& state);
    void WatchPlayback(LoopState& state);
    OPALError HandleMessage(LoopState& state);
    OPALError Dispatch(const StreamingControllerMessage& message, LoopState& state);
    OPALError HandlePaused(LoopState& state);
    OPALError HandleStop(LoopState& state);
    OPALError HandleSetAudioTrack(size_t index, LoopState& state);
    OPALError HandleSetSubtitleTrack(size_t index, LoopState& state);
    OPALError HandleSubtitlePending(size_t index, LoopState& state);
    OPALError EndSubtitleSelection(LoopState& state);
    OPALError HandleStart(LoopState& state);
    OPALError HandleVideoCluster(LoopState& state);
    OPALError HandleTrickCluster(size_t argument);
    OPALError HandleTrickStarted(LoopState& state);
    OPALError StartWhenReady(LoopState& state);
    void DeclareStarted(LoopState& state);
    bool WatchBuffer(LoopState& state);
    bool HandleUnderflow(LoopState& state);
    void ReportBuffering(LoopState& state);
    OPALError IsReadyToStart();

    // Buffering.cpp
    void OnDownloadComplete(OPALStreamType type, int64_t downloadTime, int64_t downloadSize,
                            size_t index);
    void OnClusterBufferWrite(OPALStreamType type);
    OPALError BufferedDuration(OPALStreamType type, int64_t& ms);
    OPALError BufferingProgress(size_t& percent);
    void ArmBuffering(bool video, bool audio, bool subtitle);

    // PlaybackControl.cpp
    template <typename Operation>
    OPALError Guarded(Operation operation) {
        Lock lock(m_mutex);
        if (m_terminated)
            return m_error;
        return m_initialized ? operation() : OPAL_ERROR_NOT_READY;
    }
    void AcceptStart();
    OPALError OpenFirstAudioTrack(bool tolerateUnsupported);
    OPALError StartPlayback();
    OPALError StartReaders();
    bool IsSubtitleStreamOpening();
    OPALError StopReaders();
    OPALError CancelReaders();
    OPALError SeekReaders(int64_t& positionMs);
    OPALError StartWriters();
    OPALError PauseWriters();
    OPALError DoSwitchLevel();
    OPALError StopStreamsForJump(int64_t& position);
    OPALError StopSubtitlesForJump();
    OPALError DoTrickPlay();
    OPALError DoStopTrickPlay();
    OPALError FlushForSeek();
    OPALError MoveReaders(int64_t& positionMs);
    OPALError ForgiveSubtitles(OPALError code);
    void RestartSwitching(OPALStreamType type);
    void RestartSwitching();

    // Tracks.cpp
    OPALError SetAudioTrackInternal(size_t index);
    OPALError OpenAudio();
    OPALError LeaveAudioTrack(size_t index);
    OPALError ConfigureAudio();
    OPALError StartAudioTrack(int64_t position, bool disabled);
    OPALError OpenSubtitles(size_t index);
    OPALError SwitchSubtitlesOff();
    OPALError PrepareSubtitleStream(size_t index);
    OPALError ConfigureSubtitles(size_t index);

    // Reports.cpp
    template <typename Call>
    void Tell(Call call);
    void Trace(const char* text);
    void TellUnsupportedAudio();
    void TellContentError(OPALError code);
    void ReportPlay();
    void ReportStop();
    void ReportPause();
    void ReportEndOfStream();
    void ReportPlayRate();
    void ReportUnderflow();
    void ReportSubtitleTrack();
    void ReportLevelChange(size_t from, size_t to);
    OPALError ReportPlayState(int playState);
    int ReportedBandwidth();
    size_t CurrentVideoLevel();
    size_t CurrentAudioTrack();
    size_t CurrentSubtitleTrack();
    int64_t AudioAssetId();
    int64_t SubtitleAssetId();
    std::string ContentErrorText(OPALError code);

    boost::scoped_ptr<ISMILParser> m_pSMILParser;
    HHABARCH m_hArch = nullptr;
    HHABTIMER m_hTimer = nullptr;
    boost::scoped_ptr<IStreamSwitchingController> m_pSwitching;
    boost::scoped_ptr<IStreamingReaderNotify> m_pReaderNotify;
    boost::scoped_ptr<IPlatformSubtitleNotify> m_pSubtitleNotify;
    boost::recursive_mutex m_mutex;
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
    bool m_writersPaused = false;
    bool m_savedWritersPaused = false;  ///< of the field above, across a subtitle selection
    OPALPlayRate m_playRate = OPAL_PLAYRATE_ONEX;
    bool m_initialized = false;
    std::atomic<bool> m_subtitlesOn{false};
    bool m_trickClusterArrived = false;
    OPALError m_error = OPAL_OK;
    int64_t m_duration = 0;
    log4cxx::LoggerPtr logger;
    Ptime m_timeInitDone;
    Ptime m_lastPlayReport;
    Ptime m_timeEnter;
    ProbeNotify m_probeNotify;
    OPALWriterModel m_writerModel = OPAL_WRITER_MODEL_PUSH;
    std::atomic<IStreamingControllerNotify*> m_pNotify{nullptr};
    /// Each is used on its reader manager's thread only.
    StreamSwitchingNotify::Message m_lastVideoSample;
    StreamSwitchingNotify::Message m_lastAudioSample;
    bool m_sessionContent = false;
    std::atomic<int64_t> m_positionSeconds{0};
    boost::scoped_ptr<ILogEventSender> m_pLogSender;
    size_t m_subtitleTargetBytes = 0;
    BufferingSession m_buffering;
    /// A pause came while playback ran: the next start needs no new buffering session.
    bool m_pausedWhilePlaying = false;
    bool m_audioAhead = false;  ///< audio is held back until video has caught up

    std::function<OPALError(const std::string&, uint32_t, uint32_t, const uint8_t*, size_t, bool)>
        m_configureAudio;
    std::function<OPALError(const std::string&, int, int, const void*, size_t)>
        m_configureSubtitles;

    boost::mutex m_lifecycleMutex;
    boost::shared_mutex m_objectsMutex;
    opal::StopSignal m_stop;  ///< of the session
    /// Calls of Finalize under way: a failure then is a consequence of the shutdown.
    std::atomic<int> m_finalizing{0};
    /// Stop was handled and nothing started since: what is still queued must not start a reader.
    bool m_stopRequested = false;
    /// Counts the accepted operations that start playback; the second is the count at the last
    /// Stop.
    size_t m_startSequence = 0;
    size_t m_stopSequence = 0;
    /// Buffers were emptied for a jump whose message is still queued: an empty buffer is no
    /// underflow.
    bool m_jumpPending = false;
    /// The track that the queued MSG_SUBTITLE_PENDING is for; a message for another is superseded.
    size_t m_pendingSubtitle = kNone;
    /// Raised by a seek in trick play: clusters of the position before do not count as arrived.
    std::atomic<size_t> m_trickEpoch{0};
};
