#include "support/FakeHTTPFile.h"

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <list>
#include <map>
#include <mutex>
#include <utility>

#include "StreamingReader/HTTPFile/HTTPRequestInternal.h"

namespace opal::test {
namespace {

using Lock = std::unique_lock<std::mutex>;
using Bytes = std::shared_ptr<const std::string>;

std::string Slice(const std::string& bytes, const ByteRange& range) {
    return bytes.substr(static_cast<size_t>(range.offset), static_cast<size_t>(range.length));
}

/// The reply's body as a server sends it.
std::string Reply(const std::string& bytes, const std::vector<ByteRange>& ranges) {
    if (ranges.size() == 1)
        return Slice(bytes, ranges[0]);
    const std::string boundary = "\r\n--FakeServerBoundary";
    std::string reply;
    for (const ByteRange& range : ranges)
        reply += boundary + "\r\nContent-Type: video/x-matroska\r\n\r\n" + Slice(bytes, range);
    return reply + boundary + "--\r\n";
}

}  // namespace

std::string FakeRequest::RangeText() const {
    return HTTPRequestInternal(ranges, nullptr).BuildRangeString();
}

FakeRule FakeRule::Fail(OPALError code, const std::string& url, Kind kind) {
    FakeRule rule;
    rule.url = url;
    rule.kind = kind;
    rule.result = code;
    return rule;
}

FakeRule FakeRule::Hold(const std::string& url, Kind kind) {
    FakeRule rule;
    rule.url = url;
    rule.kind = kind;
    rule.hold = true;
    return rule;
}

/// One mutex for the server and all its files; `changed` tells every wait to look again.
class FakeHTTPServer::Impl {
  public:
    struct ActiveRule {
        uint64_t id = 0;
        FakeRule rule;
        size_t held = 0;
    };

    /// The rule that strikes the request, which counts as a match for all that precede it.
    std::shared_ptr<ActiveRule> Strike(const FakeRequest& request) {
        const FakeRule::Kind kind = request.isOpen ? FakeRule::Kind::Open : FakeRule::Kind::Read;
        for (const auto& active : rules) {
            FakeRule& rule = active->rule;
            if ((!rule.url.empty() && rule.url != request.url) ||
                (rule.kind != FakeRule::Kind::Any && rule.kind != kind) || rule.count == 0)
                continue;
            if (rule.offset >= 0 &&
                (request.ranges.empty() || request.ranges[0].offset != rule.offset))
                continue;
            if (rule.skip > 0) {
                --rule.skip;
                continue;
            }
            if (rule.count > 0)
                --rule.count;
            return active;
        }
        return {};
    }

    bool IsActive(uint64_t id) const {
        return std::any_of(rules.begin(), rules.end(),
                           [id](const auto& active) { return active->id == id; });
    }

    template <typename Predicate>
    bool Wait(int64_t timeoutMs, Predicate predicate) {
        Lock lock(mutex);
        return changed.wait_for(lock, std::chrono::milliseconds(timeoutMs), predicate);
    }

    std::mutex mutex;
    std::condition_variable changed;
    std::map<std::string, Bytes> files;
    std::list<std::shared_ptr<ActiveRule>> rules;
    std::list<std::shared_ptr<FakeRequest>> log;
    uint64_t lastId = 0;
    size_t openFiles = 0;
};

FakeHTTPServer::FakeHTTPServer() : m_impl(new Impl) {}
FakeHTTPServer::~FakeHTTPServer() = default;

void FakeHTTPServer::AddFile(const std::string& url, std::string bytes) {
    Lock lock(m_impl->mutex);
    m_impl->files[url] = std::make_shared<const std::string>(std::move(bytes));
}

uint64_t FakeHTTPServer::AddRule(const FakeRule& rule) {
    Lock lock(m_impl->mutex);
    auto active = std::make_shared<Impl::ActiveRule>();
    active->id = ++m_impl->lastId;
    active->rule = rule;
    m_impl->rules.push_back(active);
    return active->id;
}

void FakeHTTPServer::Release(uint64_t id) {
    Lock lock(m_impl->mutex);
    m_impl->rules.remove_if([id](const auto& active) { return active->id == id; });
    m_impl->changed.notify_all();
}

bool FakeHTTPServer::WaitForHeld(uint64_t id, size_t n, int64_t timeoutMs) {
    return m_impl->Wait(timeoutMs, [&] {
        return std::any_of(m_impl->rules.begin(), m_impl->rules.end(), [&](const auto& active) {
            return active->id == id && active->held >= n;
        });
    });
}

bool FakeHTTPServer::WaitForRequests(size_t n, int64_t timeoutMs) {
    return m_impl->Wait(timeoutMs, [&] { return m_impl->log.size() >= n; });
}

std::vector<FakeRequest> FakeHTTPServer::Log() const {
    Lock lock(m_impl->mutex);
    std::vector<FakeRequest> log;
    for (const auto& request : m_impl->log)
        log.push_back(*request);
    return log;
}

std::vector<std::string> FakeHTTPServer::Reads(const std::string& url) const {
    std::vector<std::string> reads;
    for (const FakeRequest& request : Log()) {
        if (!request.isOpen && (url.empty() || request.url == url))
            reads.push_back(request.RangeText());
    }
    return reads;
}

void FakeHTTPServer::ClearLog() {
    Lock lock(m_impl->mutex);
    m_impl->log.clear();
}

size_t FakeHTTPServer::OpenFiles() const {
    Lock lock(m_impl->mutex);
    return m_impl->openFiles;
}

/// Everything under the server's mutex.
class FakeHTTPFile::Impl {
  public:
    explicit Impl(const std::shared_ptr<FakeHTTPServer>& fakeServer)
        : keepAlive(fakeServer), server(*fakeServer->m_impl) {}

    /// Waits until neither an Open nor, for a read, another read runs.
    void AwaitTurn(Lock& lock, bool alsoReads) {
        server.changed.wait(lock, [&] { return !opening && !(alsoReads && reading); });
    }

    OPALError Status() const {
        if (!open)
            return OPAL_ERROR_NOT_READY;
        if (closers > 0)
            return OPAL_ERROR_TERMINATED;
        return aborted ? OPAL_ERROR_CANCELLED : OPAL_OK;
    }

    /// What ends the Open or read that runs.
    OPALError Ending() const {
        if (cancelled)
            return OPAL_ERROR_CANCELLED;
        if (closers > 0)
            return OPAL_ERROR_TERMINATED;
        return aborted ? OPAL_ERROR_CANCELLED : OPAL_OK;
    }

    OPALError CheckRanges(const std::vector<ByteRange>& ranges) const {
        if (ranges.empty())
            return OPAL_ERROR_INVALID_ARGUMENT;
        for (const ByteRange& range : ranges) {
            if (range.offset < 0)
                return OPAL_ERROR_INVALID_ARGUMENT;
            if (range.offset >= static_cast<int64_t>(bytes->size()))
                return OPAL_ERROR_OUT_OF_RANGE;
            if (range.length <= 0 || range.length > INT64_MAX - range.offset)
                return OPAL_ERROR_INVALID_ARGUMENT;
        }
        return OPAL_OK;
    }

    /// Applies the rule but for its bytes.
    OPALError Suffer(Lock& lock, FakeHTTPServer::Impl::ActiveRule& active) {
        if (active.rule.action) {
            lock.unlock();
            active.rule.action();
            lock.lock();
        }
        if (active.rule.hold) {
            ++active.held;
            server.changed.notify_all();
            server.changed.wait(lock,
                                [&] { return Ending() != OPAL_OK || !server.IsActive(active.id); });
            --active.held;
        }
        return active.rule.result;
    }

    OPALError Deliver(const std::string& reply, size_t from, size_t to, FakeRequest& record) {
        HTTPRequestInternal& request = pending.front();
        if (to > from && request.Write(reply.data() + from, to - from) != OPAL_OK)
            return OPAL_ERROR_GENERAL;
        inFlight = static_cast<int>(to);
        record.bytes = request.GetBytesReceived();
        return OPAL_OK;
    }

    OPALError Transfer(Lock& lock, FakeRequest& record) {
        const std::string reply = Reply(*bytes, record.ranges);
        const auto rule = server.Strike(record);
        size_t delivered = 0;
        size_t end = reply.size();
        OPALError result = OPAL_OK;
        if (rule) {
            end -= std::min(end, static_cast<size_t>(rule->rule.bytesLeftOut));
            delivered = std::min(end, static_cast<size_t>(rule->rule.bytesFirst));
            result = Deliver(reply, 0, delivered, record);
            server.changed.notify_all();
            if (result == OPAL_OK)
                result = Suffer(lock, *rule);
        }
        if (Ending() != OPAL_OK)
            return Ending();
        return result == OPAL_OK ? Deliver(reply, delivered, end, record) : result;
    }

    const std::shared_ptr<FakeHTTPServer> keepAlive;
    FakeHTTPServer::Impl& server;
    Bytes bytes;
    std::string url;
    bool open = false;
    bool opening = false;
    bool reading = false;
    bool cancelled = false;
    bool aborted = false;
    int closers = 0;
    int inFlight = 0;
    std::list<HTTPRequestInternal> pending;
    std::list<HTTPRequestInternal> completed;
};

FakeHTTPFile::FakeHTTPFile(const std::shared_ptr<FakeHTTPServer>& server)
    : m_impl(new Impl(server)) {}

FakeHTTPFile::~FakeHTTPFile() {
    (void)Close();
}

OPALError FakeHTTPFile::Open(const std::string& url) {
    if (url.compare(0, 7, "http://") != 0)
        return OPAL_ERROR_INVALID_ARGUMENT;
    Impl& file = *m_impl;
    Lock lock(file.server.mutex);
    file.AwaitTurn(lock, false);
    if (file.open)
        return OPAL_ERROR_NOT_READY;
    if (file.aborted)
        return OPAL_ERROR_CANCELLED;
    file.opening = true;
    auto record = std::make_shared<FakeRequest>();
    record->url = url;
    record->isOpen = true;
    file.server.log.push_back(record);
    file.server.changed.notify_all();
    const auto rule = file.server.Strike(*record);
    OPALError result = rule ? file.Suffer(lock, *rule) : OPAL_OK;
    const auto found = file.server.files.find(url);
    if (file.Ending() != OPAL_OK)
        result = file.Ending();
    else if (result == OPAL_OK && found == file.server.files.end())
        result = OPAL_ERROR_HTTP_CLIENT;
    else if (result == OPAL_OK && found->second->empty())
        result = OPAL_ERROR_GENERAL;
    if (result == OPAL_OK) {
        file.bytes = found->second;
        file.url = url;
        file.open = true;
        ++file.server.openFiles;
    }
    record->result = result;
    record->ended = true;
    file.opening = false;
    file.server.changed.notify_all();
    return result;
}

OPALError FakeHTTPFile::GetSize(int64_t& size) {
    size = 0;
    Lock lock(m_impl->server.mutex);
    m_impl->AwaitTurn(lock, false);
    const OPALError status = m_impl->Status();
    if (status == OPAL_OK)
        size = static_cast<int64_t>(m_impl->bytes->size());
    return status;
}

OPALError FakeHTTPFile::RequestRange(int64_t offset, int64_t length, HTTPRequestNotify* notify) {
    if (length < 0 && offset >= 0) {
        int64_t size = 0;
        (void)GetSize(size);
        length = size - offset;
    }
    return RequestRanges({ByteRange(offset, length)}, notify);
}

OPALError FakeHTTPFile::RequestRanges(const std::vector<ByteRange>& ranges,
                                      HTTPRequestNotify* notify) {
    Impl& file = *m_impl;
    Lock lock(file.server.mutex);
    file.AwaitTurn(lock, true);
    OPALError result = file.Status();
    if (result == OPAL_OK)
        result = file.CheckRanges(ranges);
    if (result != OPAL_OK)
        return result;
    file.reading = true;
    file.pending.emplace_back(ranges, notify);
    file.pending.front().MarkStart();
    auto record = std::make_shared<FakeRequest>();
    record->url = file.url;
    record->ranges = ranges;
    file.server.log.push_back(record);
    file.server.changed.notify_all();

    result = file.Transfer(lock, *record);
    record->result = result;
    record->ended = true;
    file.inFlight = 0;
    file.cancelled = false;
    if (result == OPAL_OK) {
        file.pending.front().MarkEnd();
        file.completed.splice(file.completed.end(), file.pending, file.pending.begin());
        HTTPRequestInternal numbers;
        numbers.Assign(file.completed.back(), false);
        lock.unlock();  // the object told may look at the server, though not at this file
        numbers.Notify();
        lock.lock();
    }
    file.pending.clear();
    file.reading = false;
    file.server.changed.notify_all();
    return result;
}

OPALError FakeHTTPFile::GetCompletedRequest(HTTPRequest& request, bool peek) {
    request.Reset();
    Impl& file = *m_impl;
    Lock lock(file.server.mutex);
    file.AwaitTurn(lock, false);
    if (file.Status() != OPAL_OK)
        return file.Status();
    if (!file.completed.empty()) {
        request.Assign(file.completed.front(), !peek);
        if (!peek)
            file.completed.pop_front();
        return OPAL_OK;
    }
    if (file.pending.empty() || file.cancelled)
        return OPAL_ERROR_OUT_OF_RANGE;
    request.Assign(file.pending.front(), false);
    return OPAL_ERROR_NOT_YET;
}

OPALError FakeHTTPFile::CancelRequests(bool cancelInFlight, bool clearCompleted) {
    Impl& file = *m_impl;
    Lock lock(file.server.mutex);
    file.AwaitTurn(lock, false);
    if (file.Status() != OPAL_OK)
        return file.Status();
    if (cancelInFlight && !file.pending.empty())
        file.cancelled = true;
    if (clearCompleted)
        file.completed.clear();
    file.server.changed.notify_all();
    return OPAL_OK;
}

OPALError FakeHTTPFile::GetBytesInFlight(int& bytes) {
    Lock lock(m_impl->server.mutex);
    bytes = m_impl->inFlight;
    return OPAL_OK;
}

OPALError FakeHTTPFile::Close() {
    Impl& file = *m_impl;
    Lock lock(file.server.mutex);
    ++file.closers;
    file.server.changed.notify_all();
    file.AwaitTurn(lock, true);
    if (file.open)
        --file.server.openFiles;
    file.open = false;
    file.aborted = false;
    file.completed.clear();
    --file.closers;
    file.server.changed.notify_all();
    return OPAL_OK;
}

void FakeHTTPFile::Abort() {
    Lock lock(m_impl->server.mutex);
    m_impl->aborted = true;
    m_impl->server.changed.notify_all();
}

namespace {

class FakeHTTPFileObject : public HTTPFileObject {
  public:
    explicit FakeHTTPFileObject(const std::shared_ptr<FakeHTTPServer>& server) : m_server(server) {}
    bool Accepts(int kind) const override { return kind == 0; }
    IHTTPFile* Create(bool threaded) override {
        return threaded ? nullptr : new FakeHTTPFile(m_server);
    }

  private:
    const std::shared_ptr<FakeHTTPServer> m_server;
};

}  // namespace

void RegisterFakeHTTP(const std::shared_ptr<FakeHTTPServer>& server) {
    ObjectFactory::Instance().Register(
        boost::shared_ptr<HTTPFileObject>(new FakeHTTPFileObject(server)), true);
}

}  // namespace opal::test
