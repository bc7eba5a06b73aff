#pragma once

#include <boost/noncopyable.hpp>
#include <cstddef>
#include <cstdint>

#include "Common/OPALStreamType.h"

/// How readers report. Both calls come on a reader manager's thread with the manager's and the
/// reader's locks held, OnDownloadComplete with the file's too: they must not block on anything
/// that waits for a reader, and must not call the reader.
class IStreamingReaderNotify : boost::noncopyable {
  public:
    virtual ~IStreamingReaderNotify() = default;
    /// A cluster has been transferred. Milliseconds, bytes; `index` is the cluster's.
    virtual void OnDownloadComplete(OPALStreamType type, int64_t downloadTime, int64_t downloadSize,
                                    size_t index) = 0;
    /// A cluster has gone into the stream's buffer.
    virtual void OnClusterBufferWrite(OPALStreamType type) = 0;
};
