#include "StreamingController/BufferingSession.h"

#include <algorithm>
#include <cstdint>

namespace {

using Lock = opal::RecursiveLock;

/// The one of three fields that belongs to `type`; null for a kind that has none.
template <typename Field>
Field* Select(OPALStreamType type, Field& video, Field& audio, Field& subtitle) {
    switch (type) {
        case OPAL_STREAM_VIDEO:
            return &video;
        case OPAL_STREAM_AUDIO:
            return &audio;
        case OPAL_STREAM_SUBTITLE:
            return &subtitle;
        case OPAL_STREAM_TRICK:
        case OPAL_STREAM_NONE:
            break;
    }
    return nullptr;
}

}  // namespace

void BufferingSession::SetTarget(size_t bytes, OPALStreamType type) {
    Lock lock(mutex);
    size_t* target = Select(type, videoTarget, audioTarget, subtitleTarget);
    bool* active = Select(type, videoActive, audioActive, subtitleActive);
    if (!target)
        return;
    *target = bytes;
    *active = true;
}

void BufferingSession::AddBytes(size_t bytes, OPALStreamType type) {
    Lock lock(mutex);
    size_t* received = Select(type, videoReceived, audioReceived, subtitleReceived);
    if (!received)
        return;
    *received += bytes;
    if (*received >= *Select(type, videoTarget, audioTarget, subtitleTarget))
        *Select(type, videoComplete, audioComplete, subtitleComplete) = true;
}

void BufferingSession::ResetStream(OPALStreamType type) {
    Lock lock(mutex);
    size_t* received = Select(type, videoReceived, audioReceived, subtitleReceived);
    if (!received)
        return;
    *received = 0;
    *Select(type, videoComplete, audioComplete, subtitleComplete) = false;
}

void BufferingSession::Reset() {
    Lock lock(mutex);
    audioActive = videoActive = subtitleActive = false;
    subtitleComplete = videoComplete = audioComplete = false;
    videoTarget = audioTarget = subtitleTarget = 0;
    videoReceived = audioReceived = subtitleReceived = 0;
    percent = 0;
}

void BufferingSession::UpdatePercent(size_t inFlight) {
    Lock lock(mutex);
    const auto total = static_cast<uint32_t>(videoTarget + audioTarget + subtitleTarget);
    const auto received =
        static_cast<uint32_t>(videoReceived + audioReceived + subtitleReceived + inFlight);
    percent = total == 0 ? 0 : std::min<uint32_t>(received * 100u / total, 100u);
}

OPALError BufferingSession::GetPercent(size_t& result) const {
    Lock lock(mutex);
    if (!IsActive())
        return OPAL_ERROR_NOT_READY;
    result = percent;
    return OPAL_OK;
}

bool BufferingSession::IsStreamComplete(OPALStreamType type) const {
    Lock lock(mutex);
    const bool* complete = Select(type, videoComplete, audioComplete, subtitleComplete);
    return !IsStreamActive(type) || *complete;
}

bool BufferingSession::IsComplete() const {
    Lock lock(mutex);
    return IsStreamComplete(OPAL_STREAM_VIDEO) && IsStreamComplete(OPAL_STREAM_AUDIO) &&
           IsStreamComplete(OPAL_STREAM_SUBTITLE);
}

bool BufferingSession::IsActive() const {
    Lock lock(mutex);
    return audioActive || videoActive || subtitleActive;
}

bool BufferingSession::IsStreamActive(OPALStreamType type) const {
    Lock lock(mutex);
    const bool* active = Select(type, videoActive, audioActive, subtitleActive);
    return active && *active;
}
