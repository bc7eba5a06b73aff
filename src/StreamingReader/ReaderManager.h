#pragma once

#include <atomic>
#include <boost/noncopyable.hpp>
#include <boost/shared_ptr.hpp>
#include <boost/thread/thread.hpp>
#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "Common/Mutex.h"
#include "Common/OPALError.h"
#include "Common/OPALPlayRate.h"
#include "Common/OPALStreamType.h"
#include "Common/StopSignal.h"
#include "StreamingDemux/EBML/AudioStreamInfo.h"
#include "StreamingReader/IStreamingReader.h"

class IClusterBuffer;
class IClusterIndex;
class ISMILParser;
class IStreamingReaderNotify;

/// Owns all readers of one stream kind, knows which of them is current, and runs the one thread
/// that opens and drives the current one. After each cluster the thread waits until Start wakes it
/// again, so that the caller paces the downloads; while the stream's buffer has no room it polls
/// every 20 ms.
///
/// Threading: any operation from any thread. While the thread opens or transfers, an operation
/// notes what it wants of the current reader, and the thread does it as soon as the network lets go
/// of it; so none waits for the network but Initialize, SetStream with `open`, Finalize and
/// WaitForCancelled, and the last two end what they wait for. Nothing below m_mutex calls up but
/// the notify.
/// Ownership: owns the readers; parser, buffer and notify are not owned, and buffer and notify must
/// stay until Finalize, the stop signal as long as the manager. Every derived class runs Finalize
/// in its destructor.
/// Units: milliseconds, bytes.
/// Errors: -2 for an index beyond the readers. Without a current reader -4 if there are readers,
/// and 0 if the manifest has no stream of this kind: such a kind does nothing. A failed download or
/// a failed open ends the thread, and GetError gives its code.
class ReaderManager : boost::noncopyable {
  public:
    explicit ReaderManager(const opal::StopSignal* stop = nullptr) : m_stop(stop) {}
    virtual ~ReaderManager();

    /// To be called once; -4 if there are readers already. Starts the thread if the manifest has
    /// streams of this kind.
    virtual OPALError Initialize(ISMILParser* parser, IClusterBuffer* buffer,
                                 IStreamingReaderNotify* notify, size_t index);
    /// Makes another reader current, with `open` opened on the caller's thread, else by the
    /// manager's. The one before is stopped; its opening, if it is being opened, is given up.
    virtual OPALError SetStream(size_t index, bool open);
    virtual OPALError CreateReaders(ISMILParser* parser, IClusterBuffer* buffer,
                                    IStreamingReaderNotify* notify, size_t index) = 0;
    virtual OPALError DownloadNext();
    virtual OPALError OpenCurrent();

    /// Ends what runs, joins the thread, finalises and drops the readers. Initialize may follow.
    OPALError Finalize();
    OPALError Start();
    OPALError Stop();
    OPALError Seek(int64_t& ms);
    size_t GetStreamCount();
    OPALError GetDuration(int64_t& ms);
    size_t GetCurrent();  ///< (size_t)-1 for none
    OPALError GetState(int& state);
    OPALError GetPosition(int64_t& ms);
    bool HasError();
    OPALError GetError();
    OPALError SetError(OPALError code);
    /// `reason`: for the session's observer.
    OPALError Cancel(opal::RequestEnd reason = opal::RequestEnd::Jump);
    OPALError GetBytesInFlight(size_t& bytes);
    OPALError GetBytesAhead(int64_t ms, size_t& bytes);
    /// A current reader that is not open yet stays so until SetStream.
    void GiveUpOpening();
    /// The thread is inside a transfer.
    bool IsTransferring();
    /// After Stop and Cancel: when this returns, nothing more of the cancelled transfer reaches the
    /// buffer. Waits for as long as the transport takes to cancel.
    void WaitForCancelled();

  protected:
    using Reader = boost::shared_ptr<IStreamingReader>;
    static constexpr size_t kNone = static_cast<size_t>(-1);

    /// Clusters of the same number begin at the same time in all files.
    virtual bool ClustersAreAligned() const { return false; }
    /// Told that the readers are gone.
    virtual void OnReadersDropped() OPAL_REQUIRES(m_mutex) {}

    Reader Current();
    Reader At(size_t index);  ///< null beyond the readers
    /// What an operation answers without a current reader.
    OPALError NoReaderResult();
    /// The common form of the operations on the current reader.
    template <typename Operation>
    OPALError OnCurrent(Operation operation) {
        const Reader reader = Current();
        return reader ? operation(*reader) : NoReaderResult();
    }
    /// Adds a reader for each entry that `get(i, entry)` finds; -1 unless it finds all.
    template <typename Entry, typename Get>
    OPALError AddReaders(size_t count, Get get, IClusterBuffer* buffer,
                         IStreamingReaderNotify* notify, OPALStreamType type)
        OPAL_REQUIRES(m_mutex) {
        for (size_t i = 0; i < count; ++i) {
            boost::shared_ptr<Entry> entry;
            if (get(i, entry) != OPAL_OK || !entry)
                return OPAL_ERROR_GENERAL;
            const OPALError added =
                AddReader(entry->GetURI(), entry->GetHeaderRequestSize(), buffer, notify, type, i);
            if (added != OPAL_OK)
                return added;
        }
        return OPAL_OK;
    }
    /// How many readers CreateReaders has made so far.
    size_t BuiltCount() const OPAL_REQUIRES(m_mutex) { return m_built.size(); }
    /// Opens a reader on the calling thread, unless the opening is given up: -28.
    OPALError OpenReader(const Reader& reader);
    /// Opens the current reader on the caller's thread after Initialize; -1 unless it then stands
    /// ready.
    OPALError OpenAfterInitialize() OPAL_REQUIRES(m_mutex);
    /// The old reader's connection is gone before the new one's is made; an ended thread begins
    /// again.
    void CloseBeforeNextOpening(const Reader& reader);
    OPALError RestartEndedThread();
    bool IsThreadEnded() const { return m_threadEnded; }

    /// Held over a whole transfer or opening by the thread that has it.
    opal::RecursiveMutex m_mutex;
    /// Levels first, then trick tracks. The list is written with both locks held, so m_mutex is
    /// enough to read it, which the compiler cannot be told.
    const std::vector<Reader>& ReaderList() const
        OPAL_REQUIRES(m_mutex) OPAL_NO_THREAD_SAFETY_ANALYSIS {
        return m_readers;
    }
    /// The reader that the thread transfers from, for DownloadNext; else the current one.
    Reader Driven();

  private:
    enum class Activity { None, Opening, Transferring };
    /// What was asked of the current reader while the network had the thread.
    struct Wishes {
        bool start = false;
        bool seek = false;
        int64_t seekMs = 0;
        int64_t clusterMs = 0;  ///< of the cluster to which that leads
    };

    OPALError AddReader(const std::string& url, size_t headerRequestSize, IClusterBuffer* buffer,
                        IStreamingReaderNotify* notify, OPALStreamType type, size_t level)
        OPAL_REQUIRES(m_mutex);
    OPALError StartThread();
    void ThreadMain();
    OPALError EventLoop();
    bool RunRound(OPALError& result) OPAL_REQUIRES(m_mutex);
    bool Open(OPALError& result) OPAL_REQUIRES(m_mutex);
    bool Download(const Reader& reader, OPALError& result) OPAL_REQUIRES(m_mutex);
    OPALError OpenNow() OPAL_REQUIRES(m_mutex);
    OPALError GrantWishes() OPAL_REQUIRES(m_mutex);
    OPALError AlignTime(IStreamingReader& reader, int64_t& ms);
    bool BeginTransfer(const Reader& reader, uint64_t& generation);
    bool EndActivity();
    void WakeThread();
    uint64_t Generation();
    void WaitForWake(uint64_t generation) OPAL_REQUIRES(m_mutex);
    bool IsBusy();
    bool IsParked();
    void AbandonOpening() OPAL_REQUIRES(m_stateMutex);

    const opal::StopSignal* SignalOfReaders() const { return &m_stop; }

    std::vector<Reader> m_built OPAL_GUARDED_BY(m_mutex);  ///< by CreateReaders, not yet in use
    boost::thread m_thread;   ///< Initialize, SetStream and Finalize are the owner's alone
    opal::CondVar m_wakeup;   ///< with m_stateMutex
    opal::StopSignal m_stop;  ///< raised by Finalize; below the session's
    std::atomic<bool> m_threadEnded{false};  ///< by a failure

    /// Innermost lock, held over nothing but the fields that it guards.
    opal::Mutex m_stateMutex OPAL_ACQUIRED_AFTER(m_mutex);
    std::vector<Reader> m_readers OPAL_GUARDED_BY(m_stateMutex);  ///< see ReaderList
    size_t m_current OPAL_GUARDED_BY(m_stateMutex) = kNone;
    uint64_t m_generation OPAL_GUARDED_BY(m_stateMutex) = 0;  ///< counts the wakes
    uint64_t m_stops OPAL_GUARDED_BY(m_stateMutex) = 0;       ///< counts the calls of Stop
    Activity m_activity OPAL_GUARDED_BY(m_stateMutex) = Activity::None;
    Wishes m_wishes OPAL_GUARDED_BY(m_stateMutex);
    Reader m_opening OPAL_GUARDED_BY(m_stateMutex);  ///< inside Open
    Reader m_driven OPAL_GUARDED_BY(m_stateMutex);   ///< inside DownloadNext
    /// What is being opened is not wanted any more.
    bool m_openingGivenUp OPAL_GUARDED_BY(m_stateMutex) = false;
    bool m_parked OPAL_GUARDED_BY(m_stateMutex) = false;          ///< nothing is to be opened
    std::vector<Reader> m_closing OPAL_GUARDED_BY(m_stateMutex);  ///< before the next opening
};

/// Video: a reader for each level, then one for each trick track. All levels up to the current one
/// are open. Errors: SetRate gives -2 for a trick rate when there is no trick track.
class VideoReaderManager : public ReaderManager {
  public:
    using ReaderManager::ReaderManager;
    ~VideoReaderManager() override;

    OPALError Initialize(ISMILParser* parser, IClusterBuffer* buffer,
                         IStreamingReaderNotify* notify, size_t index) override;
    OPALError CreateReaders(ISMILParser* parser, IClusterBuffer* buffer,
                            IStreamingReaderNotify* notify, size_t index) override;
    OPALError DownloadNext() override;
    OPALError OpenCurrent() override;

    /// A trick rate makes the first trick track current, which the manager's thread opens; at 1x
    /// the current stream stays.
    OPALError SetRate(OPALPlayRate rate);
    /// One entry a level, null until the level is open. The vector stays where it is for the
    /// manager's life; the indexes are the readers'.
    const std::vector<IClusterIndex*>& GetClusterIndexes() const { return m_clusterIndexes; }

  protected:
    bool ClustersAreAligned() const override { return true; }
    void OnReadersDropped() override OPAL_REQUIRES(m_mutex);

  private:
    OPALError OpenLevelsUpTo(size_t index) OPAL_REQUIRES(m_mutex);

    std::atomic<size_t> m_firstTrickTrack{kNone};
    std::atomic<OPALPlayRate> m_rate{OPAL_PLAYRATE_ONEX};
    std::vector<IClusterIndex*> m_clusterIndexes;
};

/// Audio: a reader for each track.
class AudioReaderManager : public ReaderManager {
  public:
    using ReaderManager::ReaderManager;
    ~AudioReaderManager() override;

    OPALError Initialize(ISMILParser* parser, IClusterBuffer* buffer,
                         IStreamingReaderNotify* notify, size_t index) override;
    OPALError CreateReaders(ISMILParser* parser, IClusterBuffer* buffer,
                            IStreamingReaderNotify* notify, size_t index) override;

    /// Initialize without its wait: the manager's thread opens the track, as it does with
    /// subtitles.
    OPALError InitializeWithoutOpening(ISMILParser* parser, IClusterBuffer* buffer,
                                       IStreamingReaderNotify* notify, size_t index);
    OPALError GetTrackInfo(AudioStreamInfo& info);
    OPALError GetTrackInfo(size_t index, AudioStreamInfo& info);
    OPALError GetCodecID(std::string& codecID);
    OPALError GetCodecID(size_t index, std::string& codecID);
};

/// Subtitles: a reader for each track, opened by the manager's thread. A change of track closes the
/// old reader first, and starts the thread again if a failure has ended it.
class SubtitleReaderManager : public ReaderManager {
  public:
    using ReaderManager::ReaderManager;
    ~SubtitleReaderManager() override;

    OPALError SetStream(size_t index, bool open) override;
    OPALError CreateReaders(ISMILParser* parser, IClusterBuffer* buffer,
                            IStreamingReaderNotify* notify, size_t index) override;

    /// Valid until the reader is changed or finalised.
    OPALError GetFont(const void*& data, size_t& size);
};
