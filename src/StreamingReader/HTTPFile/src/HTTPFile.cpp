#include "StreamingReader/HTTPFile/HTTPFile.h"

#include <fcntl.h>
#include <strings.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <limits>
#include <new>
#include <sstream>

#include "Common/SessionEventStream.h"
#include "Common/StreamingTuning.h"
#include "Common/network/NetworkInterface.h"
#include "StreamingReader/HTTPFile/src/ContentLength.h"
#include "StreamingReader/HTTPFile/src/CurlHandle.h"

namespace {

constexpr char kFileScheme[] = "file://";
constexpr char kHttpScheme[] = "http://";
constexpr long kMaxRedirects = 10;
// Beyond these libcurl refuses to take the option, which would count as a programming error.
constexpr size_t kMaxUrlLength = 1 << 20;
constexpr size_t kMaxRanges = 100000;

bool StartsWith(const std::string& text, const char* prefix) {
    return text.compare(0, std::char_traits<char>::length(prefix), prefix) == 0;
}

using opal::NewCurlHandle;

template <typename Value>
void SetOption(CURL* handle, CURLoption option, Value value) {
    opal::SetCurlOption(handle, option, value);
}

}  // namespace

bool opal::ReadContentLength(const char* line, size_t size, int64_t& number) {
    static constexpr char kName[] = "Content-Length: ";
    constexpr size_t kNameLength = sizeof(kName) - 1;
    constexpr size_t kMaxNumberLength = 32;
    if (size < kNameLength || strncasecmp(line, kName, kNameLength) != 0)
        return true;
    std::istringstream text(
        std::string(line + kNameLength, std::min(kMaxNumberLength, size - kNameLength)));
    int64_t value = 0;
    if (!(text >> value) || value <= 0)
        return false;
    number = value;
    return true;
}

HTTPFile::HTTPFile(bool isThreaded) : threaded(isThreaded) {}

HTTPFile::~HTTPFile() {
    (void)Close();
}

OPALError HTTPFile::Open(const std::string& location) {
    if (location.empty() || location.size() > kMaxUrlLength)
        return OPAL_ERROR_INVALID_ARGUMENT;
    const bool local = StartsWith(location, kFileScheme);
    if (!local && !StartsWith(location, kHttpScheme))
        return OPAL_ERROR_INVALID_ARGUMENT;

    Lock lock(mutex);
    if (curl)
        return OPAL_ERROR_NOT_READY;
    if (const OPALError ending = EndingResult())
        return ending;
    curl = NewCurlHandle();
    if (!curl)
        return OPAL_ERROR_GENERAL;
    Reset_Unlocked();
    url = location;
    OPALError result = local ? OpenLocal_Unlocked() : OpenRemote_Unlocked();
    if (result == OPAL_OK && fileSize <= 0)
        result = OPAL_ERROR_GENERAL;
    if (opal::SessionEventStream::IsObserved()) {
        opal::RequestEvent event = DescribeRequest_Unlocked(nullptr);
        event.purpose = opal::RequestPurpose::Size;
        TellRequest_Unlocked(event, result);
    }
    if (result == OPAL_OK)
        result = InitCURLOptions_Unlocked(false);
    if (result == OPAL_OK && threaded) {
        try {
            worker = boost::thread(&HTTPFile::RunWorker, this);
        } catch (const boost::thread_resource_error&) {
            result = OPAL_ERROR_GENERAL;
        }
    }
    if (result != OPAL_OK)
        Close_Unlocked();
    return result;
}

OPALError HTTPFile::OpenLocal_Unlocked() {
    // libcurl opens what it is given and waits for it; a pipe would make it wait for ever.
    const int file = open(url.c_str() + sizeof(kFileScheme) - 1, O_RDONLY | O_NONBLOCK | O_CLOEXEC);
    if (file < 0)
        return OPAL_ERROR_CONNECT;
    struct stat status = {};
    const bool regular = fstat(file, &status) == 0 && S_ISREG(status.st_mode);
    (void)close(file);
    fileSize = regular ? status.st_size : 0;
    return regular ? OPAL_OK : OPAL_ERROR_CONNECT;
}

OPALError HTTPFile::OpenRemote_Unlocked() {
    const OPALError result = InitCURLOptions_Unlocked(true);
    if (result != OPAL_OK)
        return result;
    lastCurlCode = curl_easy_perform(curl);
    if (const OPALError ending = EndingResult())
        return ending;
    if (lastCurlCode != CURLE_OK)
        return MapError_Unlocked(lastCurlCode);
    const char* address = nullptr;
    if (curl_easy_getinfo(curl, CURLINFO_LOCAL_IP, &address) == CURLE_OK && address)
        localAddress = address;
    return OPAL_OK;
}

OPALError HTTPFile::InitCURLOptions_Unlocked(bool headerOnly) {
    const StreamingTuning& tuning = StreamingTuning::Instance();
    curl_easy_reset(curl);
    opal::SetCommonCurlOptions(curl, url, static_cast<long>(tuning.GetConnectionTimeout()));
    SetOption(curl, CURLOPT_FAILONERROR, 1L);
    SetOption(curl, CURLOPT_TIMEOUT, static_cast<long>(tuning.GetTransferTimeout()));
    SetOption(curl, CURLOPT_FOLLOWLOCATION, 1L);
    SetOption(curl, CURLOPT_MAXREDIRS, kMaxRedirects);
#if LIBCURL_VERSION_NUM >= 0x075500
    SetOption(curl, CURLOPT_REDIR_PROTOCOLS_STR, "http,https");
#endif
    if (headerOnly) {
        SetOption(curl, CURLOPT_NOBODY, 1L);
        SetOption(curl, CURLOPT_HEADERDATA, this);
        SetOption(curl, CURLOPT_HEADERFUNCTION, &HTTPFile::OnHeader);
    } else {
        SetOption(curl, CURLOPT_NOBODY, 0L);
        SetOption(curl, CURLOPT_WRITEDATA, this);
        SetOption(curl, CURLOPT_WRITEFUNCTION, &HTTPFile::OnBody);
    }
    // With the header request too: that is what lets Close and the stop signal end it.
    SetOption(curl, CURLOPT_NOPROGRESS, 0L);
    SetOption(curl, CURLOPT_XFERINFODATA, this);
    SetOption(curl, CURLOPT_XFERINFOFUNCTION, &HTTPFile::OnProgress);
    return OPAL_OK;
}

/// Runs within Open, so under `mutex`. The last good length of a redirect chain wins; a length of 0
/// or less fails the transfer, in a redirect too: deliberate.
size_t HTTPFile::OnHeader(char* bytes, size_t size, size_t count, void* user) {
    if (!user)
        return 0;
    HTTPFile& file = *static_cast<HTTPFile*>(user);
    file.mutex.AssertHeld();
    try {
        return opal::ReadContentLength(bytes, size * count, file.fileSize) ? size * count : 0;
    } catch (const std::exception&) {
        return 0;  // no memory; nothing may be thrown through libcurl
    }
}

size_t HTTPFile::OnBody(char* bytes, size_t size, size_t count, void* user) {
    if (!user)
        return 0;
    HTTPFile& file = *static_cast<HTTPFile*>(user);
    const size_t length = size * count;
    try {
        Lock lock(file.mutex);
        if (file.cancelInFlight || file.CheckStatus_Unlocked() != OPAL_OK || file.pending.empty())
            return 0;
        return file.pending.front().Write(bytes, length) == OPAL_OK ? length : 0;
    } catch (const std::exception&) {
        return 0;  // no memory; nothing may be thrown through libcurl
    }
}

int HTTPFile::OnProgress(void* user, curl_off_t, curl_off_t now, curl_off_t, curl_off_t) {
    HTTPFile& file = *static_cast<HTTPFile*>(user);
    Lock lock(file.progressMutex);
    file.bytesInFlight =
        static_cast<int32_t>(std::min<curl_off_t>(now, std::numeric_limits<int32_t>::max()));
    return file.cancelInFlight || file.EndingResult() != OPAL_OK ? -1 : 0;
}

/// Why nothing may run now, or 0.
OPALError HTTPFile::EndingResult() const {
    if (m_closers > 0)
        return OPAL_ERROR_TERMINATED;
    return opal::IsRaised(m_pStop) ? OPAL_ERROR_CANCELLED : OPAL_OK;
}

OPALError HTTPFile::CheckStatus_Unlocked() const {
    if (!curl || fileSize <= 0)
        return OPAL_ERROR_NOT_READY;
    if (closing)
        return OPAL_ERROR_TERMINATED;
    // A Close may have ended the transfer and not have set `closing` yet.
    if (const OPALError ending = EndingResult())
        return ending;
    return MapError_Unlocked(lastCurlCode);
}

OPALError HTTPFile::MapError_Unlocked(CURLcode code) const {
    if (code == CURLE_OK)
        return OPAL_OK;
    if (!localAddress.empty()) {
        const NetworkInterface& network = NetworkInterface::Instance();
        if (!network.IsLinkUp(localAddress))
            return OPAL_ERROR_LINK_DOWN;
        if (network.IsLinkUnknown(localAddress))
            return OPAL_ERROR_LINK_UNKNOWN;
    }
    switch (code) {
        case CURLE_COULDNT_RESOLVE_HOST:
        case CURLE_COULDNT_CONNECT:
            return OPAL_ERROR_CONNECT;
        case CURLE_HTTP_RETURNED_ERROR: {
            long status = 0;
            (void)curl_easy_getinfo(curl, CURLINFO_RESPONSE_CODE, &status);
            if (status >= 400 && status <= 499)
                return OPAL_ERROR_HTTP_CLIENT;
            if (status >= 500 && status <= 599)
                return OPAL_ERROR_HTTP_SERVER;
            return OPAL_ERROR_GENERAL;
        }
        case CURLE_OPERATION_TIMEDOUT:
            return OPAL_ERROR_TIMEOUT;
        case CURLE_RANGE_ERROR:
            return OPAL_ERROR_RANGE;
        default:
            return OPAL_ERROR_GENERAL;
    }
}

OPALError HTTPFile::GetSize(int64_t& size) {
    size = 0;
    Lock lock(mutex);
    const OPALError status = CheckStatus_Unlocked();
    if (status == OPAL_OK)
        size = fileSize;
    return status;
}

OPALError HTTPFile::RequestRange(int64_t offset, int64_t length, HTTPRequestNotify* notify) {
    if (length < 0 && offset >= 0) {
        Lock lock(mutex);
        length = fileSize - offset;
    }
    return RequestRanges({ByteRange(offset, length)}, notify);
}

OPALError HTTPFile::CheckRanges_Unlocked(const std::vector<ByteRange>& ranges) const {
    if (ranges.empty() || ranges.size() > kMaxRanges)
        return OPAL_ERROR_INVALID_ARGUMENT;
    for (const ByteRange& range : ranges) {
        if (range.offset < 0)
            return OPAL_ERROR_INVALID_ARGUMENT;
        if (range.offset >= fileSize)
            return OPAL_ERROR_OUT_OF_RANGE;
        // A negative length or an end beyond 64 bits comes from an index that is out of order.
        if (range.length <= 0 || range.length > std::numeric_limits<int64_t>::max() - range.offset)
            return OPAL_ERROR_INVALID_ARGUMENT;
    }
    return OPAL_OK;
}

OPALError HTTPFile::RequestRanges(const std::vector<ByteRange>& ranges, HTTPRequestNotify* notify) {
    Lock lock(mutex);
    while (!threaded && m_performing)  // the handle serves one caller at a time
        m_idle.Wait(mutex);
    OPALError result = CheckStatus_Unlocked();
    if (result == OPAL_OK)
        result = CheckRanges_Unlocked(ranges);
    if (result != OPAL_OK)
        return result;
    pending.emplace_back(ranges, notify);
    if (!threaded)
        return DownloadRequest_Unlocked();
    wakeup.NotifyOne();
    return OPAL_OK;
}

OPALError HTTPFile::DownloadRequest_Unlocked() {
    if (pending.empty())
        return OPAL_ERROR_NOT_READY;
    SetOption(curl, CURLOPT_RANGE, pending.front().BuildRangeString().c_str());
    pending.front().MarkStart();
    const bool observed = opal::SessionEventStream::IsObserved();
    opal::RequestEvent event = DescribeRequest_Unlocked(&pending.front());
    m_cancelReason = opal::RequestEnd::Jump;
    m_performing = true;
    m_runningDropped = false;
    CURL* const handle = curl;
    mutex.Unlock();
    const CURLcode code = curl_easy_perform(handle);
    mutex.Lock();
    m_performing = false;
    m_idle.NotifyAll();
    {
        Lock progress(progressMutex);
        bytesInFlight = 0;
    }
    if (cancelInFlight &&
        (code == CURLE_WRITE_ERROR || code == CURLE_ABORTED_BY_CALLBACK || code == CURLE_OK)) {
        event.end = m_cancelReason;
        if (observed)
            TellRequest_Unlocked(event, OPAL_ERROR_CANCELLED);
        // The canceller has emptied the queue. A request that came since then stays and is served
        // next; one that this transfer has begun on a flag left over is begun again.
        lastCurlCode = CURLE_OK;
        cancelInFlight = false;
        return OPAL_ERROR_CANCELLED;
    }
    lastCurlCode = code;
    const OPALError status = CheckStatus_Unlocked();
    if (observed)
        TellRequest_Unlocked(event, status);
    if (status == OPAL_OK) {
        pending.front().MarkEnd();
        completed.splice(completed.end(), pending, pending.begin());
        completed.back().Notify();
    } else if (!m_runningDropped) {
        pending.pop_front();  // a request that failed is lost
    }
    cancelInFlight = false;
    if (!threaded)
        lastCurlCode = CURLE_OK;
    return status;
}

void HTTPFile::SetLabel(const opal::RequestLabel& label) {
    if (!opal::SessionEventStream::IsObserved())
        return;
    Lock lock(mutex);
    m_label = label;
}

/// Null: the question for the size. Empty where nobody listens; what there is no memory for stays
/// out.
opal::RequestEvent HTTPFile::DescribeRequest_Unlocked(const HTTPRequest* request) const {
    opal::RequestEvent event;
    if (!opal::SessionEventStream::IsObserved())
        return event;
    static_cast<opal::RequestLabel&>(event) = m_label;
    try {
        event.url = url;
        for (size_t i = 0; request && request->GetLength(i) > 0; ++i)
            event.ranges.emplace_back(request->GetOffset(i), request->GetLength(i));
    } catch (const std::bad_alloc&) {
        event.ranges.clear();  // a transfer does not fail for what is told of it
    }
    return event;
}

void HTTPFile::TellRequest_Unlocked(opal::RequestEvent& event, OPALError result) const {
    curl_off_t firstByte = 0;
    curl_off_t total = 0;
    curl_off_t bytes = 0;
    long status = 0;
    (void)curl_easy_getinfo(curl, CURLINFO_STARTTRANSFER_TIME_T, &firstByte);
    (void)curl_easy_getinfo(curl, CURLINFO_TOTAL_TIME_T, &total);
    (void)curl_easy_getinfo(curl, CURLINFO_SIZE_DOWNLOAD_T, &bytes);
    (void)curl_easy_getinfo(curl, CURLINFO_RESPONSE_CODE, &status);
    event.waitUs = firstByte > 0 ? std::min(firstByte, total) : total;
    event.transferUs = total - event.waitUs;
    event.bytes = bytes;
    event.status = static_cast<int>(status);
    event.result = result;
    if (result != OPAL_OK && event.end == opal::RequestEnd::Complete)
        event.end = EndingResult() != OPAL_OK || closing ? opal::RequestEnd::Closing
                                                         : opal::RequestEnd::Failed;
    opal::SessionEventStream::Tell(std::move(event));
}

void HTTPFile::RunWorker() {
    try {
        ServeQueue();
    } catch (const std::exception&) {
        Lock lock(mutex);
        lastCurlCode = CURLE_OUT_OF_MEMORY;
    }
}

void HTTPFile::ServeQueue() {
    Lock lock(mutex);
    while (CheckStatus_Unlocked() == OPAL_OK) {
        if (pending.empty())
            wakeup.Wait(mutex);
        else
            (void)DownloadRequest_Unlocked();  // the status says whether to go on
    }
}

OPALError HTTPFile::GetCompletedRequest(HTTPRequest& request, bool peek) {
    request.Reset();
    Lock lock(mutex);
    const OPALError status = CheckStatus_Unlocked();
    if (status != OPAL_OK)
        return status;
    if (!completed.empty()) {
        request.Assign(completed.front(), !peek);
        if (!peek)
            completed.pop_front();
        return OPAL_OK;
    }
    if (pending.empty())
        return OPAL_ERROR_OUT_OF_RANGE;
    request.Assign(pending.front(), false);
    return OPAL_ERROR_NOT_YET;
}

OPALError HTTPFile::CancelRequests(bool cancelRunning, bool clearCompleted) {
    Lock lock(mutex);
    const OPALError status = CheckStatus_Unlocked();
    if (status != OPAL_OK)
        return status;
    if (!pending.empty()) {
        if (cancelRunning) {
            pending.clear();
            m_runningDropped = true;
            cancelInFlight = true;
        } else {
            pending.erase(std::next(pending.begin()), pending.end());
        }
    }
    if (clearCompleted)
        completed.clear();
    return OPAL_OK;
}

OPALError HTTPFile::GetBytesInFlight(int& bytes) {
    Lock lock(progressMutex);
    bytes = bytesInFlight;
    return OPAL_OK;
}

OPALError HTTPFile::Close() {
    ++m_closers;
    {
        Lock oneAtATime(m_closeMutex);
        Lock lock(mutex);
        closing = true;
        wakeup.NotifyAll();
        boost::thread ending;
        ending.swap(worker);
        lock.Unlock();
        if (ending.joinable())
            ending.join();
        lock.Lock();
        while (m_performing)
            m_idle.Wait(mutex);
        Close_Unlocked();
    }
    --m_closers;
    return OPAL_OK;
}

void HTTPFile::Reset_Unlocked() {
    url.clear();
    fileSize = 0;
    closing = false;
    cancelInFlight = false;
    lastCurlCode = CURLE_OK;
    pending.clear();
    completed.clear();
    localAddress.clear();
}

void HTTPFile::Close_Unlocked() {
    if (curl)
        curl_easy_cleanup(curl);
    curl = nullptr;
    Reset_Unlocked();
}
