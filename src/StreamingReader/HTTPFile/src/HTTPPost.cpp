#include "StreamingReader/HTTPFile/HTTPPost.h"

#include <curl/curl.h>

#include <algorithm>
#include <memory>

#include "Common/StopSignal.h"
#include "StreamingReader/HTTPFile/src/CurlHandle.h"
#include "StreamingReader/HTTPFile/src/CurlTransfer.h"

namespace opal {
namespace {

constexpr size_t kMaxReply = 64 * 1024;
constexpr int64_t kMsPerSecond = 1000;
constexpr long kFirstGoodStatus = 200;
constexpr long kLastGoodStatus = 299;

size_t OnReply(char* bytes, size_t size, size_t count, void* user) {
    auto& reply = *static_cast<std::string*>(user);
    const size_t length = size * count;
    try {
        reply.append(bytes, std::min(length, kMaxReply - reply.size()));
    } catch (const std::exception&) {
        return 0;  // no memory; nothing may be thrown through libcurl
    }
    return length;
}

}  // namespace

void HTTPPost::SetStopSignal(const StopSignal* stop, int64_t graceMs) {
    m_stop = stop;
    m_graceMs = graceMs;
    m_graceUntilMs = -1;
}

bool HTTPPost::MayGoOn() {
    if (!IsRaised(m_stop))
        return true;
    if (m_graceUntilMs < 0)
        m_graceUntilMs = SteadyMs() + m_graceMs;
    return SteadyMs() < m_graceUntilMs;
}

bool HTTPPost::Perform(const std::string& url, const std::string& contentType,
                       const std::string& body, std::string& reply) {
    reply.clear();
    const std::unique_ptr<CURL, decltype(&curl_easy_cleanup)> handle(NewCurlHandle(),
                                                                     &curl_easy_cleanup);
    const std::string type = "Content-Type: " + contentType;
    // Without it a long document would wait for the server's leave.
    const std::unique_ptr<curl_slist, decltype(&curl_slist_free_all)> headers(
        curl_slist_append(curl_slist_append(nullptr, type.c_str()), "Expect:"),
        &curl_slist_free_all);
    if (!handle || !headers)
        return false;
    SetCommonCurlOptions(handle.get(), url,
                         static_cast<long>(m_timeouts.connectMs / kMsPerSecond + 1));
    SetServiceCurlOptions(handle.get());
    SetCurlOption(handle.get(), CURLOPT_CONNECTTIMEOUT_MS, static_cast<long>(m_timeouts.connectMs));
    SetCurlOption(
        handle.get(), CURLOPT_TIMEOUT_MS,
        static_cast<long>(m_timeouts.connectMs + m_timeouts.sendMs + m_timeouts.receiveMs));
    SetCurlOption(handle.get(), CURLOPT_POST, 1L);
    SetCurlOption(handle.get(), CURLOPT_POSTFIELDSIZE_LARGE, static_cast<curl_off_t>(body.size()));
    SetCurlOption(handle.get(), CURLOPT_POSTFIELDS, body.data());
    SetCurlOption(handle.get(), CURLOPT_HTTPHEADER, headers.get());
    SetCurlOption(handle.get(), CURLOPT_WRITEFUNCTION, &OnReply);
    SetCurlOption(handle.get(), CURLOPT_WRITEDATA, &reply);
    CurlTransfer transfer;
    if (transfer.Run(handle.get(), [this] { return MayGoOn(); }) != CURLE_OK)
        return false;
    long status = 0;
    (void)curl_easy_getinfo(handle.get(), CURLINFO_RESPONSE_CODE, &status);
    return status >= kFirstGoodStatus && status <= kLastGoodStatus;
}

}  // namespace opal
