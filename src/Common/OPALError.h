#pragma once

#include <cstdint>

/// Result of every operation that can fail. 0 is success, failures are negative; results proper
/// come back through out-parameters. The numbers are part of the interface: applications get them
/// through `IStreamingControllerNotify::OnError`, and the uploaded log carries them.
enum [[nodiscard]] OPALError : int32_t{
    OPAL_OK = 0,
    /// Unspecific: a platform call failed, no video in the manifest, a stream could not be read.
    OPAL_ERROR_GENERAL = -1, OPAL_ERROR_INVALID_ARGUMENT = -2,
    /// An index not below its list's size, an offset beyond a file, no trick track, an operation
    /// that the writer model does not offer.
    OPAL_ERROR_OUT_OF_RANGE = -3,
    /// Not yet created or initialised, no stream selected, no cluster loaded.
    OPAL_ERROR_NOT_READY = -4,
    /// Allocation failed; also: a cluster above its buffer's capacity, an empty `ClusterBuffer`, a
    /// caller's buffer too small, a subtitle track with an oversized header.
    OPAL_ERROR_NO_MEMORY = -5,
    /// A byte range was refused; a block or frame beyond a cluster's.
    OPAL_ERROR_RANGE = -6,
    /// Nothing to do yet: call again.
    OPAL_ERROR_NOT_YET = -7,
    /// Orderly shutdown; never told to the application as a failure.
    OPAL_ERROR_TERMINATED = -8,
    /// No more data in the direction of play.
    OPAL_ERROR_END_OF_DATA = -9,
    /// The content session failed in a way that has no number of its own.
    OPAL_ERROR_CONTENT_SESSION = -10,
    OPAL_ERROR_HTTP_CLIENT = -12,   ///< HTTP status 400 to 499
    OPAL_ERROR_HTTP_SERVER = -13,   ///< HTTP status 500 to 599
    OPAL_ERROR_TIMEOUT = -14,       ///< transfer or connection timed out
    OPAL_ERROR_CONNECT = -15,       ///< host not resolved, connection failed, local file missing
    OPAL_ERROR_LINK_DOWN = -16,     ///< network link down
    OPAL_ERROR_LINK_UNKNOWN = -17,  ///< network link state could not be determined
    /// A `ClusterBuffer` has no room for this cluster, in bytes or in duration.
    OPAL_ERROR_BUFFER_FULL = -18,
    /// -20, -21, -24 and -27 are the content service's; it owns their meaning.
    OPAL_ERROR_SERVICE_20 = -20, OPAL_ERROR_SERVICE_21 = -21, OPAL_ERROR_SERVICE_24 = -24,
    OPAL_ERROR_SERVICE_27 = -27,
    /// The audio sink refused the track's codec; playback goes on without that track.
    OPAL_ERROR_AUDIO_UNSUPPORTED = -23,
    /// A transfer was cancelled by `CancelRequests`.
    OPAL_ERROR_CANCELLED = -28};

/// False for the ordinary outcomes of one download step (0, -7, -9, -18, -28), else true.
bool IsFatalError(OPALError code);

/// True for 0, -9 and -28: after a download step that ended so, the loop blocks until it is woken.
/// A plain success waits too, deliberately: the controller decides when the next cluster may be
/// fetched and wakes the loop then. After -7 and -18 it polls, since room is expected soon.
bool IsWaitError(OPALError code);
