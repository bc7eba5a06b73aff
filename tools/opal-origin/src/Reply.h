#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "opal-origin/Fault.h"
#include "opal-origin/Origin.h"
#include "opal-origin/src/Content.h"

namespace opal::origin {

/// What a reply depends on.
struct RequestInfo {
    std::string method;
    std::string path;  ///< empty: the request was not understood, 400
    std::vector<ByteRange> ranges;
    bool keepAlive = true;
};

/// A reply ready to be sent: the head as text, the body as a list of what it is made of.
///
/// Threading: one thread.
class Reply {
  public:
    Reply() = default;
    /// The reply to a request, the fault's effects included; source: the file, null if none.
    Reply(const RequestInfo& request, std::shared_ptr<const Source> source, const Fault& fault,
          const std::string& boundary);

    int StatusCode() const { return m_status; }
    bool KeepAlive() const { return m_keepAlive; }
    const std::string& Head() const { return m_head; }
    /// Bytes of body to send in all, which is not always what the head says.
    int64_t BodyLength() const { return m_bodyLength; }

    /// Appends the next bytes of the body, up to maxBytes. False if the file gives less than it
    /// had when the reply was made.
    [[nodiscard]] bool Append(size_t maxBytes, std::vector<char>* pChunk);

  private:
    using Headers = std::vector<std::pair<std::string, std::string>>;
    struct Segment {
        std::string text;  // sent if there is no source
        std::shared_ptr<const Source> source;
        int64_t offset;
        int64_t length;
    };
    void Text(const std::string& text);
    void Part(const std::shared_ptr<const Source>& source, int64_t offset, int64_t length);
    void FileBody(const RequestInfo& request, const std::shared_ptr<const Source>& source,
                  const std::string& boundary, Headers* pHeaders);
    void WriteHead(const Headers& headers, const Fault& fault);

    int m_status = 0;
    bool m_keepAlive = false;
    std::string m_head;
    std::vector<Segment> m_segments;
    int64_t m_bodyLength = 0;
    size_t m_segment = 0;
    int64_t m_segmentDone = 0;
};

}  // namespace opal::origin
