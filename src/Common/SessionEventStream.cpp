#include "Common/SessionEventStream.h"

#include "Common/Clock.h"

namespace opal {

std::atomic<SessionEventSink*> SessionEventStream::s_sink{nullptr};

int64_t SessionEventStream::NowUs() {
    static const boost::posix_time::ptime epoch(boost::gregorian::date(1970, 1, 1));
    return (opal::Now() - epoch).total_microseconds();
}

}  // namespace opal
