#pragma once

#include <condition_variable>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "Common/ObjectFactory.h"
#include "StreamingReader/HTTPFile/IHTTPFile.h"

namespace opal::test {

/// One Open or one read at a FakeHTTPServer.
struct FakeRequest {
    std::string url;
    bool isOpen = false;
    std::string ranges;  ///< "0-99,500-549"; empty for an Open
    OPALError result = OPAL_ERROR_NOT_YET;
};

/// What happens to the requests that match. The first rule in the order of adding that matches a
/// request strikes it, and no other. In this order: `bytesFirst` bytes are delivered, `action`
/// runs, the request is held, then it fails or delivers the rest.
struct FakeRule {
    enum class Kind { Any, Open, Read };

    // Which requests.
    std::string url;  ///< empty: every one
    Kind kind = Kind::Any;
    int skip = 0;    ///< this many matching requests pass first
    int count = -1;  ///< strikes this often; -1: always

    // The effect.
    int64_t bytesFirst = 0;
    std::function<void()> action;  ///< on the reading thread without a lock, e.g. to move a clock
    bool hold = false;             ///< until Release, cancelled, stopped or closed
    OPALError result = OPAL_OK;    ///< other than 0: fails with it

    static FakeRule Fail(OPALError code, const std::string& url = {}, Kind kind = Kind::Any) {
        return {url, kind, 0, -1, 0, {}, false, code};
    }
    static FakeRule Hold(const std::string& url = {}, Kind kind = Kind::Any) {
        return {url, kind, 0, -1, 0, {}, true, OPAL_OK};
    }
};

/// A server in memory: files by URL, rules, and a log of the requests, shared by the FakeHTTPFiles
/// made from it.
///
/// Threading: any operation from any thread. WaitForHeld alone blocks, within its time.
class FakeHTTPServer {
  public:
    void AddFile(const std::string& url, std::string bytes);
    /// An id that is never 0.
    uint64_t AddRule(const FakeRule& rule);
    /// The rule goes, and what it holds goes on.
    void Release(uint64_t id);
    [[nodiscard]] bool WaitForHeld(uint64_t id, size_t n, int64_t timeoutMs);
    /// In the order of arrival.
    std::vector<FakeRequest> Log() const;
    /// The ranges of each read of `url`, or of all files.
    std::vector<std::string> Reads(const std::string& url = {}) const;
    void ClearLog();
    size_t OpenFiles() const;

  private:
    friend class FakeHTTPFile;
    struct ActiveRule : FakeRule {
        size_t held = 0;
        bool released = false;
    };

    /// Logs the request and takes the rule that strikes it, or one without effect. The request
    /// counts as a match for all the rules that precede it.
    std::shared_ptr<ActiveRule> Strike(const std::shared_ptr<FakeRequest>& request);

    // One mutex for the server and all its files; `m_changed` tells every wait to look again.
    mutable std::mutex m_mutex;
    std::condition_variable m_changed;
    std::map<std::string, std::shared_ptr<const std::string>> m_files;
    std::map<uint64_t, std::shared_ptr<ActiveRule>> m_rules;
    std::vector<std::shared_ptr<FakeRequest>> m_log;
    uint64_t m_lastId = 0;
    size_t m_openFiles = 0;
};

/// A blocking IHTTPFile on the server, with the results, waits and cancellation of the real one. A
/// missing file fails its Open with -12; only "http://" URLs are accepted.
IHTTPFile* NewFakeHTTPFile(const std::shared_ptr<FakeHTTPServer>& server);

/// Puts the server in front of the object factory's list: every file made from now on reads from
/// it, blocking. ObjectFactory::Instance().Reset() takes it out again.
void RegisterFakeHTTP(const std::shared_ptr<FakeHTTPServer>& server);

}  // namespace opal::test
