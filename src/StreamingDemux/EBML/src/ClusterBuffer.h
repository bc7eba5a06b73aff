#pragma once

#include <atomic>
#include <deque>

#include "Common/Mutex.h"
#include "StreamingDemux/EBML/IClusterBuffer.h"

/// The queue of whole clusters: holds no memory but what was handed to it.
class ClusterBuffer : public IClusterBuffer {
  public:
    explicit ClusterBuffer(uint32_t capacity) : m_capacity(capacity) {}

    size_t GetUsedBytes() override;
    size_t GetFreeBytes() override;
    size_t GetCapacity() override;
    void SetMaxDuration(int64_t ms) override;
    int64_t GetBufferedDuration() override;
    OPALError Write(qutl::MemoryBuffer<unsigned char>& data, const ClusterInfo& info) override;
    OPALError Read(qutl::MemoryBuffer<unsigned char>& data, ClusterInfo& info) override;
    OPALError Clear() override;

  private:
    struct Entry {
        ClusterInfo info;
        qutl::MemoryBuffer<unsigned char> data;
    };

    const uint32_t m_capacity;
    uint32_t m_used OPAL_GUARDED_BY(m_mutex) = 0;
    int64_t m_maxDuration OPAL_GUARDED_BY(m_mutex) = -1;
    std::atomic<int64_t> m_bufferedDuration{0};
    std::deque<Entry> m_clusters OPAL_GUARDED_BY(m_mutex);
    /// Recursive because Write asks GetFreeBytes.
    opal::RecursiveMutex m_mutex;
};
