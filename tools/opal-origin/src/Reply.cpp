#include "opal-origin/src/Reply.h"

#include <algorithm>
#include <ostream>  // the Boost headers need the whole stream, and do not include it
#include <utility>

#include <boost/beast/core/string.hpp>
#include <boost/beast/http/status.hpp>

#include "opal-origin/src/ByteRanges.h"

namespace opal::origin {
namespace {

using Headers = std::vector<std::pair<std::string, std::string>>;

std::string Reason(int status) {
    const auto reason = boost::beast::http::obsolete_reason(
        boost::beast::http::int_to_status(static_cast<unsigned>(status)));
    return std::string(reason.data(), reason.size());
}

std::string ContentRange(const Span& span, int64_t size) {
    return "bytes " + std::to_string(span.offset) + "-" +
           std::to_string(span.offset + span.length - 1) + "/" + std::to_string(size);
}

void Erase(Headers* pHeaders, const std::string& name) {
    pHeaders->erase(std::remove_if(pHeaders->begin(), pHeaders->end(),
                                   [&name](const auto& header) {
                                       return boost::beast::iequals(header.first, name);
                                   }),
                    pHeaders->end());
}

bool Has(const Headers& headers, const std::string& name) {
    return std::any_of(headers.begin(), headers.end(), [&name](const auto& header) {
        return boost::beast::iequals(header.first, name);
    });
}

// The status that the request gets without a fault and before its ranges are looked at.
int PlainStatus(const RequestInfo& request, bool found) {
    if (request.path.empty())
        return 400;
    if (request.method != "GET" && request.method != "HEAD")
        return 405;
    return found ? 200 : 404;
}

}  // namespace

Reply::Reply(const RequestInfo& request, std::shared_ptr<const Source> source, const Fault& fault,
             const std::string& boundary)
    : m_status(PlainStatus(request, source != nullptr)),
      m_keepAlive(request.keepAlive && !fault.closeAfter) {
    Headers headers{{"Server", "opal-origin"}, {"Accept-Ranges", "bytes"}};
    const int redirect = fault.location.empty() ? 0 : 302;
    const int forced = fault.status != 0 ? fault.status : redirect;
    const bool isFile = m_status == 200;
    if (m_status == 405)
        headers.emplace_back("Allow", "GET, HEAD");
    if (forced != 0 || !isFile || fault.body) {
        m_status = forced != 0 ? forced : m_status;
        headers.emplace_back("Content-Type", "text/plain");
        Text(fault.body ? *fault.body : Reason(m_status));
    } else {
        RequestInfo asked = request;
        if (fault.ignoreRange || request.method != "GET") {  // ranges have a meaning for GET only
            asked.ranges.clear();
        }
        FileBody(asked, source, boundary, &headers);
    }
    if (!fault.location.empty())
        headers.emplace_back("Location", fault.location);
    headers.emplace_back("Content-Length", std::to_string(m_bodyLength));
    headers.emplace_back("Connection", m_keepAlive ? "keep-alive" : "close");
    if (fault.extraBytes > 0)
        Part(MakeGeneratedSource(fault.extraBytes), 0, fault.extraBytes);
    if (request.method == "HEAD" || m_status == 204 || m_status == 304) {
        m_segments.clear();
        m_bodyLength = 0;
    }
    WriteHead(headers, fault);
}

void Reply::Text(const std::string& text) {
    if (!text.empty()) {
        m_segments.push_back({text, nullptr, 0, static_cast<int64_t>(text.size())});
        m_bodyLength += static_cast<int64_t>(text.size());
    }
}

void Reply::Part(const std::shared_ptr<const Source>& source, int64_t offset, int64_t length) {
    if (length > 0) {
        m_segments.push_back({std::string(), source, offset, length});
        m_bodyLength += length;
    }
}

void Reply::FileBody(const RequestInfo& request, const std::shared_ptr<const Source>& source,
                     const std::string& boundary, Headers* pHeaders) {
    const int64_t size = source->Size();
    const std::string type = ContentType(request.path);
    if (request.ranges.empty()) {
        pHeaders->emplace_back("Content-Type", type);
        Part(source, 0, size);
        return;
    }
    const std::vector<Span> spans = ResolveRanges(request.ranges, size);
    if (spans.empty()) {
        m_status = 416;
        pHeaders->emplace_back("Content-Range", "bytes */" + std::to_string(size));
        pHeaders->emplace_back("Content-Type", "text/plain");
        Text(Reason(m_status));
        return;
    }
    m_status = 206;
    if (spans.size() == 1) {
        pHeaders->emplace_back("Content-Type", type);
        pHeaders->emplace_back("Content-Range", ContentRange(spans[0], size));
        Part(source, spans[0].offset, spans[0].length);
        return;
    }
    pHeaders->emplace_back("Content-Type", "multipart/byteranges; boundary=" + boundary);
    for (const Span& span : spans) {
        Text("\r\n--" + boundary + "\r\nContent-Type: " + type +
             "\r\nContent-Range: " + ContentRange(span, size) + "\r\n\r\n");
        Part(source, span.offset, span.length);
    }
    Text("\r\n--" + boundary + "--\r\n");
}

void Reply::WriteHead(const Headers& planned, const Fault& fault) {
    Headers headers = planned;
    for (const auto& [name, value] : fault.setHeaders)
        Erase(&headers, name);
    headers.insert(headers.end(), fault.setHeaders.begin(), fault.setHeaders.end());
    for (const std::string& name : fault.dropHeaders)
        Erase(&headers, name);
    // Without a length the end of the connection is the end of the body.
    m_keepAlive = m_keepAlive && (m_bodyLength == 0 || Has(headers, "Content-Length"));
    m_head = "HTTP/1.1 " + std::to_string(m_status) + " " + Reason(m_status) + "\r\n";
    for (const auto& [name, value] : headers)
        m_head += name + ": " + value + "\r\n";
    m_head += "\r\n";
}

bool Reply::Append(size_t maxBytes, std::vector<char>* pChunk) {
    while (maxBytes > 0 && m_segment < m_segments.size()) {
        const Segment& segment = m_segments[m_segment];
        const size_t length = static_cast<size_t>(
            std::min<int64_t>(static_cast<int64_t>(maxBytes), segment.length - m_segmentDone));
        if (!segment.source) {
            pChunk->insert(pChunk->end(), segment.text.begin() + m_segmentDone,
                           segment.text.begin() + m_segmentDone + static_cast<int64_t>(length));
        } else {
            const size_t old = pChunk->size();
            pChunk->resize(old + length);
            if (segment.source->Read(segment.offset + m_segmentDone, pChunk->data() + old,
                                     length) != length)
                return false;
        }
        maxBytes -= length;
        m_segmentDone += static_cast<int64_t>(length);
        if (m_segmentDone == segment.length) {
            ++m_segment;
            m_segmentDone = 0;
        }
    }
    return true;
}

}  // namespace opal::origin
