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

/// One playback session at a time: from a manifest URL or a ticket to pictures on the set.
///
/// A session: NewStreamingController, SetNotify, Initialize..., Play, ... Finalize, and again.
/// Every operation that takes time is posted to the session's event loop; what came of it is told
/// to the listener.
///
/// Threading: any operation from any thread. Initialize... blocks while manifest and stream headers
/// are fetched; other operations block at most as long as the loop opens a stream. Finalize ends
/// everything within 3 s whatever the network does, joins all threads, and answers -1 when it is
/// called from a listener's callback. One session in a process at a time: the set has one decoder.
/// Ownership: the application owns the controller and deletes it; the listener is not owned.
/// Units: milliseconds, bits per second, bytes. (size_t)-1 is "no track" and "no level".
/// Errors: see OPALError. Once a session was terminated by an error, operations answer that error
/// until a Finalize and a fresh Initialize... .
/// Environment: settings files and "log4cxx.properties" are read from the working directory.
/// SIGPIPE is set to a handler that does nothing.
class IStreamingController {
  public:
    virtual ~IStreamingController() = default;

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
    /// `size`: room on entry, the font's size on return; -5 if it does not fit.
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
    /// The next block of a stream in the pull model, as the file holds it (H.264 with the lengths
    /// of its NAL units in front); `time` and `duration` in ms, `flags` 16 for a key frame. -7:
    /// none yet. -9: the stream is over. -3 in the push model.
    virtual OPALError PullAudioBlock(qutl::MemoryBuffer<unsigned char>& data, int64_t& time,
                                     int64_t& duration, uint32_t& level, uint32_t& flags) = 0;
    virtual OPALError PullVideoBlock(qutl::MemoryBuffer<unsigned char>& data, int64_t& time,
                                     int64_t& duration, uint32_t& level, uint32_t& flags) = 0;
    virtual OPALError PullSubtitleBlock(qutl::MemoryBuffer<unsigned char>& data, int64_t& time,
                                        int64_t& duration, uint32_t& level, uint32_t& flags) = 0;
    virtual OPALError GetPlatformPreferences(HABPreferences& preferences) = 0;
    /// The tracks that the content service prefers, else the first; (size_t)-1 without any.
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
