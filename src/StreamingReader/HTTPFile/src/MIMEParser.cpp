#include "StreamingReader/HTTPFile/MIMEParser.h"

#include <algorithm>
#include <cstring>
#include <limits>
#include <stdexcept>

namespace {

constexpr char kDelimiter[] = "\r\n--";
constexpr uint32_t kDelimiterLength = 4;
constexpr char kLineEnd[] = "\r\n";
constexpr uint32_t kLineEndLength = 2;
constexpr char kHeadersEnd[] = "\r\n\r\n";
constexpr uint32_t kHeadersEndLength = 4;

}  // namespace

MIMEParser::~MIMEParser() {
    Reset();
}

void MIMEParser::AddData(const void* bytes, size_t size) {
    constexpr uint64_t kMost = std::numeric_limits<uint32_t>::max();
    if (size > kMost - dataLength)
        throw std::length_error("multipart reply beyond 32 bits");
    const uint64_t needed = uint64_t{dataLength} + size;
    if (needed > capacity) {
        // Doubled, so that a long reply in small pieces is not copied once a piece.
        const uint64_t larger = std::min(kMost, std::max(needed, uint64_t{capacity} * 2));
        boost::scoped_array<unsigned char> storage(new unsigned char[larger]);
        if (dataLength != 0)
            std::memcpy(storage.get(), data.get(), dataLength);
        data.swap(storage);
        capacity = static_cast<uint32_t>(larger);
    }
    if (size != 0)
        std::memcpy(data.get() + dataLength, bytes, size);
    dataLength = static_cast<uint32_t>(needed);
    dirty = true;
}

size_t MIMEParser::GetPartCount() {
    if (dirty)
        Parse();
    return parts.size();
}

int MIMEParser::GetNextPart(qutl::MemoryBuffer<unsigned char>& part) {
    part.Resize(0, false);
    if (dirty)
        Parse();
    if (parts.empty())
        return 1;
    const ByteRange& range = parts.front();
    part.Assign(data.get() + range.offset, static_cast<size_t>(range.length), 0, false);
    parts.pop_front();
    return 0;
}

void MIMEParser::Reset() {
    data.reset();
    scanPosition = 0;
    dataLength = 0;
    capacity = 0;
    dirty = false;
    parts.clear();
    m_boundaryKnown = false;
    m_bodyKnown = false;
    m_boundaryLine = 0;
    m_lineSearch = 0;
}

bool MIMEParser::Matches(uint32_t position, const char* text, uint32_t size) const {
    return size <= dataLength - position && std::memcmp(data.get() + position, text, size) == 0;
}

/// Looks for `text`, which begins with "\r", from `position` on and moves it to the place, or, if
/// there is none, to where a search goes on when more has arrived.
bool MIMEParser::FindText(const char* text, uint32_t size, uint32_t& position) const {
    while (position < dataLength) {
        const void* found = std::memchr(data.get() + position, '\r', dataLength - position);
        if (!found) {
            position = dataLength;
            return false;
        }
        position = static_cast<uint32_t>(static_cast<const unsigned char*>(found) - data.get());
        if (size > dataLength - position)
            return false;
        if (Matches(position, text, size))
            return true;
        ++position;
    }
    return false;
}

/// The first boundary line that is there to its end, from scanPosition on. A line that has begun is
/// the one to wait for: the end of any later line would be its end too.
bool MIMEParser::FindBoundary() {
    if (!FindText(kDelimiter, kDelimiterLength, m_boundaryLine))
        return false;
    m_lineSearch = std::max(m_lineSearch, m_boundaryLine + kDelimiterLength);
    if (!FindText(kLineEnd, kLineEndLength, m_lineSearch))
        return false;
    m_boundaryLength = m_lineSearch - m_boundaryLine - kDelimiterLength;
    return true;
}

bool MIMEParser::FindPartEnd(uint32_t& position) const {
    const uint32_t size = kDelimiterLength + m_boundaryLength;
    // The boundary's own line is what every end is compared with, delimiter included.
    return FindText(reinterpret_cast<const char*>(data.get() + m_boundaryLine), size, position);
}

void MIMEParser::Parse() {
    parts.clear();
    if (!m_boundaryKnown) {
        m_boundaryKnown = FindBoundary();
        if (!m_boundaryKnown)
            return;  // `dirty` stays: the next question looks again
        m_firstBody = m_boundaryLine;
    }
    dirty = false;
    if (!m_bodyKnown) {
        m_bodyKnown = FindText(kHeadersEnd, kHeadersEndLength, m_firstBody);
        if (!m_bodyKnown)
            return;
        m_firstBody += kHeadersEndLength;
        m_endSearch = m_firstBody;
    }
    if (!FindPartEnd(m_endSearch))
        return;
    CollectParts();
    // The next parse starts at the last boundary and learns its text there anew.
    m_boundaryKnown = false;
    m_bodyKnown = false;
    m_boundaryLine = scanPosition;
    m_lineSearch = 0;
}

/// Takes every body up to the last boundary, the first body's end being known. The search for
/// bodies goes on inside a body that has been found: deliberate, see the class. Bodies before one
/// boundary share their end, which is searched for once.
void MIMEParser::CollectParts() {
    uint32_t body = m_firstBody;
    uint32_t end = m_endSearch;
    for (;;) {
        parts.push_back(ByteRange(body, int64_t{end} - body));
        scanPosition = end;
        uint32_t position = body - kHeadersEndLength + 1;
        if (!FindText(kHeadersEnd, kHeadersEndLength, position))
            return;
        body = position + kHeadersEndLength;
        if (body <= end)
            continue;
        end = body;
        if (!FindPartEnd(end))
            return;
    }
}
