#pragma once

#include <boost/shared_ptr.hpp>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "Common/ObjectFactory.h"
#include "StreamingReader/HTTPFile/IHTTPFile.h"

namespace opal::test {

/// One Open or one read at a FakeHTTPServer.
struct FakeRequest {
    std::string url;
    bool isOpen = false;
    std::vector<ByteRange> ranges;  ///< empty for an Open
    OPALError result = OPAL_ERROR_NOT_YET;
    uint64_t bytes = 0;  ///< delivered to the request
    bool ended = false;  ///< `result` and `bytes` are final

    /// "0-99,500-549".
    std::string RangeText() const;
};

/// What happens to the requests that match. The first rule in the order of adding that matches a
/// request strikes it, and no other. In this order: `bytesFirst` bytes are delivered, `action`
/// runs, the request is held, then it fails or delivers the rest.
struct FakeRule {
    enum class Kind { Any, Open, Read };

    // Which requests.
    std::string url;  ///< empty: every one
    Kind kind = Kind::Any;
    int64_t offset = -1;  ///< its first range starts here; -1: any
    int skip = 0;         ///< this many matching requests pass first
    int count = -1;       ///< strikes this often; -1: always

    // The effect.
    int64_t bytesFirst = 0;
    std::function<void()> action;  ///< on the reading thread without a lock, e.g. to move a clock
    bool hold = false;             ///< until Release, cancelled, aborted or closed
    OPALError result = OPAL_OK;    ///< other than 0: fails with it
    int64_t bytesLeftOut = 0;      ///< the reply ends so much early, with success

    static FakeRule Fail(OPALError code, const std::string& url = {}, Kind kind = Kind::Any);
    static FakeRule Hold(const std::string& url = {}, Kind kind = Kind::Any);
};

/// A server in memory: files by URL, rules, and a log of the requests, shared by the FakeHTTPFiles
/// made from it.
///
/// Threading: any operation from any thread. WaitForHeld and WaitForRequests alone block, within
/// their time.
class FakeHTTPServer {
  public:
    FakeHTTPServer();
    ~FakeHTTPServer();
    FakeHTTPServer(const FakeHTTPServer&) = delete;
    FakeHTTPServer& operator=(const FakeHTTPServer&) = delete;

    void AddFile(const std::string& url, std::string bytes);
    /// An id that is never 0.
    uint64_t AddRule(const FakeRule& rule);
    /// The rule goes, and what it holds goes on.
    void Release(uint64_t id);
    [[nodiscard]] bool WaitForHeld(uint64_t id, size_t n, int64_t timeoutMs);
    [[nodiscard]] bool WaitForRequests(size_t n, int64_t timeoutMs);
    /// In the order of arrival.
    std::vector<FakeRequest> Log() const;
    /// RangeText of the reads of `url`, or of all files.
    std::vector<std::string> Reads(const std::string& url = {}) const;
    void ClearLog();
    size_t OpenFiles() const;

  private:
    friend class FakeHTTPFile;
    class Impl;
    std::unique_ptr<Impl> m_impl;
};

/// A blocking IHTTPFile on a FakeHTTPServer, with the results, waits and cancellation of the real
/// one. A missing file fails its Open with -12; only "http://" URLs are accepted.
class FakeHTTPFile : public IHTTPFile {
  public:
    explicit FakeHTTPFile(const std::shared_ptr<FakeHTTPServer>& server);
    ~FakeHTTPFile() override;

    OPALError Open(const std::string& url) override;
    OPALError GetSize(int64_t& size) override;
    OPALError RequestRange(int64_t offset, int64_t length, HTTPRequestNotify* notify) override;
    OPALError RequestRanges(const std::vector<ByteRange>& ranges,
                            HTTPRequestNotify* notify) override;
    OPALError GetCompletedRequest(HTTPRequest& request, bool peek) override;
    OPALError CancelRequests(bool cancelInFlight, bool clearCompleted) override;
    OPALError GetBytesInFlight(int& bytes) override;
    OPALError Close() override;
    void Abort() override;

  private:
    class Impl;
    std::unique_ptr<Impl> m_impl;
};

/// Puts the server in front of the object factory's list: every blocking file made from now on
/// reads from it. ObjectFactory::Instance().Reset() takes it out again.
void RegisterFakeHTTP(const std::shared_ptr<FakeHTTPServer>& server);

}  // namespace opal::test
