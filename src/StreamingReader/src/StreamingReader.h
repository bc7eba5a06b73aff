#pragma once

#include <atomic>
#include <boost/scoped_ptr.hpp>
#include <boost/shared_ptr.hpp>
#include <boost/thread/thread.hpp>
#include <string>
#include <vector>

#include "Common/MemoryBuffer.h"
#include "Common/Mutex.h"
#include "StreamingReader/HTTPFile/IHTTPFile.h"
#include "StreamingReader/IStreamingReader.h"

class StreamHeaderParser;

/// The reader of one file behind an IHTTPFile. See IStreamingReader.
///
/// StartThread, StartDelayed and Run are its stand-alone mode; the managers drive DownloadNext
/// themselves. Exceptions of libraries end that thread as OPAL_ERROR_GENERAL.
class StreamingReader : public IStreamingReader, public HTTPRequestNotify {
  public:
    /// Takes `http` over.
    StreamingReader(const std::string& url, size_t headerRequestSize, IClusterBuffer* buffer,
                    IStreamingReaderNotify* notify, OPALStreamType streamType, size_t level,
                    IHTTPFile* http, const opal::StopSignal* stop);
    ~StreamingReader() override;

    OPALError Open() override;
    OPALError StartThread() override;
    OPALError Start() override;
    OPALError StartDelayed(int64_t delayMs) override;
    OPALError Stop() override;
    OPALError Seek(int64_t& timeMs) override;
    OPALError Finalize() override;
    OPALError GetPosition(int64_t& timeMs) override;
    OPALError GetTrackInfo(AudioStreamInfo& info) override;
    OPALError GetDuration(int64_t& ms) override;
    OPALError GetError() override;
    int GetState() override;
    OPALError SetError(OPALError code) override;
    bool HasError() override;
    OPALError Run() override;
    OPALError DownloadNext(OPALPlayRate rate) override;
    OPALError DownloadNextTrick(OPALPlayRate rate) override;
    OPALError CancelTransfers() override;
    OPALError GetFont(const void*& data, size_t& size) override;
    OPALError GetBytesInFlight(size_t& bytes) override;
    OPALError GetBytesAhead(int64_t ms, size_t& bytes) override;
    OPALError GetClusterIndex(IClusterIndex*& index) override;
    void SetAbandoned(bool abandoned) override;
    void SetCancelReason(opal::RequestEnd reason) override { m_pHTTP->SetCancelReason(reason); }

    void OnRequestComplete(const HTTPRequest& request) override;

  private:
    using Lock = opal::RecursiveLock;

    void ResetState() OPAL_REQUIRES(m_mutex);
    void SetIndex(const boost::shared_ptr<IClusterIndex>& index) OPAL_REQUIRES(m_mutex);
    /// The index is set, once it is filled, with both locks held, so m_mutex is enough to read it,
    /// which the compiler cannot be told. A filled index does not change.
    IClusterIndex* HeldIndex() const OPAL_REQUIRES(m_mutex) OPAL_NO_THREAD_SAFETY_ANALYSIS {
        return m_pIndex.get();
    }
    boost::shared_ptr<IClusterIndex> Index();
    /// (to - from) in frames; times in milliseconds. Times and durations come from the file and
    /// from the application, so the arithmetic saturates, at half the range to leave callers room
    /// for one more step.
    static int64_t FramesBetween(int64_t from, int64_t to, int64_t frameDurationNs);
    OPALError FetchRange(int64_t offset, int64_t size, qutl::MemoryBuffer<unsigned char>& bytes)
        OPAL_REQUIRES(m_mutex);
    OPALError ReadHeaders() OPAL_REQUIRES(m_mutex);
    OPALError FetchIndex(int64_t cuesOffset, int64_t segmentOffset, uint64_t totalSize)
        OPAL_REQUIRES(m_mutex);
    void TakeHeaderFields(StreamHeaderParser& parser) OPAL_REQUIRES(m_mutex);
    OPALError BuildRanges(OPALPlayRate rate, bool forward, std::vector<ByteRange>& ranges)
        OPAL_REQUIRES(m_mutex);
    OPALError BuildTrickRanges(OPALPlayRate rate, bool forward, std::vector<ByteRange>& ranges)
        OPAL_REQUIRES(m_mutex);
    /// Tells the session's observer.
    void TellFailure(OPALError code, bool found) const;
    /// Says what the next transfers are for.
    void Label(opal::RequestPurpose purpose, int64_t cluster);
    OPALError Transfer(const std::vector<ByteRange>& ranges,
                       qutl::MemoryBuffer<unsigned char>& bytes);
    void Wake() OPAL_REQUIRES(m_mutex);
    void WaitForWake(uint64_t wakes) OPAL_REQUIRES(m_mutex);
    void DelayStart() OPAL_REQUIRES(m_mutex);

    IStreamingReaderNotify* const m_pNotify;
    opal::RecursiveMutex m_mutex;
    boost::thread m_thread OPAL_GUARDED_BY(m_mutex);
    IClusterBuffer* const m_pBuffer;
    AudioStreamInfo m_track OPAL_GUARDED_BY(m_metadataMutex);
    const std::string m_url;
    const int64_t m_headerRequestSize;
    const boost::scoped_ptr<IHTTPFile> m_pHTTP;
    boost::shared_ptr<IClusterIndex> m_pIndex OPAL_GUARDED_BY(m_metadataMutex);
    std::atomic<bool> m_hasError{false};
    std::atomic<int32_t> m_clusterIndex{0};
    std::atomic<OPALError> m_error{OPAL_OK};
    std::atomic<bool> m_opened{false};
    std::atomic<bool> m_stopped{true};
    std::atomic<int64_t> m_duration{0};
    int64_t m_frameDuration OPAL_GUARDED_BY(m_mutex) = 0;
    opal::RecursiveCondVar m_wakeup;
    const OPALStreamType m_streamType;
    const size_t m_level;
    int64_t m_startDelay OPAL_GUARDED_BY(m_mutex) = 0;
    qutl::MemoryBuffer<unsigned char> m_font OPAL_GUARDED_BY(m_metadataMutex);
    int64_t m_skipFrames OPAL_GUARDED_BY(m_mutex) = 0;
    int64_t m_trimFrames OPAL_GUARDED_BY(m_mutex) = 0;
    uint32_t m_framesPerCluster OPAL_GUARDED_BY(m_mutex) = 0;
    std::atomic<bool> m_isSubtitle{false};

    opal::Mutex m_metadataMutex OPAL_ACQUIRED_AFTER(m_mutex);  ///< innermost
    /// CancelTransfers came, and neither Start nor Seek since. Tested before each transfer, so that
    /// a cancel between two transfers is not lost.
    std::atomic<bool> m_cancelled{false};
    std::atomic<bool> m_abandoned{false};  ///< see SetAbandoned
    opal::StopSignal m_stop;               ///< raised by Finalize and SetAbandoned
    /// Counts the wakes: a wait that ends without one is resumed.
    uint64_t m_wakes OPAL_GUARDED_BY(m_mutex) = 0;
};
