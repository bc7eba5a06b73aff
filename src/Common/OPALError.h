#pragma once

#include <cstdint>

#include "Common/Export.h"

/// Result of every operation that can fail. 0 is success, failures are negative; results proper
/// come back through out-parameters. The numbers are part of the interface: applications get them
/// through `IStreamingControllerNotify::OnError`, and the uploaded log carries them.
///
/// Each tells its meaning, and then what an application does about it. "Report" is to tell the
/// viewer and to call Finalize.
// clang-format off
enum [[nodiscard]] OPALError : int32_t {
    /// Done.
    OPAL_OK = 0,
    /// Unspecific: a platform call failed, no video in the manifest, a stream could not be read.
    /// Report; the diagnostic log knows more.
    OPAL_ERROR_GENERAL = -1,
    /// An argument that cannot be meant: an empty URL, no such track or rate. Correct the call. As
    /// the end of a session: the index of a file is damaged. Report.
    OPAL_ERROR_INVALID_ARGUMENT = -2,
    /// An index not below its list's size, an offset beyond a file, no trick track, an operation
    /// that the writer model does not offer. Correct the call: ask for the counts first.
    OPAL_ERROR_OUT_OF_RANGE = -3,
    /// Not yet created or initialised, no stream selected, no cluster loaded. Initialise first, or
    /// call again later.
    OPAL_ERROR_NOT_READY = -4,
    /// Allocation failed; also: a cluster above its buffer's capacity, an empty `ClusterBuffer`, a
    /// caller's buffer too small, a subtitle track with an oversized header. Pass a larger buffer,
    /// if one was passed; else report.
    OPAL_ERROR_NO_MEMORY = -5,
    /// A byte range was refused; a block or frame beyond a cluster's. Report: the server serves no
    /// ranges, or the file is not the one that the index describes.
    OPAL_ERROR_RANGE = -6,
    /// Nothing to do yet. Call again a little later.
    OPAL_ERROR_NOT_YET = -7,
    /// Orderly shutdown; never told to the application as a failure. Nothing is to be done.
    OPAL_ERROR_TERMINATED = -8,
    /// No more data in the direction of play. In the pull model, stop pulling this stream.
    OPAL_ERROR_END_OF_DATA = -9,
    /// The content session failed in a way that has no number of its own. Report; a fresh ticket
    /// may help.
    OPAL_ERROR_CONTENT_SESSION = -10,
    /// HTTP status 400 to 499. Report: the film is not there or not allowed, and to try again
    /// changes nothing.
    OPAL_ERROR_HTTP_CLIENT = -12,
    /// HTTP status 500 to 599. Report, and let the viewer try again later.
    OPAL_ERROR_HTTP_SERVER = -13,
    /// A transfer or a connection timed out. Report, and let the viewer try again later.
    OPAL_ERROR_TIMEOUT = -14,
    /// Host not resolved, connection failed, local file missing or no regular file. Report; check
    /// the address and the network.
    OPAL_ERROR_CONNECT = -15,
    /// The television's network link is down. Report, and ask for the cable or the wireless.
    OPAL_ERROR_LINK_DOWN = -16,
    /// A transfer failed, and the state of the link could not be determined. As -16.
    OPAL_ERROR_LINK_UNKNOWN = -17,
    /// A `ClusterBuffer` has no room for this cluster, in bytes or in duration. Stays within the
    /// library.
    OPAL_ERROR_BUFFER_FULL = -18,
    /// The content service's own, as are -21, -24 and -27. Report as the service says.
    OPAL_ERROR_SERVICE_20 = -20,
    /// See -20.
    OPAL_ERROR_SERVICE_21 = -21,
    /// The audio sink refused the codec of the track; playback goes on without that track. Offer
    /// another track.
    OPAL_ERROR_AUDIO_UNSUPPORTED = -23,
    /// See -20.
    OPAL_ERROR_SERVICE_24 = -24,
    /// See -20.
    OPAL_ERROR_SERVICE_27 = -27,
    /// A transfer was cancelled: by a jump, or by a Finalize during a start. Nothing is to be done.
    OPAL_ERROR_CANCELLED = -28
};
// clang-format on

/// A short English text for logs and test screens, such as "transfer or connection timed out";
/// "unknown error" for a number that is none. Never null; valid for ever.
OPAL_EXPORT const char* OPALErrorText(OPALError code);

/// False for the ordinary outcomes of one download step (0, -7, -9, -18, -28), else true.
OPAL_EXPORT bool IsFatalError(OPALError code);

/// True for 0, -9 and -28: after a download step that ended so, the loop blocks until it is woken.
/// A plain success waits too, deliberately: the controller decides when the next cluster may be
/// fetched and wakes the loop then. After -7 and -18 it polls, since room is expected soon.
OPAL_EXPORT bool IsWaitError(OPALError code);
