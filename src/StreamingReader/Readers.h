#pragma once

#include <boost/noncopyable.hpp>
#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "Common/OPALError.h"
#include "Common/OPALPlayRate.h"
#include "StreamingDemux/EBML/AudioStreamInfo.h"
#include "StreamingReader/ReaderManager.h"

/// The three reader managers behind one object, with the operations that combine them. What has no
/// remark here is the manager's operation of that name.
///
/// Threading: as the managers: no lock and no state of its own.
/// Ownership: holds the managers; the destructor finalises them.
/// Units: milliseconds, bytes.
/// Errors: the managers'; a combined operation stops at the first failure.
class Readers : boost::noncopyable {
  public:
    /// Raised, the signal ends every transfer and opening, and lets none begin. It outlives this;
    /// null is never raised.
    explicit Readers(const opal::StopSignal* stop = nullptr);
    virtual ~Readers();

    virtual OPALError VideoInitialize(ISMILParser* parser, IClusterBuffer* buffer,
                                      IStreamingReaderNotify* notify, size_t index);
    virtual OPALError AudioInitialize(ISMILParser* parser, IClusterBuffer* buffer,
                                      IStreamingReaderNotify* notify, size_t index);
    virtual OPALError SubtitleInitialize(ISMILParser* parser, IClusterBuffer* buffer,
                                         IStreamingReaderNotify* notify, size_t index);
    /// Video, audio, subtitle.
    virtual OPALError Finalize();
    /// Empty on failure.
    virtual std::string GetAudioCodecID();
    virtual std::string GetAudioCodecID(size_t index);
    virtual OPALError GetAudioInfo(AudioStreamInfo& info);
    virtual OPALError GetAudioInfo(size_t index, AudioStreamInfo& info);
    /// Stops audio, makes the trick track current, seeks and starts it. -2 at 1x.
    virtual OPALError StartTrickPlay(int64_t positionMs, OPALPlayRate rate);
    virtual OPALError SetVideoRate(OPALPlayRate rate);
    virtual size_t GetAudioStreamCount();
    virtual size_t GetVideoStreamCount();
    virtual size_t GetSubtitleStreamCount();
    virtual OPALError GetVideoDuration(int64_t& ms);
    virtual OPALError StartAudio();
    virtual OPALError StartVideo();
    virtual OPALError StartSubtitle();
    /// Audio, video, subtitle.
    virtual OPALError StartAll();
    virtual OPALError StopAudio();
    virtual OPALError StopVideo();
    virtual OPALError StopSubtitle();
    /// Audio, video, subtitle.
    virtual OPALError StopAll();
    virtual OPALError SeekAudio(int64_t& ms);
    virtual OPALError SeekVideo(int64_t& ms);
    virtual OPALError SeekSubtitle(int64_t& ms);
    /// Each kind is sought to `ms`, which returns the time of the video cluster.
    virtual OPALError SeekAll(int64_t& ms);
    virtual OPALError SetAudioStream(size_t index);
    virtual OPALError SetVideoStream(size_t index);
    /// Opened by the manager's thread: poll GetSubtitleState.
    virtual OPALError SetSubtitleStream(size_t index);
    virtual size_t GetCurrentAudio();
    virtual size_t GetCurrentVideo();
    virtual size_t GetCurrentSubtitle();
    virtual OPALError GetAudioState(int& state);
    virtual OPALError GetVideoState(int& state);
    virtual OPALError GetSubtitleState(int& state);
    virtual OPALError GetAudioPosition(int64_t& ms);
    virtual OPALError GetVideoPosition(int64_t& ms);
    virtual OPALError GetSubtitlePosition(int64_t& ms);
    /// That of video.
    virtual OPALError GetPosition(int64_t& ms);
    virtual OPALError GetAudioError();
    virtual OPALError GetVideoError();
    virtual OPALError GetSubtitleError();
    virtual OPALError CancelAudio();
    virtual OPALError CancelVideo();
    /// The same, told to the session's observer as a transfer that was too slow.
    OPALError CancelSlowVideo();
    virtual OPALError CancelSubtitle();
    /// Audio, video, subtitle.
    virtual OPALError CancelAll();
    virtual OPALError GetSubtitleFont(const void*& data, size_t& size);
    virtual OPALError GetVideoBytesInFlight(size_t& bytes);
    virtual OPALError GetAudioBytesInFlight(size_t& bytes);
    virtual OPALError GetSubtitleBytesInFlight(size_t& bytes);
    virtual OPALError GetVideoBytesAhead(int64_t ms, size_t& bytes);
    virtual OPALError GetAudioBytesAhead(int64_t ms, size_t& bytes);
    virtual OPALError GetSubtitleBytesAhead(size_t& bytes);
    virtual const std::vector<IClusterIndex*>& GetVideoClusterIndexes();

    // What no operation above has: the forms that do not wait for the network.

    /// AudioInitialize, and SetAudioStream and SetVideoStream, but opened by the manager's thread:
    /// poll the state.
    OPALError BeginAudio(ISMILParser* parser, IClusterBuffer* buffer,
                         IStreamingReaderNotify* notify, size_t index);
    OPALError BeginAudioStream(size_t index);
    OPALError BeginVideoStream(size_t index);
    bool IsVideoTransferring();
    /// A subtitle stream that is being opened is left as it is until it is selected again.
    void GiveUpOpeningSubtitle();
    /// After a stop and a cancel of all kinds: nothing more of what was cancelled reaches a buffer
    /// once this returns. Waits for as long as the transport takes to cancel.
    void WaitForCancelled();
    /// Finalises the subtitle manager alone: it then counts as empty, and SubtitleInitialize may
    /// follow.
    OPALError FinalizeSubtitle();

  private:
    VideoReaderManager m_video;
    AudioReaderManager m_audio;
    SubtitleReaderManager m_subtitle;
};
