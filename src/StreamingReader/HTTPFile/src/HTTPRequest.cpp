#include "StreamingReader/HTTPFile/HTTPRequest.h"

#include "Common/Clock.h"
#include "StreamingReader/HTTPFile/src/HTTPRequestPimpl.h"

HTTPRequest::HTTPRequest() : m_pimpl(new PIMPL) {}

HTTPRequest::~HTTPRequest() = default;

void HTTPRequest::Reset() {
    m_pimpl->startTime = boost::posix_time::ptime();
    m_pimpl->endTime = boost::posix_time::ptime();
    m_pimpl->data.Resize(0, false);
    m_pimpl->bytesReceived = 0;
    m_pimpl->totalLength = 0;
    m_pimpl->ranges.clear();
}

bool HTTPRequest::IsEmpty() const {
    return m_pimpl->data.IsEmpty() && m_pimpl->bytesReceived == 0 && m_pimpl->ranges.empty();
}

void HTTPRequest::TakeData(qutl::MemoryBuffer<unsigned char>& data) {
    data.Attach(m_pimpl->data);
}

const qutl::MemoryBuffer<unsigned char>* HTTPRequest::GetData() const {
    return &m_pimpl->data;
}

uint64_t HTTPRequest::GetBytesReceived() const {
    return m_pimpl->bytesReceived;
}

int64_t HTTPRequest::GetOffset(size_t index) const {
    return index < m_pimpl->ranges.size() ? m_pimpl->ranges[index].offset : 0;
}

int64_t HTTPRequest::GetLength(size_t index) const {
    return index < m_pimpl->ranges.size() ? m_pimpl->ranges[index].length : 0;
}

int64_t HTTPRequest::GetDurationMs() const {
    if (m_pimpl->startTime.is_special() || m_pimpl->endTime.is_special())
        return 0;
    return opal::ToMilliseconds(m_pimpl->endTime - m_pimpl->startTime);
}

void HTTPRequest::Assign(HTTPRequest& other, bool withData) {
    if (this == &other)
        return;
    m_pimpl->startTime = other.m_pimpl->startTime;
    m_pimpl->endTime = other.m_pimpl->endTime;
    m_pimpl->bytesReceived = other.m_pimpl->bytesReceived;
    m_pimpl->ranges = other.m_pimpl->ranges;
    m_pimpl->notify = other.m_pimpl->notify;
    m_pimpl->totalLength = other.m_pimpl->totalLength;
    if (withData)
        other.TakeData(m_pimpl->data);
}
