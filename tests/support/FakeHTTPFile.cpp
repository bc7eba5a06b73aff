#include "support/FakeHTTPFile.h"

#include <algorithm>
#include <chrono>
#include <list>
#include <utility>

#include "StreamingReader/HTTPFile/HTTPRequestInternal.h"

namespace opal::test {
namespace {

/// The reply's body as a server sends it.
std::string Reply(const std::string& bytes, const std::vector<ByteRange>& ranges) {
    const auto slice = [&bytes](const ByteRange& range) {
        return bytes.substr(static_cast<size_t>(range.offset), static_cast<size_t>(range.length));
    };
    if (ranges.size() == 1)
        return slice(ranges[0]);
    const std::string boundary = "\r\n--FakeServerBoundary";
    std::string reply;
    for (const ByteRange& range : ranges)
        reply += boundary + "\r\nContent-Type: video/x-matroska\r\n\r\n" + slice(range);
    return reply + boundary + "--\r\n";
}

}  // namespace

void FakeHTTPServer::AddFile(const std::string& url, std::string bytes) {
    std::lock_guard<std::mutex> lock(m_mutex);
    m_files[url] = std::make_shared<const std::string>(std::move(bytes));
}

uint64_t FakeHTTPServer::AddRule(const FakeRule& rule) {
    std::lock_guard<std::mutex> lock(m_mutex);
    m_rules[++m_lastId] = std::make_shared<ActiveRule>(ActiveRule{rule});
    return m_lastId;
}

void FakeHTTPServer::Release(uint64_t id) {
    std::lock_guard<std::mutex> lock(m_mutex);
    const auto rule = m_rules.find(id);
    if (rule == m_rules.end())
        return;
    rule->second->released = true;
    m_rules.erase(rule);
    m_changed.notify_all();
}

bool FakeHTTPServer::WaitForHeld(uint64_t id, size_t n, int64_t timeoutMs) {
    std::unique_lock<std::mutex> lock(m_mutex);
    return m_changed.wait_for(lock, std::chrono::milliseconds(timeoutMs),
                              [&] { return m_rules.at(id)->held >= n; });
}

std::vector<FakeRequest> FakeHTTPServer::Log() const {
    std::lock_guard<std::mutex> lock(m_mutex);
    std::vector<FakeRequest> log;
    for (const auto& request : m_log)
        log.push_back(*request);
    return log;
}

std::vector<std::string> FakeHTTPServer::Reads(const std::string& url) const {
    std::vector<std::string> reads;
    for (const FakeRequest& request : Log()) {
        if (!request.isOpen && (url.empty() || request.url == url))
            reads.push_back(request.ranges);
    }
    return reads;
}

void FakeHTTPServer::ClearLog() {
    std::lock_guard<std::mutex> lock(m_mutex);
    m_log.clear();
}

size_t FakeHTTPServer::OpenFiles() const {
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_openFiles;
}

std::shared_ptr<FakeHTTPServer::ActiveRule> FakeHTTPServer::Strike(
    const std::shared_ptr<FakeRequest>& request) {
    m_log.push_back(request);
    m_changed.notify_all();
    for (const auto& [id, rule] : m_rules) {
        const bool isOfKind = rule->kind == FakeRule::Kind::Any ||
                              (rule->kind == FakeRule::Kind::Open) == request->isOpen;
        if (!isOfKind || (!rule->url.empty() && rule->url != request->url) || rule->count == 0)
            continue;
        if (rule->skip > 0) {
            --rule->skip;
            continue;
        }
        if (rule->count > 0)
            --rule->count;
        return rule;
    }
    return std::make_shared<ActiveRule>();
}

class FakeHTTPFile : public IHTTPFile {
  public:
    explicit FakeHTTPFile(const std::shared_ptr<FakeHTTPServer>& server) : m_server(server) {}
    ~FakeHTTPFile() override { (void)Close(); }

    OPALError Open(const std::string& url) override {
        if (url.compare(0, 7, "http://") != 0 && url.compare(0, 7, "file://") != 0)
            return OPAL_ERROR_INVALID_ARGUMENT;
        Lock lock = Turn(false);
        if (m_bytes || IsRaised(m_stop))
            return m_bytes ? OPAL_ERROR_NOT_READY : OPAL_ERROR_CANCELLED;
        const Busy opening(*this, m_opening);
        const auto request = std::make_shared<FakeRequest>(FakeRequest{url, true, {}});
        OPALError result = Suffer(lock, *m_server->Strike(request));
        const auto found = m_server->m_files.find(url);
        if (result == OPAL_OK && found == m_server->m_files.end())
            result = OPAL_ERROR_HTTP_CLIENT;
        else if (result == OPAL_OK && found->second->empty())
            result = OPAL_ERROR_GENERAL;
        if (result == OPAL_OK) {
            m_bytes = found->second;
            m_url = url;
            ++m_server->m_openFiles;
        }
        return request->result = result;
    }

    OPALError GetSize(int64_t& size) override {
        const Lock lock = Turn(false);
        size = Status() == OPAL_OK ? static_cast<int64_t>(m_bytes->size()) : 0;
        return Status();
    }

    OPALError RequestRange(int64_t offset, int64_t length, HTTPRequestNotify* notify) override {
        if (length < 0 && offset >= 0) {
            int64_t size = 0;
            (void)GetSize(size);
            length = size - offset;
        }
        return RequestRanges({ByteRange(offset, length)}, notify);
    }

    OPALError RequestRanges(const std::vector<ByteRange>& ranges,
                            HTTPRequestNotify* notify) override {
        Lock lock = Turn(true);
        OPALError result = Status() == OPAL_OK ? CheckRanges(ranges) : Status();
        if (result != OPAL_OK)
            return result;
        const Busy reading(*this, m_reading);
        m_pending.emplace_back(ranges, notify);
        m_pending.front().MarkStart();
        const auto request = std::make_shared<FakeRequest>(
            FakeRequest{m_url, false, m_pending.front().BuildRangeString()});
        const auto rule = m_server->Strike(request);

        const std::string reply = Reply(*m_bytes, ranges);
        const size_t first = std::min(reply.size(), static_cast<size_t>(rule->bytesFirst));
        m_inFlight = static_cast<int>(first);
        (void)m_pending.front().Write(reply.data(), first);
        result = request->result = Suffer(lock, *rule);
        m_inFlight = 0;
        m_cancelled = false;
        if (result == OPAL_OK) {
            (void)m_pending.front().Write(reply.data() + first, reply.size() - first);
            m_pending.front().MarkEnd();
            m_completed.splice(m_completed.end(), m_pending);
            HTTPRequestInternal numbers;
            numbers.Assign(m_completed.back(), false);
            lock.unlock();  // the object told may look at the server, though not at this file
            numbers.Notify();
            lock.lock();
        }
        return result;
    }

    OPALError GetCompletedRequest(HTTPRequest& request, bool peek) override {
        request.Reset();
        const Lock lock = Turn(false);
        if (Status() != OPAL_OK)
            return Status();
        if (!m_completed.empty()) {
            request.Assign(m_completed.front(), !peek);
            if (!peek)
                m_completed.pop_front();
            return OPAL_OK;
        }
        if (m_pending.empty() || m_cancelled)
            return OPAL_ERROR_OUT_OF_RANGE;
        request.Assign(m_pending.front(), false);
        return OPAL_ERROR_NOT_YET;
    }

    OPALError CancelRequests(bool cancelInFlight, bool clearCompleted) override {
        const Lock lock = Turn(false);
        if (Status() != OPAL_OK)
            return Status();
        m_cancelled = m_cancelled || (cancelInFlight && !m_pending.empty());
        if (clearCompleted)
            m_completed.clear();
        m_server->m_changed.notify_all();
        return OPAL_OK;
    }

    OPALError GetBytesInFlight(int& bytes) override {
        const Lock lock(m_server->m_mutex);
        bytes = m_inFlight;
        return OPAL_OK;
    }

    OPALError Close() override {
        Lock lock(m_server->m_mutex);
        ++m_closers;
        m_server->m_changed.notify_all();
        lock.unlock();
        lock = Turn(true);
        m_server->m_openFiles -= m_bytes ? 1 : 0;
        m_bytes.reset();
        m_completed.clear();
        --m_closers;
        m_server->m_changed.notify_all();
        return OPAL_OK;
    }

    void SetStopSignal(const StopSignal* signal) override { m_stop = signal; }

  private:
    using Lock = std::unique_lock<std::mutex>;

    /// An Open or a read that runs, with the lock held where it ends; it may end by an exception.
    class Busy {
      public:
        Busy(FakeHTTPFile& file, bool& flag) : m_file(file), m_flag(flag) { m_flag = true; }
        ~Busy() {
            m_file.m_pending.clear();
            m_flag = false;
            m_file.m_server->m_changed.notify_all();
        }
        Busy(const Busy&) = delete;
        Busy& operator=(const Busy&) = delete;

      private:
        FakeHTTPFile& m_file;
        bool& m_flag;
    };

    /// Once neither an Open nor, for a read, another read runs.
    Lock Turn(bool alsoReads) const {
        Lock lock(m_server->m_mutex);
        m_server->m_changed.wait(lock, [&] { return !m_opening && !(alsoReads && m_reading); });
        return lock;
    }

    OPALError Status() const {
        if (!m_bytes)
            return OPAL_ERROR_NOT_READY;
        if (m_closers > 0)
            return OPAL_ERROR_TERMINATED;
        return IsRaised(m_stop) ? OPAL_ERROR_CANCELLED : OPAL_OK;
    }

    /// What ends the Open or read that runs.
    OPALError Ending() const {
        if (m_closers > 0 && !m_cancelled)
            return OPAL_ERROR_TERMINATED;
        return m_cancelled || IsRaised(m_stop) ? OPAL_ERROR_CANCELLED : OPAL_OK;
    }

    OPALError CheckRanges(const std::vector<ByteRange>& ranges) const {
        for (const ByteRange& range : ranges) {
            if (range.offset >= static_cast<int64_t>(m_bytes->size()))
                return OPAL_ERROR_OUT_OF_RANGE;
            if (range.offset < 0 || range.length <= 0 || range.length > INT64_MAX - range.offset)
                return OPAL_ERROR_INVALID_ARGUMENT;
        }
        return ranges.empty() ? OPAL_ERROR_INVALID_ARGUMENT : OPAL_OK;
    }

    /// Applies the rule but for its bytes.
    OPALError Suffer(Lock& lock, FakeHTTPServer::ActiveRule& rule) {
        if (rule.action) {
            lock.unlock();
            rule.action();
            lock.lock();
        }
        if (rule.hold) {
            ++rule.held;
            m_server->m_changed.notify_all();
            // Nobody announces that the stop signal is raised.
            while (Ending() == OPAL_OK && !rule.released)
                m_server->m_changed.wait_for(lock, std::chrono::milliseconds(2));
            --rule.held;
        }
        return Ending() != OPAL_OK ? Ending() : rule.result;
    }

    // All under the server's mutex.
    const std::shared_ptr<FakeHTTPServer> m_server;
    std::shared_ptr<const std::string> m_bytes;  ///< null: not open
    std::string m_url;
    bool m_opening = false;
    bool m_reading = false;
    bool m_cancelled = false;
    std::atomic<const StopSignal*> m_stop{nullptr};
    int m_closers = 0;
    int m_inFlight = 0;
    std::list<HTTPRequestInternal> m_pending;
    std::list<HTTPRequestInternal> m_completed;
};

IHTTPFile* NewFakeHTTPFile(const std::shared_ptr<FakeHTTPServer>& server) {
    return new FakeHTTPFile(server);
}

void RegisterFakeHTTP(const std::shared_ptr<FakeHTTPServer>& server) {
    struct FakeHTTPFileObject : HTTPFileObject {
        bool Accepts(int kind) const override { return kind == 0; }
        IHTTPFile* Create(bool) override { return new FakeHTTPFile(files); }
        std::shared_ptr<FakeHTTPServer> files;
    };
    const boost::shared_ptr<FakeHTTPFileObject> object(new FakeHTTPFileObject);
    object->files = server;
    ObjectFactory::Instance().Register(object, true);
}

}  // namespace opal::test
