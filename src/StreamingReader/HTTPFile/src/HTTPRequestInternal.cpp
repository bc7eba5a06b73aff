#include "StreamingReader/HTTPFile/HTTPRequestInternal.h"

#include <algorithm>
#include <cstring>
#include <limits>

#include "Common/Clock.h"
#include "StreamingReader/HTTPFile/src/HTTPRequestPimpl.h"

namespace {

// A multipart reply may exceed its parts by this much: room for the servers' part headers.
constexpr uint64_t kMultipartSlack = 1 << 20;
constexpr uint64_t kPartHeaderAllowance = 4096;

/// Saturates, so that absurd ranges fail for want of memory and do not wrap to a small sum.
uint64_t SumOfLengths(const std::vector<ByteRange>& ranges) {
    uint64_t sum = 0;
    for (const ByteRange& range : ranges) {
        const uint64_t length = range.length > 0 ? static_cast<uint64_t>(range.length) : 0;
        const uint64_t room = std::numeric_limits<uint64_t>::max() - sum;
        sum += std::min(length, room);
    }
    return sum;
}

/// Copies what there is room for behind `bytesReceived` and counts it; the rest is dropped.
void Append(const unsigned char* bytes, uint64_t size, uint64_t totalLength,
            qutl::MemoryBuffer<unsigned char>& data, uint64_t& bytesReceived) {
    const uint64_t count = std::min(size, totalLength - bytesReceived);
    if (count == 0)
        return;
    std::memcpy(data.GetData() + bytesReceived, bytes, count);
    bytesReceived += count;
}

}  // namespace

HTTPRequestInternal::HTTPRequestInternal() = default;

HTTPRequestInternal::HTTPRequestInternal(const std::vector<ByteRange>& ranges,
                                         HTTPRequestNotify* notify) {
    m_pimpl->ranges = ranges;
    m_pimpl->totalLength = SumOfLengths(ranges);
    m_pimpl->notify = notify;
}

HTTPRequestInternal::HTTPRequestInternal(HTTPRequest& other) {
    Assign(other, true);
}

HTTPRequestInternal::HTTPRequestInternal(HTTPRequestInternal& other) : HTTPRequest() {
    Assign(other, true);
}

HTTPRequestInternal::~HTTPRequestInternal() = default;

std::string HTTPRequestInternal::BuildRangeString() const {
    std::string text;
    for (const ByteRange& range : m_pimpl->ranges) {
        if (!text.empty())
            text += ',';
        text +=
            std::to_string(range.offset) + '-' + std::to_string(range.offset + (range.length - 1));
    }
    return text;
}

void HTTPRequestInternal::MarkStart() {
    m_pimpl->startTime = opal::Now();
    m_pimpl->endTime = m_pimpl->startTime;
}

void HTTPRequestInternal::MarkEnd() {
    m_pimpl->endTime = opal::Now();
}

OPALError HTTPRequestInternal::Write(const void* bytes, uint64_t size) {
    if (!bytes || size == 0)
        return OPAL_ERROR_INVALID_ARGUMENT;
    PIMPL& request = *m_pimpl;
    if (request.data.IsEmpty()) {
        if (request.totalLength > std::numeric_limits<uint32_t>::max())
            return OPAL_ERROR_NO_MEMORY;
        // Zeroed, since a short reply leaves the tail as it is and TakeData hands out all of it.
        request.data.Resize(static_cast<size_t>(request.totalLength), true);
        if (request.data.GetSize() != request.totalLength)
            return OPAL_ERROR_NO_MEMORY;
    }
    if (request.ranges.size() < 2) {
        Append(static_cast<const unsigned char*>(bytes), size, request.totalLength, request.data,
               request.bytesReceived);
        return OPAL_OK;
    }
    const uint64_t limit =
        request.totalLength + kMultipartSlack + kPartHeaderAllowance * request.ranges.size();
    if (size > limit - std::min<uint64_t>(limit, request.mimeParser.GetDataLength()))
        return OPAL_ERROR_NO_MEMORY;
    request.mimeParser.AddData(bytes, static_cast<size_t>(size));
    qutl::MemoryBuffer<unsigned char> part;
    // Once all is there no further part is copied out, however many a reply holds.
    for (size_t n = request.mimeParser.GetPartCount();
         n != 0 && request.bytesReceived < request.totalLength; --n) {
        if (request.mimeParser.GetNextPart(part) == 0)
            Append(part.GetData(), part.GetSize(), request.totalLength, request.data,
                   request.bytesReceived);
    }
    return OPAL_OK;
}

void HTTPRequestInternal::Notify() {
    if (!m_pimpl->notify)
        return;
    HTTPRequestInternal numbers;
    numbers.Assign(*this, false);
    m_pimpl->notify->OnRequestComplete(numbers);
}
