#include "opal-simulate/ProbedLink.h"

#include <algorithm>
#include <boost/make_shared.hpp>
#include <mutex>
#include <string>
#include <vector>

#include "Common/ObjectFactory.h"
#include "StreamingReader/HTTPFile/IHTTPFile.h"

namespace opal::simulate {
namespace {

thread_local ProbedLink* t_link = nullptr;

/// The file of level 0 as the probe sees it.
class ProbedFile : public IHTTPFile {
  public:
    OPALError Open(const std::string&) override {
        return t_link->TransferAlone({RequestPurpose::Size, OPAL_STREAM_VIDEO, 0, -1}, 0.0)
                   ? OPAL_OK
                   : OPAL_ERROR_TIMEOUT;
    }
    OPALError GetSize(int64_t& size) override {
        size = t_link->FileSize();
        return OPAL_OK;
    }
    OPALError RequestRange(int64_t offset, int64_t length, HTTPRequestNotify*) override {
        const int64_t available = std::max(int64_t{1}, t_link->FileSize() - offset);
        const auto bytes = static_cast<double>(std::min(length, available));
        return t_link->TransferAlone({RequestPurpose::Probe, OPAL_STREAM_VIDEO, 0, -1}, bytes)
                   ? OPAL_OK
                   : OPAL_ERROR_TIMEOUT;
    }
    OPALError RequestRanges(const std::vector<ByteRange>&, HTTPRequestNotify*) override {
        return OPAL_ERROR_NOT_READY;
    }
    OPALError GetCompletedRequest(HTTPRequest&, bool) override { return OPAL_OK; }
    OPALError CancelRequests(bool, bool) override { return OPAL_OK; }
    OPALError GetBytesInFlight(int& bytes) override {
        bytes = 0;
        return OPAL_OK;
    }
    OPALError Close() override { return OPAL_OK; }
    void SetStopSignal(const opal::StopSignal*) override {}
};

/// What the probe asks the object factory for.
class ProbedFileObject : public HTTPFileObject {
  public:
    /// Only on a thread that simulates: the library may play on others.
    bool Accepts(int) const override { return t_link != nullptr; }
    IHTTPFile* Create(bool) override { return new ProbedFile; }
};

}  // namespace

void ProbedLink::SetCurrent(ProbedLink* link) {
    t_link = link;
    static std::once_flag once;
    std::call_once(once, [] {
        ObjectFactory::Instance().Register(boost::make_shared<ProbedFileObject>(), true);
    });
}

}  // namespace opal::simulate
