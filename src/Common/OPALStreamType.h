#pragma once

/// Kind of a stream. The underlying type is fixed because `ClusterInfo` starts at -1, "no kind".
enum OPALStreamType : int {
    OPAL_STREAM_VIDEO = 0,
    OPAL_STREAM_AUDIO = 1,
    OPAL_STREAM_SUBTITLE = 2,
    /// A video trick track. Buffers, writers and sinks fold it onto `OPAL_STREAM_VIDEO`.
    OPAL_STREAM_TRICK = 3,
    /// No stream: an object asked to be built for this kind is not built.
    OPAL_STREAM_NONE = 4
};

/// The kind under which buffers, writers and sinks know a stream.
inline OPALStreamType FoldStreamType(OPALStreamType type) {
    return type == OPAL_STREAM_TRICK ? OPAL_STREAM_VIDEO : type;
}
