#pragma once

#include <boost/noncopyable.hpp>
#include <cstddef>
#include <cstdint>
#include <string>

#include "Common/OPALError.h"
#include "Common/OPALPlayRate.h"
#include "Common/OPALStreamType.h"
#include "Common/SessionEvents.h"
#include "Common/StopSignal.h"
#include "StreamingDemux/EBML/AudioStreamInfo.h"
#include "StreamingReader/IStreamingReaderNotify.h"

class IClusterBuffer;
class IClusterIndex;

/// States that IStreamingReader::GetState answers, tested in the order end, error, not open,
/// stopped, running.
enum StreamingReaderState : int {
    STREAMING_READER_NOT_OPEN = 0,
    STREAMING_READER_STOPPED = 1,
    STREAMING_READER_RUNNING = 2,
    STREAMING_READER_END = 3,
    STREAMING_READER_ERROR = 4
};

/// One media file on the server: a video level, a trick track, an audio or a subtitle track. Open
/// fetches what is ever needed of the file's metadata; each DownloadNext then moves one cluster
/// into the stream's buffer. When to fetch is for others to decide.
///
/// Threading: a manager's thread runs Open and DownloadNext, others the rest. The lock is held over
/// a whole transfer, and Open, Start, Seek, DownloadNext and Finalize wait for it; no other
/// operation does.
/// Ownership: buffer, notify and stop signal are not owned. GetFont's and GetClusterIndex's
/// pointers stay valid until Finalize. Units: milliseconds, bytes. Errors: a failed metadata step
/// sticks until the next Open and is what most calls then answer; DownloadNext returns its failures
/// and stores none.
class IStreamingReader : boost::noncopyable {
  public:
    virtual ~IStreamingReader() = default;
    virtual OPALError Open() = 0;
    virtual OPALError StartThread() = 0;
    virtual OPALError Start() = 0;
    virtual OPALError StartDelayed(int64_t delayMs) = 0;
    virtual OPALError Stop() = 0;
    /// `timeMs` returns the time of the cluster at which the stream continues.
    virtual OPALError Seek(int64_t& timeMs) = 0;
    virtual OPALError Finalize() = 0;
    /// Time of the next cluster to fetch; 0 behind the last one.
    virtual OPALError GetPosition(int64_t& timeMs) = 0;
    virtual OPALError GetTrackInfo(AudioStreamInfo& info) = 0;
    virtual OPALError GetDuration(int64_t& ms) = 0;
    virtual OPALError GetError() = 0;
    virtual int GetState() = 0;
    virtual OPALError SetError(OPALError code) = 0;
    virtual bool HasError() = 0;
    virtual OPALError Run() = 0;
    virtual OPALError DownloadNext(OPALPlayRate rate) = 0;
    virtual OPALError DownloadNextTrick(OPALPlayRate rate) = 0;
    /// Ends the running transfer of a cluster with -28, and lets none begin before Start or Seek. A
    /// reader that is not open yet is left alone.
    virtual OPALError CancelTransfers() = 0;
    virtual OPALError GetFont(const void*& data, size_t& size) = 0;
    virtual OPALError GetBytesInFlight(size_t& bytes) = 0;
    /// Bytes of the clusters that make up the next `ms` milliseconds.
    virtual OPALError GetBytesAhead(int64_t ms, size_t& bytes) = 0;
    virtual OPALError GetClusterIndex(IClusterIndex*& index) = 0;
    /// True ends the Open that runs: it answers -8, and nothing of the failure stays. False lets
    /// the next one run. The reader's stop signal does the same for good, and ends a DownloadNext
    /// with -28. Takes no lock.
    virtual void SetAbandoned(bool abandoned) = 0;
    /// Why the next CancelTransfers comes, as the session's observer is told.
    virtual void SetCancelReason(opal::RequestEnd) {}
};

/// A new reader, owned by the caller; null for an empty url, a header size of 0, a null buffer or
/// OPAL_STREAM_NONE. `notify` and `stop` may be null.
IStreamingReader* NewStreamingReader(const std::string& url, size_t headerRequestSize,
                                     IClusterBuffer* buffer, IStreamingReaderNotify* notify,
                                     OPALStreamType streamType, size_t level,
                                     const opal::StopSignal* stop = nullptr);
