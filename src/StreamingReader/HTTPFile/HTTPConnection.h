#pragma once

#include <boost/noncopyable.hpp>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>

namespace opal {

class StopSignal;

/// How long each part of a service call may take, in milliseconds.
struct ServiceTimeouts {
    int64_t connectMs = 5000;
    int64_t sendMs = 5000;
    int64_t receiveMs = 5000;  ///< the whole reply
};

/// The connection of a service call: bytes out, bytes in, over TLS for an "https://" URL.
///
/// Threading: one call at a time. Every operation is bounded in time, and a raised signal ends it
/// within a few slices.
/// Ownership: the signal, which may be null, is not owned.
class IServiceConnection : boost::noncopyable {
  public:
    enum class Result { kConnected, kFailed, kTlsFailed };

    virtual ~IServiceConnection() = default;
    /// Connects anew; an earlier connection is closed.
    virtual Result Connect(const std::string& url, const StopSignal* stop) = 0;
    /// False when not all of it went out.
    virtual bool Send(const char* bytes, size_t size) = 0;
    /// How many bytes came, `size` at most; 0 at the end of the reply, its time or the connection.
    virtual size_t Receive(char* bytes, size_t size) = 0;
    virtual void Close() = 0;
    /// Sets everything up anew, what is known of TLS sessions and authorities included. False when
    /// that is not possible.
    virtual bool Refresh() = 0;
};

/// IServiceConnection over libcurl.
class HTTPConnection : public IServiceConnection {
  public:
    explicit HTTPConnection(const ServiceTimeouts& timeouts);
    ~HTTPConnection() override;

    Result Connect(const std::string& url, const StopSignal* stop) override;
    bool Send(const char* bytes, size_t size) override;
    size_t Receive(char* bytes, size_t size) override;
    void Close() override;
    bool Refresh() override;

  private:
    class Handles;
    bool WaitForSocket(short events);

    const ServiceTimeouts m_timeouts;
    const StopSignal* m_stop = nullptr;
    std::unique_ptr<Handles> m_handles;
    int64_t m_receiveUntilMs = -1;  ///< -1: nothing was received yet
    int m_idleWaits = 0;            ///< since something went out or came in
};

}  // namespace opal
