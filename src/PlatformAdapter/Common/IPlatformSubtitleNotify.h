#pragma once

#include <boost/noncopyable.hpp>
#include <cstdint>
#include <string>

/// Told of subtitles that have been shown, on the subtitle writer's thread.
class IPlatformSubtitleNotify : boost::noncopyable {
  public:
    virtual ~IPlatformSubtitleNotify() = default;
    virtual void OnSubtitle(int64_t msStart, int64_t msEnd, const std::string& text) = 0;
};
