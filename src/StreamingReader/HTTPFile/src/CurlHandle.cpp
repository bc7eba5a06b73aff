#include "StreamingReader/HTTPFile/src/CurlHandle.h"

#include <sys/socket.h>

#include <cstdlib>

namespace opal {
namespace {

int OnSocket(void*, curl_socket_t socket, curlsocktype purpose) {
    if (purpose == CURLSOCKTYPE_IPCXN) {
        const int on = 1;
        (void)setsockopt(socket, SOL_SOCKET, SO_KEEPALIVE, &on, sizeof(on));
    }
    return CURL_SOCKOPT_OK;
}

}  // namespace

CURL* NewCurlHandle() {
    static const CURLcode initialised = curl_global_init(CURL_GLOBAL_DEFAULT);
    return initialised == CURLE_OK ? curl_easy_init() : nullptr;
}

void SetCommonCurlOptions(CURL* handle, const std::string& url, long connectSeconds) {
    SetCurlOption(handle, CURLOPT_URL, url.c_str());
    SetCurlOption(handle, CURLOPT_NOSIGNAL, 1L);
    SetCurlOption(handle, CURLOPT_CONNECTTIMEOUT, connectSeconds);
    SetCurlOption(handle, CURLOPT_SOCKOPTFUNCTION, &OnSocket);
#if LIBCURL_VERSION_NUM >= 0x075700
    // Else a transfer that is ended while the name server is silent waits for the resolver.
    SetCurlOption(handle, CURLOPT_QUICK_EXIT, 1L);
#endif
}

void SetServiceCurlOptions(CURL* handle) {
#if LIBCURL_VERSION_NUM >= 0x075500
    SetCurlOption(handle, CURLOPT_PROTOCOLS_STR, "http,https");
#endif
    SetCurlOption(handle, CURLOPT_NOPROXY, "*");
    SetCurlOption(handle, CURLOPT_SSLVERSION, static_cast<long>(CURL_SSLVERSION_TLSv1_2));
    SetCurlOption(handle, CURLOPT_SSL_VERIFYPEER, 1L);
    SetCurlOption(handle, CURLOPT_SSL_VERIFYHOST, 2L);
    if (const char* authorities = std::getenv("SSL_CERT_FILE")) {
        SetCurlOption(handle, CURLOPT_CAINFO, authorities);
        SetCurlOption(handle, CURLOPT_CAPATH, static_cast<const char*>(nullptr));
    }
}

}  // namespace opal
