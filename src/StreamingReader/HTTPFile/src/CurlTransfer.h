#pragma once

#include <curl/curl.h>

#include <boost/noncopyable.hpp>
#include <cstdint>
#include <functional>

namespace opal {

/// Milliseconds of a clock that nobody sets, for time-outs of the network.
int64_t SteadyMs();

/// Runs an easy handle to its end in short slices, so that the caller can end it in between. The
/// handle stays with the transfer, and so does a connection that it has made.
///
/// Threading: none.
class CurlTransfer : boost::noncopyable {
  public:
    CurlTransfer() = default;
    ~CurlTransfer();

    /// `mayGoOn` is asked each slice; once it is false the result is CURLE_ABORTED_BY_CALLBACK.
    CURLcode Run(CURL* easy, const std::function<bool()>& mayGoOn);

  private:
    CURLM* m_multi = nullptr;
    CURL* m_easy = nullptr;
};

}  // namespace opal
