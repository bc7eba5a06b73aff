#pragma once

#include "Common/OPALStreamType.h"

namespace opal {

/// The one of three that belongs to `type`; null for a kind that has none.
template <typename T>
T* SelectByKind(OPALStreamType type, T& video, T& audio, T& subtitle) {
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

}  // namespace opal
