#include "StreamingReader/HTTPFile/src/CurlTransfer.h"

#include <chrono>

#include "Common/StopSignal.h"

namespace opal {

int64_t SteadyMs() {
    using namespace std::chrono;
    return duration_cast<milliseconds>(steady_clock::now().time_since_epoch()).count();
}

CurlTransfer::~CurlTransfer() {
    if (m_multi && m_easy)
        (void)curl_multi_remove_handle(m_multi, m_easy);
    (void)curl_multi_cleanup(m_multi);
}

CURLcode CurlTransfer::Run(CURL* easy, const std::function<bool()>& mayGoOn) {
    m_multi = curl_multi_init();
    if (!m_multi || curl_multi_add_handle(m_multi, easy) != CURLM_OK)
        return CURLE_FAILED_INIT;
    m_easy = easy;
    while (mayGoOn()) {
        int running = 0;
        int left = 0;
        if (curl_multi_perform(m_multi, &running) != CURLM_OK)
            return CURLE_FAILED_INIT;
        while (const CURLMsg* message = curl_multi_info_read(m_multi, &left)) {
            if (message->msg == CURLMSG_DONE)
                return message->data.result;
        }
        if (running == 0 ||
            curl_multi_poll(m_multi, nullptr, 0, static_cast<int>(StopSignal::kSliceMs), nullptr) !=
                CURLM_OK)
            return CURLE_FAILED_INIT;
    }
    return CURLE_ABORTED_BY_CALLBACK;
}

}  // namespace opal
