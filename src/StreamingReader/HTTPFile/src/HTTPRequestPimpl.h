#pragma once

#include <boost/date_time/posix_time/posix_time_types.hpp>
#include <vector>

#include "Common/MemoryBuffer.h"
#include "StreamingReader/HTTPFile/HTTPRequest.h"
#include "StreamingReader/HTTPFile/MIMEParser.h"

class HTTPRequest::PIMPL {
  public:
    boost::posix_time::ptime startTime;
    boost::posix_time::ptime endTime;
    qutl::MemoryBuffer<unsigned char> data;
    uint64_t bytesReceived = 0;
    std::vector<ByteRange> ranges;
    uint64_t totalLength = 0;
    HTTPRequestNotify* notify = nullptr;
    MIMEParser mimeParser;  ///< for two or more ranges
};
