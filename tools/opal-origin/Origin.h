#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "opal-origin/Fault.h"
#include "opal-origin/RateScript.h"

namespace opal::origin {

/// A range as it was asked for: "5-9" is {5, 9}, "5-" is {5, -1}, "-9" is {-1, 9}.
struct ByteRange {
    int64_t first = -1;
    int64_t last = -1;

    bool operator==(const ByteRange& other) const {
        return first == other.first && last == other.last;
    }
};

/// One line of the access log.
struct RequestRecord {
    uint64_t number = 0;      ///< from 1 in the order of arrival, over all connections
    int64_t timeMs = 0;       ///< arrival of the request's head, since the first Start()
    int64_t durationMs = 0;   ///< arrival to the end of the reply, so far if it has not ended
    uint64_t connection = 0;  ///< from 1 in the order of accepting
    std::string method;
    std::string target;             ///< path with query, as it was sent
    std::string path;               ///< without query, decoded; what patterns match
    std::string rangeText;          ///< "0-119,220-319"; empty without a Range header
    std::vector<ByteRange> ranges;  ///< empty without a Range header, or if it was not understood
    int status = 0;                 ///< 0 until the reply starts
    int64_t bodyBytesSent = 0;      ///< handed to the network
    uint64_t faultId = 0;           ///< the rule that struck; 0: none
    bool finished = false;          ///< the reply has ended, in whatever way
    bool complete = false;          ///< ... and all that was meant to be sent was sent
};

struct OriginOptions {
    std::string folder;  ///< served below "/"; empty: only the files added
    std::string address = "127.0.0.1";
    uint16_t port = 0;  ///< 0: any free one
    int64_t idleTimeoutMs = 75000;
    size_t maxLogRecords = 100000;  ///< beyond it the oldest go
};

/// A small HTTP/1.1 server for presentation folders with a link of scripted rate in front of it
/// and a script of faults: GET and HEAD, single and several ranges (multipart/byteranges in the
/// order asked for, "\r\n" before the first boundary), keep-alive.
///
/// Symbolic links below the folder are not followed, so nothing outside of it can be reached.
///
/// The link: all connections share one rate, which counts the bytes of heads and bodies. They
/// take turns with quanta of 5 ms (of a packet at least). Latency is the time from a request's
/// arrival to the first byte of its reply, and occupies no link.
///
/// Threading: one thread of its own from Start() to Stop(). Every operation may be called from any
/// thread at any time, but Start() and Stop() only from one at a time. The waits block until what
/// they wait for has come or the time is over; nothing else blocks, except Stop(), which joins.
/// The observer is called on the server's thread and must not call Stop().
///
/// Ownership and lifetime: the destructor stops. Folder files are opened for each request.
///
/// Units: bits per second, bytes, milliseconds.
///
/// Errors: Start() alone can fail, and says why.
class Origin {
  public:
    explicit Origin(const OriginOptions& options = OriginOptions());
    ~Origin();
    Origin(const Origin&) = delete;
    Origin& operator=(const Origin&) = delete;

    /// Listens and serves. After Stop() it may be called again, and listens on the same port.
    [[nodiscard]] bool Start(std::string* pError = nullptr);
    /// Closes the listener and cuts all connections; a connect is refused from now on.
    void Stop();

    uint16_t Port() const;                           ///< 0 before the first Start()
    std::string Url(const std::string& path) const;  ///< "http://127.0.0.1:PORT/path"

    // Content. The files added hide those of the folder.
    void AddFile(const std::string& path, std::string bytes);
    /// A file of any size whose byte at an offset is GeneratedByte(offset); takes no memory.
    void AddGeneratedFile(const std::string& path, int64_t size);
    /// No four bytes in a row are "\r\n\r\n" or "\r\n--".
    static uint8_t GeneratedByte(int64_t offset);
    void RemoveFile(const std::string& path);

    // The link.
    void SetRate(int64_t bitsPerSecond);  ///< 0 cuts the link; kUnlimited (at first) is no limit
    /// The script's time starts with the first request that comes after the call.
    void SetRateScript(const RateScript& script);
    /// For how long the script has run; negative: no request has come since it was set.
    std::chrono::nanoseconds RateScriptTime() const;
    void SetLatency(int64_t milliseconds);

    // Faults. An id is never 0 and never used twice.
    uint64_t AddFault(const Fault& fault);
    /// Holds every matching request before its reply: AddFault(Fault::HoldRequest().On(pattern)).
    uint64_t Hold(const std::string& pattern);
    void Resume(uint64_t faultId);   ///< what the rule (0: any) holds or stalls now goes on
    void Release(uint64_t faultId);  ///< the same, and the rule goes
    void ClearFaults();              ///< Release() for all rules
    /// Resets every connection there is now.
    void DropConnections();

    // What happened. True if it has come, false if the time was over.
    [[nodiscard]] bool WaitForRequest(const std::string& pattern, size_t n, int64_t timeoutMs);
    [[nodiscard]] bool WaitForFinished(const std::string& pattern, size_t n, int64_t timeoutMs);
    /// At least n requests are held or stalled by the rule at this moment.
    [[nodiscard]] bool WaitForHeld(uint64_t faultId, size_t n, int64_t timeoutMs);

    std::vector<RequestRecord> Log() const;  ///< in the order of arrival
    std::vector<RequestRecord> Log(const std::string& pattern) const;
    void ClearLog();  ///< numbers go on counting; requests still running are kept
    size_t ConnectionsAccepted() const;
    size_t ConnectionsOpen() const;
    /// Called with each record when its reply has ended.
    void SetObserver(std::function<void(const RequestRecord&)> observer);

  private:
    class Impl;
    std::unique_ptr<Impl> m_impl;
};

/// The access log's line, without the end of line:
/// time, connection, method, target, ranges or "-", status, body bytes, duration, outcome.
std::string FormatRecord(const RequestRecord& record);

}  // namespace opal::origin
