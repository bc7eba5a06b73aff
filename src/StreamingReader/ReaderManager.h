#pragma once

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
#include "StreamingDemux/EBML/AudioStreamInfo.h"
#include "StreamingReader/IStreamingReader.h"

class IClusterBuffer;
class IClusterIndex;
class ISMILParser;
class IStreamingReaderNotify;

/// Owns all readers of one stream kind, knows which of them is current, and runs the one thread
/// that drives the current one. After each cluster the thread waits until Start wakes it again, so
/// that the caller paces the downloads; while the stream's buffer has no room it polls every 20 ms.
///
/// Threading: any operation from any thread. Operations wait for the transfer that runs, except the
/// ones marked "no lock", and Start, which during a transfer only notes that the thread is wanted
/// again. Nothing below m_mutex calls up but the notify.
/// Ownership: owns the readers; parser, buffer and notify are not owned, and buffer and notify must
/// stay until Finalize. Every derived class runs Finalize in its destructor.
/// Units: milliseconds, bytes.
/// Errors: -2 for an index beyond the readers. Without a current reader -4 if there are readers,
/// and 0 if the manifest has no stream of this kind: such a kind does nothing. A failed download or
/// a failed open ends the thread, and GetError gives its code.
class ReaderManager : boost::noncopyable {
  public:
    ReaderManager() = default;
    virtual ~ReaderManager();

    /// To be called once; -4 if there are readers already. Starts the thread if the manifest has
    /// streams of this kind.
    virtual OPALError Initialize(ISMILParser* parser, IClusterBuffer* buffer,
                                 IStreamingReaderNotify* notify, size_t index);
    /// Makes another reader current, with `open` opened on the caller's thread. The one before is
    /// stopped.
    virtual OPALError SetStream(size_t index, bool open);
    virtual OPALError CreateReaders(ISMILParser* parser, IClusterBuffer* buffer,
                                    IStreamingReaderNotify* notify, size_t index) = 0;
    virtual OPALError DownloadNext();
    virtual OPALError OpenCurrent();

    /// Aborts what runs, joins the thread, finalises and drops the readers. Initialize may follow.
    OPALError Finalize();
    OPALError Start();
    OPALError Stop();
    OPALError Seek(int64_t& ms);
    size_t GetStreamCount();  ///< no lock
    OPALError GetDuration(int64_t& ms);
    size_t GetCurrent();             ///< no lock; (size_t)-1 for none
    OPALError GetState(int& state);  ///< no lock
    OPALError GetPosition(int64_t& ms);
    bool HasError();
    OPALError GetError();  ///< no lock
    OPALError SetError(OPALError code);
    OPALError Cancel();                                  ///< no lock
    OPALError GetBytesInFlight(size_t& bytes);           ///< no lock
    OPALError GetBytesAhead(int64_t ms, size_t& bytes);  ///< no lock
    /// Ends the transfer that runs, an opening one too, and lets no other begin before Finalize.
    /// Never waits; may be repeated. For the way to Finalize only.
    void AbortTransfers();

  protected:
    using Reader = boost::shared_ptr<IStreamingReader>;
    using Lock = opal::RecursiveLock;
    static constexpr size_t kNone = static_cast<size_t>(-1);

    /// Told that the readers are gone.
    virtual void OnReadersDropped() OPAL_REQUIRES(m_mutex) {}

    Reader Current();
    /// What an operation answers without a current reader.
    OPALError NoReaderResult();
    /// The common form of the operations on the current reader; the lock, where one is needed, is
    /// the caller's.
    template <typename Operation>
    OPALError OnCurrent(Operation operation) {
        const Reader reader = Current();
        return reader ? operation(*reader) : NoReaderResult();
    }
    OPALError AddReader(const std::string& url, size_t headerRequestSize, IClusterBuffer* buffer,
                        IStreamingReaderNotify* notify, OPALStreamType type, size_t level)
        OPAL_REQUIRES(m_mutex);
    OPALError StartThread() OPAL_REQUIRES(m_mutex);
    /// Starts it again if a failure has ended it.
    OPALError RestartEndedThread() OPAL_REQUIRES(m_mutex);
    /// Opens the current reader on the caller's thread after Initialize; -1 unless it then stands
    /// ready.
    OPALError OpenAfterInitialize() OPAL_REQUIRES(m_mutex);
    /// Every such call lets the thread go on if it waits, or not wait if it is in a transfer.
    void WakeThread();
    bool IsThreadEnded() const OPAL_REQUIRES(m_mutex) { return m_threadEnded; }
    /// Levels first, then trick tracks. Both fields behind these two are written with both locks
    /// held, so m_mutex is enough to read them, which the compiler cannot be told.
    const std::vector<Reader>& ReaderList() const
        OPAL_REQUIRES(m_mutex) OPAL_NO_THREAD_SAFETY_ANALYSIS {
        return m_readers;
    }
    size_t CurrentIndex() const OPAL_REQUIRES(m_mutex) OPAL_NO_THREAD_SAFETY_ANALYSIS {
        return m_current;
    }

    opal::RecursiveMutex m_mutex;

  private:
    void ThreadMain();
    OPALError EventLoop();
    bool RunRound(OPALError& result) OPAL_REQUIRES(m_mutex);
    bool Download(OPALError& result) OPAL_REQUIRES(m_mutex);
    uint64_t BeginTransfer();
    bool EndTransfer();
    uint64_t Generation();
    void WaitForWake(uint64_t generation) OPAL_REQUIRES(m_mutex);
    Reader NoteStartInTransfer();
    void SetCurrent(size_t index) OPAL_REQUIRES(m_mutex);
    void LockAfterAbort() OPAL_ACQUIRE(m_mutex);
    void LockAfterCancel() OPAL_ACQUIRE(m_mutex);
    void SetCancelled(bool cancelled);
    bool IsCancelled();

    boost::thread m_thread OPAL_GUARDED_BY(m_mutex);
    bool m_threadEnded OPAL_GUARDED_BY(m_mutex) = false;  ///< by a failure
    opal::RecursiveCondVar m_wakeup;

    /// Innermost lock, held over nothing but the fields it guards.
    opal::Mutex m_stateMutex OPAL_ACQUIRED_AFTER(m_mutex);
    std::vector<Reader> m_readers OPAL_GUARDED_BY(m_stateMutex);  ///< see ReaderList
    size_t m_current OPAL_GUARDED_BY(m_stateMutex) = kNone;       ///< see CurrentIndex
    uint64_t m_generation OPAL_GUARDED_BY(m_stateMutex) = 0;      ///< counts the wakes
    /// The thread is inside DownloadNext.
    bool m_transferring OPAL_GUARDED_BY(m_stateMutex) = false;
    bool m_startRequested OPAL_GUARDED_BY(m_stateMutex) = false;  ///< Start came meanwhile
    /// Cancel came, and neither Start nor Seek since.
    bool m_cancelled OPAL_GUARDED_BY(m_stateMutex) = false;
};

/// Video: a reader for each level, then one for each trick track. All levels up to the current one
/// are open. Errors: SetRate gives -2 for a trick rate when there is no trick track.
class VideoReaderManager : public ReaderManager {
  public:
    ~VideoReaderManager() override;

    OPALError Initialize(ISMILParser* parser, IClusterBuffer* buffer,
                         IStreamingReaderNotify* notify, size_t index) override;
    OPALError CreateReaders(ISMILParser* parser, IClusterBuffer* buffer,
                            IStreamingReaderNotify* notify, size_t index) override;
    OPALError DownloadNext() override;
    OPALError OpenCurrent() override;

    /// A trick rate makes the first trick track current; at 1x the current stream stays.
    OPALError SetRate(OPALPlayRate rate);
    /// One entry a level, null until the level is open. The vector stays where it is for the
    /// manager's life; the indexes are the readers'.
    const std::vector<IClusterIndex*>& GetClusterIndexes() const { return m_clusterIndexes; }

  protected:
    void OnReadersDropped() override OPAL_REQUIRES(m_mutex);

  private:
    OPALError OpenLevelsUpToCurrent() OPAL_REQUIRES(m_mutex);

    size_t m_firstTrickTrack OPAL_GUARDED_BY(m_mutex) = kNone;
    OPALPlayRate m_rate OPAL_GUARDED_BY(m_mutex) = OPAL_PLAYRATE_ONEX;
    std::vector<IClusterIndex*> m_clusterIndexes;
};

/// Audio: a reader for each track.
class AudioReaderManager : public ReaderManager {
  public:
    ~AudioReaderManager() override;

    OPALError Initialize(ISMILParser* parser, IClusterBuffer* buffer,
                         IStreamingReaderNotify* notify, size_t index) override;
    OPALError CreateReaders(ISMILParser* parser, IClusterBuffer* buffer,
                            IStreamingReaderNotify* notify, size_t index) override;

    OPALError GetTrackInfo(AudioStreamInfo& info);
    OPALError GetTrackInfo(size_t index, AudioStreamInfo& info);
    OPALError GetCodecID(std::string& codecID);
    OPALError GetCodecID(size_t index, std::string& codecID);
};

/// Subtitles: a reader for each track, opened by the manager's thread. A change of track closes the
/// old reader first, and starts the thread again if a failure has ended it.
class SubtitleReaderManager : public ReaderManager {
  public:
    ~SubtitleReaderManager() override;

    OPALError SetStream(size_t index, bool open) override;
    OPALError CreateReaders(ISMILParser* parser, IClusterBuffer* buffer,
                            IStreamingReaderNotify* notify, size_t index) override;

    /// Valid until the reader is changed or finalised.
    OPALError GetFont(const void*& data, size_t& size);
};
