#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <utility>
#include <vector>

#include "Common/OPALError.h"
#include "Common/OPALPlayRate.h"
#include "Common/OPALStreamType.h"

/// What a session tells its observer (StreamingController/ISessionObserver.h): plain records.
///
/// Units: microseconds for what is measured on the clock, milliseconds for media time, bits per
/// second, bytes. (size_t)-1 is "no level" and "no track".
namespace opal {

struct SessionEvent {
    /// Library's clock, microseconds since 1970-01-01 UTC. A wall clock: it may be set.
    int64_t timeUs = 0;
};

/// Why a request ended.
enum class RequestEnd : int {
    Complete = 0,
    Failed = 1,        ///< `result` says how
    Jump = 2,          ///< cancelled: a seek, a change of rate or of track
    SlowTransfer = 3,  ///< cancelled: the cluster comes sooner from a lower level
    Closing = 4        ///< cancelled: the session or the opening is not wanted any more
};

enum class RequestPurpose : int {
    Size = 0,     ///< asks for a file's size, before anything else
    Header = 1,   ///< a file's header and what else of its metadata is fetched
    Cluster = 2,  ///< one cluster; of a trick track, the pictures that are shown
    Manifest = 3,
    Probe = 4,  ///< measures the link
    Other = 5
};

/// What a transfer is for.
struct RequestLabel {
    RequestPurpose purpose = RequestPurpose::Other;
    OPALStreamType stream = OPAL_STREAM_NONE;
    size_t index = static_cast<size_t>(-1);  ///< level, trick track or track
    int64_t cluster = -1;                    ///< number of the cluster; -1: none
};

/// A transfer that has ended. It began `waitUs + transferUs` before `timeUs`.
struct RequestEvent : SessionEvent, RequestLabel {
    std::string url;
    std::vector<std::pair<int64_t, int64_t>> ranges;  ///< offset and length of each; none: no body
    int64_t waitUs = 0;      ///< to the first byte of the reply, connecting included
    int64_t transferUs = 0;  ///< from then on
    int64_t bytes = 0;       ///< of the body that arrived
    int status = 0;          ///< of HTTP; 0: no reply
    OPALError result = OPAL_OK;
    RequestEnd end = RequestEnd::Complete;
};

/// The rule that decided a level.
enum class SwitchingRule : int {
    Start = 0,          ///< first decision: one below what the link is relied on for
    QuickStart = 1,     ///< stays lowest: no index to go by yet
    BandwidthKept = 2,  ///< the estimate gives no reason to move, or moving must wait
    BandwidthUp = 3,
    BandwidthDown = 4,
    Waiting = 5,        ///< no estimate, and downloads are not fast enough to try a level up
    ExploringKept = 6,  ///< no estimate; fast, but not for long enough
    ExploringUp = 7,    ///< no estimate; a level up is tried
    BufferLow = 8,      ///< buffer guard: two levels down
    BufferSpent = 9,    ///< buffer guard: to the lowest
    Restart = 10,       ///< a jump or an underflow: down by the quick start's drop
    Cycle = 11,         ///< test mode: all levels in turn
    NoRates = 12,       ///< no level has a usable rate
    SlowTransfer = 13   ///< a transfer was given up for a lower level
};

/// A decision of the switching code, with what it was made from.
struct DecisionEvent : SessionEvent {
    SwitchingRule rule = SwitchingRule::Start;
    int from = -1;
    int to = -1;
    int64_t cluster = -1;       ///< the last that arrived
    int bandwidth = 0;          ///< estimate of the link; 0: none
    int reservedBandwidth = 0;  ///< kept for audio
    double available = 0.0;     ///< estimate without what is reserved
    double guarded = 0.0;       ///< the part of it that is relied on to go up
    double target = 0.0;
    double candidate = 0.0;  ///< where the estimate would lead
    int bufferedMs = 0;      ///< video, as of the last cluster
    int requiredMs = 0;      ///< to be buffered before playback starts
    int guardMs = 0;         ///< below this the buffer guard acts
    int64_t heldMs = 0;      ///< media time that the level has been held for
    int downloadBytes = 0;
    int downloadMs = 0;
    int mode = 0;  ///< 0 agile, 1 steady
};

/// A call of the switching controller that its answers depend on, and what it answered. All of them
/// in order, fed to another switching controller, make it decide the same.
struct SwitchingCallEvent : SessionEvent {
    enum class Kind : int {
        SetLevels = 0,
        SetBandwidth = 1,
        SetStartupTime = 2,
        SetAudioBitrate = 3,
        SetClusterIndexes = 4,  ///< value 1: there are some
        Download = 5,           ///< a cluster has arrived
        Restart = 6,
        GetCurrentLevel = 7,
        IsVideoBuffered = 8,  ///< told when the answer may have changed
        GetExcessBuffer = 9
    };
    struct Level {
        std::string uri;
        int bitrate = 0;
        int vbv = 0;
    };
    struct AudioTrack {
        std::string language;
        int reservedBandwidth = 0;
        bool hasUri = true;
    };

    Kind kind = Kind::GetCurrentLevel;
    int64_t value = 0;   ///< argument of a setter
    int64_t answer = 0;  ///< of a question
    /// Bit i: the index of level i was there. A recording beyond 64 levels is not replayed.
    uint64_t openIndexes = 0;
    std::vector<Level> levels;            ///< SetLevels
    std::vector<AudioTrack> audioTracks;  ///< SetLevels
    // Download and Restart.
    OPALStreamType stream = OPAL_STREAM_VIDEO;
    bool invalidates = false;  ///< Restart in the form that has a new decision made
    int64_t downloadMs = 0;
    int64_t downloadBytes = 0;
    int64_t bufferedMs = 0;
    int64_t sinceStartMs = 0;
    int64_t cluster = 0;
};

/// The index of a level has been read: bytes of each of its clusters.
struct LevelIndexEvent : SessionEvent {
    size_t level = 0;
    std::vector<int64_t> clusterBytes;
};

/// What is buffered, about five times a second, and whenever playback starts or stops.
struct BufferEvent : SessionEvent {
    int64_t positionMs = -1;  ///< -1: nowhere yet
    int64_t videoMs = 0;
    int64_t audioMs = 0;
    int64_t subtitleMs = 0;
    // The thresholds. 0: none.
    int64_t underflowMs = 0;      ///< below this, playback stops and waits
    int64_t requiredVideoMs = 0;  ///< to be there before it starts
    int64_t requiredAudioMs = 0;
    int64_t maxVideoMs = 0;                  ///< more is not fetched
    int64_t bandwidth = 0;                   ///< estimate of the link; 0: none
    size_t level = static_cast<size_t>(-1);  ///< that is being fetched
    bool playing = false;
};

enum class SessionState : int {
    Opening = 0,  ///< `text`: the manifest's URL; empty for a ticket
    Opened = 1,   ///< `valueMs`: duration; `to`: level that it starts with
    Playing = 2,  ///< at normal rate; `to`: level
    Paused = 3,
    Underflow = 4,       ///< playback waits for data
    Seek = 5,            ///< `valueMs`: where to
    Rate = 6,            ///< `rate`: trick play runs
    RateWanted = 7,      ///< `rate`: asked for
    Level = 8,           ///< `from`, `to`: the next cluster comes from another level
    AudioTrack = 9,      ///< `to`
    SubtitleTrack = 10,  ///< `to`; none: off
    Subtitle = 11,       ///< a text was shown from `valueMs` until `endMs`
    EndOfStream = 12,
    Stopped = 13,
    Error = 14,   ///< `code`, `text`
    Closed = 15,  ///< Finalize is done
    PauseWanted = 16,
    PlayWanted = 17,
    /// A media file cannot be used: `text` its URL, `code`; `valueMs` 1: it is there, and its
    /// header or index is at fault. The session ends if it needs the file.
    MediaFailed = 18,
    /// A cluster that arrived whole cannot be read: `stream`, `to` its level or track, `cluster`,
    /// `code`. The session ends, or in the pull model the pull answers the code.
    ClusterDamaged = 19
};

struct StateEvent : SessionEvent {
    SessionState state = SessionState::Opening;
    int64_t positionMs = -1;  ///< as of the last BufferEvent; -1: nowhere yet
    int64_t valueMs = 0;
    int64_t endMs = 0;
    size_t from = static_cast<size_t>(-1);
    size_t to = static_cast<size_t>(-1);
    OPALPlayRate rate = OPAL_PLAYRATE_ONEX;
    OPALError code = OPAL_OK;
    std::string text;
    OPALStreamType stream = OPAL_STREAM_NONE;
    int64_t cluster = -1;
};

/// What one sink of the television has taken since the session began; once a second.
struct SinkEvent : SessionEvent {
    OPALStreamType stream = OPAL_STREAM_VIDEO;
    uint64_t blocks = 0;
    uint64_t bytes = 0;
    uint64_t refused = 0;  ///< times that it asked to be given a block later
    uint64_t flushes = 0;
};

}  // namespace opal
