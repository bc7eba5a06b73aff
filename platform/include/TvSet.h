#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#pragma GCC visibility push(default)

/// Control of the software television: everything that is not part of the vendor's interface
/// and that only someone who owns the television can do: choose its outputs, look at its screen,
/// read its counters, and, for tests, make it misbehave and read what it was asked to do.
namespace tvset {

/// Time as the television sees it. Implementations are safe for use from several threads.
class Clock {
  public:
    virtual ~Clock() = default;
    /// Milliseconds since an arbitrary origin, never falling.
    virtual int64_t NowMs() = 0;
    /// How often `Interrupt()` has been called.
    virtual uint64_t Interrupts() = 0;
    /// Sleeps until `NowMs()` has reached `ms` or `Interrupts()` differs from `seen`, whichever is
    /// first. Who reads `Interrupts()` before looking for work misses no wake-up.
    virtual void SleepUntil(int64_t ms, uint64_t seen) = 0;
    /// Ends every SleepUntil that is running now.
    virtual void Interrupt() = 0;
};

/// The machine's monotonic clock, run `speed` times as fast from its creation on. At 1.0 `NowMs()`
/// is std::chrono::steady_clock in milliseconds.
std::shared_ptr<Clock> NewRealClock(double speed = 1.0);

/// A clock that stands still until a test moves it.
class ManualClock : public Clock {
  public:
    virtual void Advance(int64_t ms) = 0;
};
std::shared_ptr<ManualClock> NewManualClock();

enum class Decoding {
    Libav,       ///< H.264 and AAC, really decoded
    PassThrough  ///< access units are "shown" in PTS order without decoding; for tests
};
enum class VideoOutput {
    Headless,  ///< pictures go nowhere but can be snapshot
    Window  ///< a DirectFB window on layer 1, below the subtitle window (X11 when DISPLAY is set)
};
enum class AudioOutput {
    Silent,  ///< dropped in time
    Device   ///< the default SDL2 audio device; Silent where none opens
};

struct Options {
    Decoding decoding = Decoding::Libav;
    VideoOutput video = VideoOutput::Headless;
    AudioOutput audio = AudioOutput::Silent;
    std::shared_ptr<Clock> clock;  ///< null: real time
    bool holdOnePicture = false;   ///< the decoder keeps one picture back, as some hardware does
};

/// What `pthread_mutex_lock_tracker` knows of a mutex that is held.
struct MutexHolder {
    std::string function;
    int line = 0;
    uint64_t thread = 0;  ///< kernel's thread number
};
/// False when nobody holds `mutex` through the tracker.
bool FindMutexHolder(const void* mutex, MutexHolder& holder);

/// Takes effect at the next creation of a player. Not while one exists (returns false).
bool Configure(const Options& options);

/// Counters since the last creation of a player; they survive its end until the next one.
struct Statistics {
    uint64_t videoUnitsPushed = 0;
    uint64_t audioUnitsPushed = 0;
    uint64_t payloadsRefused = 0;
    uint64_t framesDecoded = 0;
    uint64_t framesShown = 0;
    uint64_t framesDropped = 0;   ///< decoded, but too late to be shown
    uint64_t unitsDiscarded = 0;  ///< taken, but thrown away because a bound was reached
    uint64_t decodeErrors = 0;
    uint64_t audioPlayedMs = 0;
    int64_t firstPictureMs = -1;  ///< its clock when the first picture was shown, -1 before
    int pictureWidth = 0;
    int pictureHeight = 0;
    uint32_t shownPts = 0;
};
Statistics GetStatistics();

/// Writes the picture on the screen (black when there is none) as an RGB PNG, in its own size with
/// square pixels. With a subtitle on the screen the whole panel is written, the picture fitted into
/// it. False, with the reason in `error` when given, if there is nothing to write or the file
/// cannot be written.
bool WriteSnapshot(const std::string& path, std::string* error = nullptr);

/// Lines of plain text in the upper left corner of the pictures shown from now on, in the window
/// and in snapshots; empty: none. False where there is no font for it (DejaVu Sans Mono). Any
/// thread.
bool SetStatusText(const std::string& text);

/// Called on the television's display thread for each picture shown. Must not block. Empty: none.
/// Returns only when a running call of the former listener is over; a listener must not call this.
void SetPictureListener(std::function<void(uint32_t ptsMs)> listener);

/// What a test can do to the television. All of it is forgotten by `Reset()`.
namespace control {

enum class Operation {
    CreateMediaItem,
    Initialize,
    Finalize,
    Play,
    Stop,
    TrickMode,
    Flush,
    Delete,
    SwitchAudio
};

void Reset();
/// The next `count` payloads (video and audio alike) are refused; SIZE_MAX for ever.
void RefusePayloads(size_t count);
void RefuseVideoPayloads(size_t count);
/// The next `count` calls of `operation` fail.
void Fail(Operation operation, size_t count = 1);
/// Events of the vendor's number `event` are kept back until released, or thrown away.
void HoldEvent(uint32_t event, bool hold);
void DropEvent(uint32_t event, bool drop);
/// E_EVENT_INIT_OK is delivered before the handle is written: a fault that some televisions have.
void DeliverInitBeforeHandle(bool on);
/// The display stops taking pictures, as if the decoder hung.
void Freeze(bool on);

/// One thing the television was asked, or did. Queries (PTS, gauge, position, size) are not
/// recorded.
struct JournalEntry {
    /// Vendor's name of the operation, or what the television did: "event", "shown", "subtitle",
    /// "heard". The latter's time is when its sound begins to be heard, unless a pause comes
    /// between.
    std::string call;
    unsigned long item = 0;
    uint64_t value = 0;       ///< event number, PTS, data type, subtitle shown or not: by the call
    uint32_t streamType = 0;  ///< payloads: 1 video, 0 audio
    uint32_t size = 0;        ///< payloads, subtitle: bytes; heard: ms
    uint32_t crc32 = 0;       ///< payloads, subtitle: IEEE 802.3 CRC
    std::vector<uint8_t> head;  ///< payloads: first 8 bytes
    std::vector<uint8_t>
        record;  ///< MM_CreateMediaItem: ST_MEDIA_INFO; MM_SwitchAudioTrack: its record
    int result = 0;
    uint64_t thread = 0;
    int64_t timeMs = 0;
};
/// Waits until the television has nothing to do before its clock moves or it is asked something.
/// False when that took more than `timeoutMs` of real time, or no player exists.
bool WaitIdle(int timeoutMs = 10000);

/// Starts or stops recording; the journal is bounded to one million entries, the oldest kept.
void Record(bool on);
std::vector<JournalEntry> Journal();

}  // namespace control
}  // namespace tvset

#pragma GCC visibility pop
