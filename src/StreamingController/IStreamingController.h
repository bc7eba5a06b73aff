#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

#include "Common/Export.h"
#include "Common/MemoryBuffer.h"
#include "Common/OPALError.h"
#include "Common/OPALPlayRate.h"
#include "Common/OPALStreamType.h"
#include "Common/OPALWriterModel.h"
#include "PlatformAdapter/Mstar/HABPreferences.h"
#include "StreamingController/IStreamingControllerNotify.h"
#include "StreamingController/StreamingControllerTypes.h"

/// One playback session at a time: from a manifest URL or a ticket to pictures on the television.
///
/// A session: NewStreamingController, SetNotify, Initialize..., Play, ... Finalize, and again.
/// Every operation that takes time is posted to the session's event loop; what came of it is told
/// to the listener.
///
/// What may be called when, and what it does. "-4" and "code" are answers; "code" is the error that
/// ended the session, -8 after Finalize. What is not listed (queries, SetNotify) may be called at
/// any time.
///
///     state        Play        Pause    Stop     Seek, Resume  SetPlayRate  tracks   Finalize
///     no session   -4, code    -4       -4       -4            -4 or -3     -4       0
///     initialised  starts      OnPause  OnStop   starts there  starts       opens    ends it
///     starting     goes on     (1)      OnStop   anew there    anew         changes  ends it
///     playing      goes on     OnPause  OnStop   anew there    trick play   changes  ends it
///     paused       starts      OnPause  OnStop   starts there  starts       changes  ends it
///     rebuffering  goes on     (1)      OnStop   anew there    anew         changes  ends it
///     trick play   goes on     OnPause  OnStop   (2)           another, 1x  changes  ends it
///     ended        starts      OnPause  OnStop   starts there  starts       changes  ends it
///     terminated   code        code     code     code          code         code     ends it
///
/// (1) A pause while playback starts or waits for its buffers is told (OnPause) and does not hold:
/// playback begins when the buffers are ready. An application that wants the pause to hold pauses
/// again at the OnPlay that it did not ask for. (2) Seek goes on at the trick rate; Resume too.
///
/// Threading: any operation from any thread. How long an operation may block:
///  - Initialize... for as long as manifest and stream headers take to come; meanwhile what steers
///    the session, GetDuration, GetPlayRate, GetDefaultTracks and GetSubtitleFont wait for it on
///    other threads, and Finalize ends it.
///  - The first of Play, Resume, Seek, SetPlayRate: for as long as the first audio track takes to
///    open; the others of these wait with it, and nothing else does. Called back from a listener,
///    they do not wait: the track is opened behind them.
///  - Seek, Resume, SetPlayRate: until what they cancel has ended (a second at most) and the player
///    has flushed (1.5 s, on the television's player).
///  - Finalize: 3 s at most whatever the network does. It joins all threads, and answers -1 when it
///    is called from a listener's callback.
///  - Everything else: about 100 ms at most, whatever the network does; but an operation that meets
///    a jump of another thread waits for the jump.
/// One session in a process at a time: a television has one decoder.
/// Ownership: the application owns the controller and deletes it; the listener is not owned.
/// Units: milliseconds, bits per second, bytes. (size_t)-1 is "no track" and "no level".
/// Errors: see OPALError. Once a session was terminated by an error, operations answer that error
/// until a Finalize and a fresh Initialize... .
/// Environment: settings files and "log4cxx.properties" are read from the working directory.
/// SIGPIPE is set to a handler that does nothing, and the C library's limit above which a block of
/// memory is mapped by itself stays at 128 KiB. Initialize... prints the version, and the platform
/// adapter what it does, to standard output: who has a reader there for something else leads the
/// library's lines elsewhere, as opal-play does. Compatibility: the order of the operations is the
/// vtable's and so the ABI; new operations come last or in interfaces of their own.
class IStreamingController {
  public:
    virtual ~IStreamingController() = default;

    /// `country` ("US") and `language` ("en") go to the services with each request, the upload of
    /// the log included. They choose neither sound nor subtitles: SetAudioTrack does, and
    /// SetSubtitleTrack.
    virtual OPALError InitializeFromSMILFile(const std::string& url, const std::string& country,
                                             const std::string& language,
                                             OPALWriterModel model) = 0;
    virtual OPALError InitializeFromTIXString(const std::string& tixString,
                                              const std::string& sessionData,
                                              const std::string& country,
                                              const std::string& language,
                                              OPALWriterModel model) = 0;
    virtual OPALError Finalize() = 0;
    virtual OPALError Play() = 0;
    /// See (1) above.
    virtual OPALError Pause() = 0;
    /// OnStop tells when it is done; await it before the next Play.
    virtual OPALError Stop() = 0;
    /// Always 0; what is not known counts as 0 ms.
    virtual OPALError GetBufferedDuration(OPALStreamType type, int64_t& ms) = 0;
    /// Always OPAL_OK.
    virtual OPALError SetNotify(IStreamingControllerNotify* notify) = 0;
    virtual OPALError GetDuration(int64_t& ms) = 0;
    /// Seek and Play in one.
    virtual OPALError Resume(int64_t positionMs) = 0;
    /// `positionMs` returns where playback really restarts: a cluster's start at or before the time
    /// asked for. Also resumes a paused session.
    virtual OPALError Seek(int64_t& positionMs) = 0;
    /// -3 for a trick rate when the manifest has no trick track.
    virtual OPALError SetPlayRate(OPALPlayRate rate) = 0;
    virtual OPALError GetPlayRate(OPALPlayRate& rate) = 0;
    virtual OPALError GetVideoLevelInfo(size_t index, VideoLevelInfo& info) = 0;
    virtual OPALError GetAudioTrackInfo(size_t index, AudioTrackInfo& info) = 0;
    virtual OPALError GetSubtitleTrackInfo(size_t index, SubtitleTrackInfo& info) = 0;
    /// `size`: room on entry, the font's size on return; -5 if it does not fit, -7 while the track
    /// opens.
    virtual OPALError GetSubtitleFont(void* destination, size_t& size) = 0;
    virtual size_t GetVideoLevelCount() = 0;
    virtual size_t GetAudioTrackCount() = 0;
    virtual size_t GetSubtitleTrackCount() = 0;
    virtual size_t GetCurrentVideoLevel() = 0;
    virtual size_t GetCurrentAudioTrack() = 0;
    virtual size_t GetCurrentSubtitleTrack() = 0;
    virtual OPALError SetAudioTrack(size_t index) = 0;
    /// (size_t)-1 switches subtitles off. A track that is switched on in a pause resumes the
    /// session.
    virtual OPALError SetSubtitleTrack(size_t index) = 0;
    // The pull model (OPAL_WRITER_MODEL_PULL): the application takes the blocks of each stream
    // one by one, in the order of play; the television gets a copy of each, and shows it.
    //  - A block is what the file holds. H.264: the NAL units of one picture, each behind its
    //    length in four bytes, most significant first; the parameter sets are among the units
    //    of every key frame, and nothing else tells them. AAC: what
    //    AudioTrackInfo::codecPrivate describes, without headers of its own. Subtitles: a text
    //    in UTF-8.
    //  - The application paces. The television takes pictures at most two seconds ahead of its
    //    position, and sound at most one second ahead of the pictures that it has; the rest it
    //    passes over, which the answer does not tell. Who pulls with the film, a second ahead,
    //    has all of it shown; who pulls faster gets each block all the same.
    //  - Sound and subtitles need not be pulled: the picture goes on without them. A text whose
    //    time has come is drawn, and PullSubtitleBlock returns when it is gone, which wants a
    //    thread of its own; a text that is pulled earlier is not drawn.
    //  - -7: none now, call again some milliseconds later. So it is before OnPlay, in a pause,
    //    while playback waits for its buffers, for sound and subtitles in trick play, for sound
    //    of a codec that the television refuses, and for ever once an error has ended the
    //    session and what was buffered is pulled: OnError alone tells that error. -4: before
    //    Initialize..., sound before the first start, subtitles before a track was selected.
    //  - -9: all blocks of the last cluster were pulled; in reverse, of the first. After a jump
    //    the stream goes on. OnEndOfStream is the television's end: the last cluster of the
    //    picture was begun, and half a second at most waits to be shown. So it comes after -9
    //    where a second is kept ahead, and up to a cluster before -9 where less than half a
    //    second is.
    //  - Any other code: the block's cluster is damaged. OnError does not tell it. Finalize.

    /// The next block of a stream, in the pull model; else -3. `time` and `duration` in ms, `level`
    /// the index of the video level or of the track, `flags` 16 for a key frame, else 0.
    virtual OPALError PullAudioBlock(qutl::MemoryBuffer<unsigned char>& data, int64_t& time,
                                     int64_t& duration, uint32_t& level, uint32_t& flags) = 0;
    virtual OPALError PullVideoBlock(qutl::MemoryBuffer<unsigned char>& data, int64_t& time,
                                     int64_t& duration, uint32_t& level, uint32_t& flags) = 0;
    virtual OPALError PullSubtitleBlock(qutl::MemoryBuffer<unsigned char>& data, int64_t& time,
                                        int64_t& duration, uint32_t& level, uint32_t& flags) = 0;
    virtual OPALError GetPlatformPreferences(HABPreferences& preferences) = 0;
    /// The tracks that the content service prefers, else the first; (size_t)-1 without any, and for
    /// subtitles while they are off.
    virtual OPALError GetDefaultTracks(size_t& audio, size_t& subtitle) = 0;
    /// -4 while nothing is being buffered.
    virtual OPALError GetBufferingProgress(size_t& percent) = 0;
};

extern "C" {

/// A new controller, owned by the caller, who deletes it.
OPAL_EXPORT IStreamingController* NewStreamingController();

/// Fills in the library's version.
OPAL_EXPORT void KMTGetVersion(OPALVersion* version);
}
