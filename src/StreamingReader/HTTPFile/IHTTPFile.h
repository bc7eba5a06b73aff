#pragma once

#include <boost/noncopyable.hpp>
#include <cstdint>
#include <string>
#include <vector>

#include "Common/OPALError.h"
#include "Common/SessionEvents.h"
#include "Common/StopSignal.h"
#include "StreamingReader/HTTPFile/ByteRange.h"
#include "StreamingReader/HTTPFile/HTTPRequest.h"

/// A byte-addressable file behind an "http://" or "file://" URL, read by byte ranges.
///
/// A blocking file transfers inside RequestRange and RequestRanges, on the caller's thread. A
/// threaded one queues requests for a worker of its own; a failed transfer then leaves the file
/// failed until Close and a new Open.
///
/// Threading: any operation from any thread. CancelRequests and GetBytesInFlight work while a
/// transfer runs, and end or observe it; Close and the stop signal end it too. A stalled transfer
/// ends within about a second. While Open runs, every operation but Close waits for it; Close and
/// the stop signal end it. Read requests to a blocking file are served one after the other.
/// Ownership: held by a scoped pointer. Notify pointers are not owned and must outlive the request.
/// Units: bytes.
/// Errors: -2 bad URL or range, -3 beyond the end or nothing there, -4 not open (at Open: open), -7
/// in progress, -8 ended by Close, -12/-13 HTTP status, -14 time-out, -15 no connection, -16/-17
/// link down or unknown, -28 cancelled.
class IHTTPFile : boost::noncopyable {
  public:
    virtual ~IHTTPFile() = default;
    /// Learns the size with a header request.
    virtual OPALError Open(const std::string& url) = 0;
    virtual OPALError GetSize(int64_t& size) = 0;
    /// A negative `length` means to the end of the file.
    virtual OPALError RequestRange(int64_t offset, int64_t length, HTTPRequestNotify* notify) = 0;
    virtual OPALError RequestRanges(const std::vector<ByteRange>& ranges,
                                    HTTPRequestNotify* notify) = 0;
    /// The oldest finished request; `peek` leaves it there and gives the numbers only.
    virtual OPALError GetCompletedRequest(HTTPRequest& request, bool peek) = 0;
    /// Drops what is queued; with `cancelInFlight` the running transfer too.
    virtual OPALError CancelRequests(bool cancelInFlight, bool clearCompleted) = 0;
    /// Bytes of the running transfer received so far; never fails.
    virtual OPALError GetBytesInFlight(int& bytes) = 0;
    /// Always 0. Ends whatever runs, an Open on another thread included, and waits for its end.
    virtual OPALError Close() = 0;
    /// While the signal is raised, what runs ends, nothing begins, and operations that report the
    /// file's health answer -28. Not owned; it outlives the file. To be set before the first Open.
    virtual void SetStopSignal(const opal::StopSignal* signal) = 0;
    /// What the next transfers are for, as the session's observer is told: purpose, stream, index
    /// and cluster.
    virtual void SetLabel(const opal::RequestLabel&) {}
    /// Why the transfer that runs is cancelled, for the observer too. To be set before
    /// CancelRequests; a jump unless it is.
    virtual void SetCancelReason(opal::RequestEnd) {}
};
