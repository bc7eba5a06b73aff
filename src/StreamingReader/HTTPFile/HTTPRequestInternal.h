#pragma once

#include <string>
#include <vector>

#include "Common/OPALError.h"
#include "StreamingReader/HTTPFile/HTTPRequest.h"

/// A request seen from the side that serves it: an implementation of IHTTPFile makes one from the
/// ranges, writes the reply's bytes to it as they come, and hands it out as HTTPRequest.
///
/// Threading and units: as HTTPRequest.
/// Ownership: a copy takes the buffer over; bytes are never duplicated. The notify object is not
/// owned.
class HTTPRequestInternal : public HTTPRequest {
  public:
    HTTPRequestInternal();
    HTTPRequestInternal(const std::vector<ByteRange>& ranges, HTTPRequestNotify* notify);
    explicit HTTPRequestInternal(HTTPRequest& other);
    HTTPRequestInternal(HTTPRequestInternal& other);
    ~HTTPRequestInternal() override;

    /// "0-99,500-549".
    std::string BuildRangeString() const;
    /// Start and end both become now.
    void MarkStart();
    void MarkEnd();
    /// Takes bytes of the reply's body: as they are for one range, out of a multipart reply for
    /// several. Bytes beyond what was asked for are dropped, with success. -2 for nothing to write;
    /// -5 if there is no memory for all that was asked for, or if a multipart reply is far longer
    /// than its parts. Throws std::bad_alloc.
    OPALError Write(const void* bytes, uint64_t size);
    /// Calls the notify object, if there is one, with the numbers and no data.
    void Notify();
};
