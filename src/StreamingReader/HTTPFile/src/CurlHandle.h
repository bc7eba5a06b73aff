#pragma once

#include <curl/curl.h>

#include <string>

#include "Common/Assert.h"

namespace opal {

/// What every use of libcurl in the library shares: its one-time initialisation, options, and for
/// the services the rules of TLS.

/// A new easy handle, or null.
CURL* NewCurlHandle();

/// An option that libcurl refuses is a programming error.
template <typename Value>
void SetCurlOption(CURL* handle, CURLoption option, Value value) {
    const CURLcode code = curl_easy_setopt(handle, option, value);
    OPAL_ASSERT(code == CURLE_OK, "false");
}

/// Address, connection time-out in seconds, no signals, keep-alive probes, and no waiting for a
/// silent name server when a transfer is ended. `url` is copied.
void SetCommonCurlOptions(CURL* handle, const std::string& url, long connectSeconds);

/// For the services: HTTP and HTTPS only, TLS 1.2 or later, the server's certificate verified
/// against the system's authorities, or against those of the file that the environment variable
/// SSL_CERT_FILE names.
void SetServiceCurlOptions(CURL* handle);

}  // namespace opal
