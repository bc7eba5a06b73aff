#pragma once

#include <curl/curl.h>

#include <atomic>
#include <boost/thread/condition_variable.hpp>
#include <boost/thread/mutex.hpp>
#include <boost/thread/thread.hpp>
#include <cstdint>
#include <list>
#include <string>
#include <vector>

#include "StreamingReader/HTTPFile/HTTPRequestInternal.h"
#include "StreamingReader/HTTPFile/IHTTPFile.h"

/// IHTTPFile over one libcurl easy handle, which keeps one connection alive between requests.
///
/// A reply's status counts only where it fails the transfer: a server that ignores the ranges and
/// sends the whole file is not detected, and what it sends beyond the request is dropped. There is
/// no retry.
///
/// Threading: as IHTTPFile. The worker of a threaded file runs from Open to Close, or to the first
/// failed transfer. `mutex` is released while a queued transfer runs, and held across the header
/// request of Open and across OnRequestComplete. `progressMutex` may be taken under `mutex`, never
/// the other way round.
/// Ownership and lifetime: as IHTTPFile; the destructor closes. No other call may run then.
class HTTPFile : public IHTTPFile {
  public:
    explicit HTTPFile(bool isThreaded);
    ~HTTPFile() override;

    OPALError Open(const std::string& location) override;
    OPALError GetSize(int64_t& size) override;
    OPALError RequestRange(int64_t offset, int64_t length, HTTPRequestNotify* notify) override;
    OPALError RequestRanges(const std::vector<ByteRange>& ranges,
                            HTTPRequestNotify* notify) override;
    OPALError GetCompletedRequest(HTTPRequest& request, bool peek) override;
    OPALError CancelRequests(bool cancelRunning, bool clearCompleted) override;
    OPALError GetBytesInFlight(int& bytes) override;
    OPALError Close() override;
    void Abort() override;

  private:
    using Lock = boost::unique_lock<boost::mutex>;

    static int OnSocket(void* user, curl_socket_t socket, curlsocktype purpose);
    static size_t OnHeader(char* bytes, size_t size, size_t count, void* user);
    static size_t OnBody(char* bytes, size_t size, size_t count, void* user);
    static int OnProgress(void* user, curl_off_t total, curl_off_t now, curl_off_t uploadTotal,
                          curl_off_t uploadNow);

    OPALError OpenLocal_Unlocked();
    OPALError OpenRemote_Unlocked();
    OPALError InitCURLOptions_Unlocked(bool headerOnly);
    OPALError CheckStatus_Unlocked() const;
    OPALError MapError_Unlocked(CURLcode code) const;
    OPALError CheckRanges_Unlocked(const std::vector<ByteRange>& ranges) const;
    OPALError DownloadRequest_Unlocked(Lock& lock);
    void Reset_Unlocked();
    void Close_Unlocked();
    OPALError EndingResult() const;
    void RunWorker();
    void ServeQueue();

    // Under `mutex`, or on the thread that holds it, unless said otherwise.
    std::string url;
    int64_t fileSize = 0;
    bool closing = false;
    std::atomic<bool> cancelInFlight{false};  ///< written under `mutex`, read by the callbacks
    CURLcode lastCurlCode = CURLE_OK;
    std::list<HTTPRequestInternal> pending;
    std::list<HTTPRequestInternal> completed;
    const bool threaded;
    CURL* curl = nullptr;
    boost::thread worker;
    boost::mutex mutex;
    boost::condition_variable wakeup;
    std::string localAddress;
    boost::mutex progressMutex;
    int32_t bytesInFlight = 0;  ///< under `progressMutex`

    bool m_performing = false;         ///< a queued transfer runs, on any thread
    bool m_runningDropped = false;     ///< ... and its request is no longer the front of `pending`
    boost::condition_variable m_idle;  ///< m_performing has become false
    boost::mutex m_closeMutex;         ///< one Close at a time; taken before `mutex`
    std::atomic<int> m_closers{0};     ///< calls of Close under way: what runs has to end
    std::atomic<bool> m_aborted{false};
};
