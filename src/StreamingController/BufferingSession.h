#pragma once

#include <boost/noncopyable.hpp>
#include <cstddef>

#include "Common/Mutex.h"
#include "Common/OPALError.h"
#include "Common/OPALStreamType.h"

/// The progress figure that is shown while playback waits for its buffers: what the streams have to
/// fetch and what they have fetched, as one percentage. It counts bytes, not time, since bytes are
/// what arrives, and it decides nothing about the start of playback.
///
/// A session runs from the first SetTarget to Reset. Stream kinds other than video, audio and
/// subtitle are ignored.
///
/// Threading: any operation from any thread; each is atomic.
/// Units: bytes; percent.
/// Errors: -4 while no stream has a target.
class BufferingSession : boost::noncopyable {
  public:
    virtual ~BufferingSession() = default;

    void SetTarget(size_t bytes, OPALStreamType type);
    void AddBytes(size_t bytes, OPALStreamType type);
    /// Nothing received yet; the target stays.
    void ResetStream(OPALStreamType type);
    void Reset();
    /// `inFlight` are bytes of running transfers that count as received. Arithmetic is of 32 bits,
    /// deliberately.
    void UpdatePercent(size_t inFlight);
    OPALError GetPercent(size_t& result) const;
    /// True for a stream without a target: such a stream never holds a session up.
    bool IsStreamComplete(OPALStreamType type) const;
    bool IsComplete() const;
    bool IsActive() const;
    bool IsStreamActive(OPALStreamType type) const;

  private:
    bool audioActive OPAL_GUARDED_BY(mutex) = false;
    bool videoActive OPAL_GUARDED_BY(mutex) = false;
    bool subtitleActive OPAL_GUARDED_BY(mutex) = false;
    bool subtitleComplete OPAL_GUARDED_BY(mutex) = false;
    bool videoComplete OPAL_GUARDED_BY(mutex) = false;
    bool audioComplete OPAL_GUARDED_BY(mutex) = false;
    size_t videoTarget OPAL_GUARDED_BY(mutex) = 0;
    size_t audioTarget OPAL_GUARDED_BY(mutex) = 0;
    size_t subtitleTarget OPAL_GUARDED_BY(mutex) = 0;
    size_t videoReceived OPAL_GUARDED_BY(mutex) = 0;
    size_t audioReceived OPAL_GUARDED_BY(mutex) = 0;
    size_t subtitleReceived OPAL_GUARDED_BY(mutex) = 0;
    size_t percent OPAL_GUARDED_BY(mutex) = 0;
    mutable opal::RecursiveMutex mutex;
};
