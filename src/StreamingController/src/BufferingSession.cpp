#include "StreamingController/BufferingSession.h"

#include <algorithm>
#include <cstdint>

#include "Common/StreamKinds.h"

namespace {

using opal::SelectByKind;
using Lock = opal::RecursiveLock;

}  // namespace

void BufferingSession::SetTarget(size_t bytes, OPALStreamType type) {
    Lock lock(mutex);
    size_t* target = SelectByKind(type, videoTarget, audioTarget, subtitleTarget);
    bool* active = SelectByKind(type, videoActive, audioActive, subtitleActive);
    if (!target)
        return;
    *target = bytes;
    *active = true;
}

void BufferingSession::AddBytes(size_t bytes, OPALStreamType type) {
    Lock lock(mutex);
    size_t* received = SelectByKind(type, videoReceived, audioReceived, subtitleReceived);
    if (!received)
        return;
    *received += bytes;
    if (*received >= *SelectByKind(type, videoTarget, audioTarget, subtitleTarget))
        *SelectByKind(type, videoComplete, audioComplete, subtitleComplete) = true;
}

void BufferingSession::ResetStream(OPALStreamType type) {
    Lock lock(mutex);
    size_t* received = SelectByKind(type, videoReceived, audioReceived, subtitleReceived);
    if (!received)
        return;
    *received = 0;
    *SelectByKind(type, videoComplete, audioComplete, subtitleComplete) = false;
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
    const bool* complete = SelectByKind(type, videoComplete, audioComplete, subtitleComplete);
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
    const bool* active = SelectByKind(type, videoActive, audioActive, subtitleActive);
    return active && *active;
}
