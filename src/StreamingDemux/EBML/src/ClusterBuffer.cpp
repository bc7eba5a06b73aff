#include "StreamingDemux/EBML/src/ClusterBuffer.h"

namespace {

using Lock = opal::RecursiveLock;

}  // namespace

size_t ClusterBuffer::GetUsedBytes() {
    Lock lock(m_mutex);
    return m_used;
}

size_t ClusterBuffer::GetFreeBytes() {
    Lock lock(m_mutex);
    return m_capacity - m_used;
}

size_t ClusterBuffer::GetCapacity() {
    Lock lock(m_mutex);
    return m_capacity;
}

void ClusterBuffer::SetMaxDuration(int64_t ms) {
    Lock lock(m_mutex);
    m_maxDuration = ms;
}

int64_t ClusterBuffer::GetBufferedDuration() {
    return m_bufferedDuration.load(std::memory_order_relaxed);
}

OPALError ClusterBuffer::Write(qutl::MemoryBuffer<unsigned char>& data, const ClusterInfo& info) {
    if (data.IsEmpty())
        return OPAL_ERROR_INVALID_ARGUMENT;
    Lock lock(m_mutex);
    if (data.GetSize() > GetFreeBytes())
        return OPAL_ERROR_BUFFER_FULL;
    const int64_t buffered = GetBufferedDuration();
    if (m_maxDuration > 0 && info.duration > m_maxDuration - buffered)
        return OPAL_ERROR_BUFFER_FULL;
    m_clusters.emplace_back();
    Entry& entry = m_clusters.back();
    entry.info = info;
    entry.data.Attach(data);
    m_bufferedDuration.store(buffered + info.duration, std::memory_order_relaxed);
    m_used += static_cast<uint32_t>(entry.data.GetSize());
    return OPAL_OK;
}

OPALError ClusterBuffer::Read(qutl::MemoryBuffer<unsigned char>& data, ClusterInfo& info) {
    data.Resize(0, false);
    info = ClusterInfo();
    Lock lock(m_mutex);
    // "No memory" is what callers take for "nothing queued".
    if (m_clusters.empty())
        return OPAL_ERROR_NO_MEMORY;
    Entry& entry = m_clusters.front();
    info = entry.info;
    data.Attach(entry.data);
    m_clusters.pop_front();
    m_used -= static_cast<uint32_t>(data.GetSize());
    m_bufferedDuration.store(GetBufferedDuration() - info.duration, std::memory_order_relaxed);
    return OPAL_OK;
}

OPALError ClusterBuffer::Clear() {
    Lock lock(m_mutex);
    m_used = 0;
    m_bufferedDuration.store(0, std::memory_order_relaxed);
    m_clusters.clear();
    return OPAL_OK;
}

IClusterBuffer* NewClusterBuffer(size_t capacity) {
    // The capacity counts in 32 bits.
    const auto bytes = static_cast<uint32_t>(capacity);
    return bytes == 0 ? nullptr : new ClusterBuffer(bytes);
}
