#pragma once

#include <curl/curl.h>

#include <atomic>
#include <boost/thread/thread.hpp>
#include <cstdint>
#include <list>
#include <string>
#include <vector>

#include "Common/Mutex.h"
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
    void SetStopSignal(const opal::StopSignal* signal) override { m_pStop = signal; }
    void SetLabel(const opal::RequestLabel& label) override;
    void SetCancelReason(opal::RequestEnd reason) override { m_cancelReason = reason; }

  private:
    using Lock = opal::MutexLock;

    static size_t OnHeader(char* bytes, size_t size, size_t count, void* user);
    static size_t OnBody(char* bytes, size_t size, size_t count, void* user);
    static int OnProgress(void* user, curl_off_t total, curl_off_t now, curl_off_t uploadTotal,
                          curl_off_t uploadNow);

    OPALError OpenLocal_Unlocked() OPAL_REQUIRES(mutex);
    OPALError OpenRemote_Unlocked() OPAL_REQUIRES(mutex);
    OPALError InitCURLOptions_Unlocked(bool headerOnly) OPAL_REQUIRES(mutex);
    OPALError CheckStatus_Unlocked() const OPAL_REQUIRES(mutex);
    OPALError MapError_Unlocked(CURLcode code) const OPAL_REQUIRES(mutex);
    OPALError CheckRanges_Unlocked(const std::vector<ByteRange>& ranges) const OPAL_REQUIRES(mutex);
    OPALError DownloadRequest_Unlocked() OPAL_REQUIRES(mutex);
    opal::RequestEvent DescribeRequest_Unlocked(const HTTPRequest* request) const
        OPAL_REQUIRES(mutex);
    void TellRequest_Unlocked(opal::RequestEvent& event, OPALError result) const
        OPAL_REQUIRES(mutex);
    void Reset_Unlocked() OPAL_REQUIRES(mutex);
    void Close_Unlocked() OPAL_REQUIRES(mutex);
    OPALError EndingResult() const;
    void RunWorker();
    void ServeQueue();

    std::string url OPAL_GUARDED_BY(mutex);
    int64_t fileSize OPAL_GUARDED_BY(mutex) = 0;
    bool closing OPAL_GUARDED_BY(mutex) = false;
    std::atomic<bool> cancelInFlight{false};  ///< written under `mutex`, read by the callbacks
    CURLcode lastCurlCode OPAL_GUARDED_BY(mutex) = CURLE_OK;
    std::list<HTTPRequestInternal> pending OPAL_GUARDED_BY(mutex);
    std::list<HTTPRequestInternal> completed OPAL_GUARDED_BY(mutex);
    const bool threaded;
    CURL* curl OPAL_GUARDED_BY(mutex) = nullptr;
    boost::thread worker OPAL_GUARDED_BY(mutex);
    opal::Mutex mutex;
    opal::CondVar wakeup;
    std::string localAddress OPAL_GUARDED_BY(mutex);
    opal::Mutex progressMutex OPAL_ACQUIRED_AFTER(mutex);
    int32_t bytesInFlight OPAL_GUARDED_BY(progressMutex) = 0;

    bool m_performing OPAL_GUARDED_BY(mutex) = false;  ///< a queued transfer runs, on any thread
    /// ... and its request is no longer the front of `pending`
    bool m_runningDropped OPAL_GUARDED_BY(mutex) = false;
    opal::CondVar m_idle;                                  ///< m_performing has become false
    opal::Mutex m_closeMutex OPAL_ACQUIRED_BEFORE(mutex);  ///< one Close at a time
    std::atomic<int> m_closers{0};  ///< calls of Close under way: what runs has to end
    std::atomic<const opal::StopSignal*> m_pStop{nullptr};
    opal::RequestLabel m_label OPAL_GUARDED_BY(mutex);
    std::atomic<opal::RequestEnd> m_cancelReason{opal::RequestEnd::Jump};
};
