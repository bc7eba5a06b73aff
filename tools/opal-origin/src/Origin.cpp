#include "opal-origin/Origin.h"

#include <algorithm>
#include <cstdio>
#include <mutex>
#include <utility>

#include "opal-origin/src/Server.h"

namespace opal::origin {
namespace {

std::string WithSlash(const std::string& path) {
    return !path.empty() && path.front() == '/' ? path : "/" + path;
}

}  // namespace

class Origin::Impl {
  public:
    explicit Impl(const OriginOptions& originOptions)
        : options(originOptions), state(originOptions.maxLogRecords), port(originOptions.port) {}

    // Runs the action on the server's thread, if there is one.
    void Post(const std::function<void(Server&)>& action) {
        std::lock_guard<std::mutex> lock(mutex);
        if (server) {
            server->Post([pServer = server.get(), action] { action(*pServer); });
        }
    }

    const OriginOptions options;
    Content content;
    State state;
    mutable std::mutex mutex;        // guards the pointer and the port
    std::unique_ptr<Server> server;  // null while stopped
    uint16_t port;
};

Origin::Origin(const OriginOptions& options) : m_impl(std::make_unique<Impl>(options)) {}

Origin::~Origin() {
    Stop();
}

bool Origin::Start(std::string* pError) {
    std::string error;
    std::lock_guard<std::mutex> lock(m_impl->mutex);
    if (m_impl->server)
        return true;
    if (m_impl->content.OpenFolder(m_impl->options.folder, &error)) {
        try {
            m_impl->state.SetEpoch();
            m_impl->server = std::make_unique<Server>(m_impl->options, m_impl->port, m_impl->state,
                                                      m_impl->content);
            m_impl->port = m_impl->server->Port();
            return true;
        } catch (const std::exception& exception) {
            error = m_impl->options.address + ":" + std::to_string(m_impl->port) + ": " +
                    exception.what();
        }
    }
    if (pError != nullptr)
        *pError = error;
    return false;
}

void Origin::Stop() {
    std::unique_ptr<Server> server;
    {
        std::lock_guard<std::mutex> lock(m_impl->mutex);
        server = std::move(m_impl->server);
    }
}

uint16_t Origin::Port() const {
    std::lock_guard<std::mutex> lock(m_impl->mutex);
    return m_impl->port;
}

std::string Origin::Url(const std::string& path) const {
    const std::string& address = m_impl->options.address;
    const std::string host = address.find(':') == std::string::npos ? address : "[" + address + "]";
    return "http://" + host + ":" + std::to_string(Port()) + WithSlash(path);
}

void Origin::AddFile(const std::string& path, std::string bytes) {
    m_impl->content.Set(WithSlash(path), MakeMemorySource(std::move(bytes)));
}

void Origin::AddGeneratedFile(const std::string& path, int64_t size) {
    m_impl->content.Set(WithSlash(path), MakeGeneratedSource(std::max<int64_t>(size, 0)));
}

uint8_t Origin::GeneratedByte(int64_t offset) {
    const auto bits = static_cast<uint64_t>(offset);
    return static_cast<uint8_t>(bits ^ (bits >> 8) ^ (bits >> 16) ^ (bits >> 24));
}

void Origin::RemoveFile(const std::string& path) {
    m_impl->content.Remove(WithSlash(path));
}

void Origin::SetRate(int64_t bitsPerSecond) {
    SetRateScript(RateScript::Constant(bitsPerSecond));
}

void Origin::SetRateScript(const RateScript& script) {
    m_impl->state.SetScript(script);
    m_impl->Post([](Server& server) { server.PumpLink(); });
}

std::chrono::nanoseconds Origin::RateScriptTime() const {
    return m_impl->state.ScriptTime();
}

void Origin::SetLatency(int64_t milliseconds) {
    m_impl->state.SetLatency(milliseconds);
}

uint64_t Origin::AddFault(const Fault& fault) {
    return m_impl->state.AddFault(fault);
}

uint64_t Origin::Hold(const std::string& pattern) {
    return AddFault(Fault::HoldRequest().On(pattern));
}

void Origin::Resume(uint64_t faultId) {
    m_impl->Post([faultId](Server& server) { server.Resume(faultId); });
}

void Origin::Release(uint64_t faultId) {
    m_impl->state.RemoveFault(faultId);
    Resume(faultId);
}

void Origin::ClearFaults() {
    Release(0);
}

void Origin::DropConnections() {
    m_impl->Post([](Server& server) { server.DropConnections(); });
}

bool Origin::WaitForRequest(const std::string& pattern, size_t n, int64_t timeoutMs) {
    return m_impl->state.WaitForRequest(pattern, n, timeoutMs);
}

bool Origin::WaitForFinished(const std::string& pattern, size_t n, int64_t timeoutMs) {
    return m_impl->state.WaitForFinished(pattern, n, timeoutMs);
}

bool Origin::WaitForHeld(uint64_t faultId, size_t n, int64_t timeoutMs) {
    return m_impl->state.WaitForHeld(faultId, n, timeoutMs);
}

std::vector<RequestRecord> Origin::Log() const {
    return Log(std::string());
}

std::vector<RequestRecord> Origin::Log(const std::string& pattern) const {
    return m_impl->state.Log(pattern);
}

void Origin::ClearLog() {
    m_impl->state.ClearLog();
}

size_t Origin::ConnectionsAccepted() const {
    return m_impl->state.connectionsAccepted;
}

size_t Origin::ConnectionsOpen() const {
    return m_impl->state.connectionsOpen;
}

void Origin::SetObserver(std::function<void(const RequestRecord&)> observer) {
    m_impl->state.SetObserver(std::move(observer));
}

std::string FormatRecord(const RequestRecord& record) {
    char times[64];
    std::snprintf(times, sizeof times, "%.3f", static_cast<double>(record.timeMs) / 1000);
    std::string line = times;
    std::snprintf(times, sizeof times, "%.3f", static_cast<double>(record.durationMs) / 1000);
    line += " #" + std::to_string(record.connection);
    line += " " + (record.method.empty() ? std::string("-") : record.method);
    line += " " + (record.target.empty() ? std::string("-") : record.target);
    line += " " + (record.rangeText.empty() ? std::string("-") : record.rangeText);
    line += " " + std::to_string(record.status) + " " + std::to_string(record.bodyBytesSent);
    line += std::string(" ") + times + (record.complete ? " ok" : " cut");
    return line;
}

}  // namespace opal::origin
