#pragma once

#include <boost/noncopyable.hpp>
#include <boost/scoped_ptr.hpp>
#include <cstddef>
#include <cstdint>
#include <vector>

#include "Common/MemoryBuffer.h"
#include "StreamingReader/HTTPFile/ByteRange.h"

class HTTPRequest;

/// Told when a request is complete, before its bytes are taken. It runs with the file's lock held:
/// it must not call back into that file.
class HTTPRequestNotify {
  public:
    virtual ~HTTPRequestNotify() = default;
    /// `request` carries times, ranges and byte count, but no data.
    virtual void OnRequestComplete(const HTTPRequest& request) = 0;
};

/// One read of one or several byte ranges: what was asked, what came, and how long it took. Bytes
/// of all ranges lie behind each other in the order of the ranges. They are never copied: assigning
/// a request hands its buffer over.
///
/// Threading: none; a request belongs to one thread at a time.
/// Units: bytes; milliseconds.
class HTTPRequest : boost::noncopyable {
  public:
    HTTPRequest();
    virtual ~HTTPRequest();

    /// Clears everything but the notify pointer.
    void Reset();
    /// No data, no bytes, no ranges.
    bool IsEmpty() const;
    /// Moves the bytes out; this request's buffer is left empty.
    void TakeData(qutl::MemoryBuffer<unsigned char>& data);
    const qutl::MemoryBuffer<unsigned char>* GetData() const;
    uint64_t GetBytesReceived() const;
    /// Of the `index`-th range; 0 out of bounds.
    int64_t GetOffset(size_t index) const;
    int64_t GetLength(size_t index) const;
    int64_t GetDurationMs() const;
    /// Copies the numbers; moves the buffer out of `other` if `withData`.
    void Assign(HTTPRequest& other, bool withData);

  protected:
    class PIMPL;
    boost::scoped_ptr<PIMPL> m_pimpl;
};
