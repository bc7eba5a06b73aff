#pragma once

#include <atomic>
#include <cstdint>
#include <deque>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "AudioOut.h"
#include "Common/Mutex.h"
#include "Decoder.h"
#include "EventService.h"
#include "MSrv_MM_PlayerInterface.h"
#include "Presenter.h"
#include "TvSet.h"
#include "VideoOut.h"
#include "Wakeups.h"

namespace tvset {

/// The television behind the player service: queues of access units, a thread each for decoding,
/// display and sound, and the media clock between them.
///
/// Threading: any thread may call any operation. One mutex guards all state; no decoder, output,
/// listener or recipient is called with it held. `Flush`, `Stop` and `DeleteItem` wait for a
/// picture that is just being put on the screen, nothing else blocks. Ownership and lifetime:
/// `Disconnect`, or the destructor, ends the threads. Units: milliseconds. Errors: 0 for success,
/// -1 for failure, 1 for a payload that was not taken.
class TvCore {
  public:
    /// `options.clock` is set.
    TvCore(const Options& options, void* instance);
    ~TvCore();

    TvCore(const TvCore&) = delete;
    TvCore& operator=(const TvCore&) = delete;

    int Connect();
    int Disconnect();
    EventService& Events() { return m_events; }

    int CreateItem(const ST_MEDIA_INFO& info, unsigned long* item);
    int DeleteItem(unsigned long item);
    int Play(unsigned long item);
    int Stop(unsigned long item);
    int SetTrickMode(unsigned long item, const ST_TRICK_INFO& info);
    int SetRectangle(unsigned long item, const ST_RECT& rect);
    int Push(unsigned long item, const ST_MMPLAYER_DATA_INFO& data);
    int Flush(unsigned long item);
    int SwitchAudio(unsigned long item, uint32_t sampleRate, uint32_t channels);
    int SetVolume(unsigned char volume);
    int SetBlack(bool black);

    uint32_t VideoPts() const;
    unsigned long Gauge() const { return m_gauge; }
    void PictureSize(int& width, int& height) const;

    Statistics GetStatistics() const;
    /// What is on the screen; whether it is covered.
    Picture Screen(bool& black) const;
    /// After a test's orders changed.
    void ControlChanged();
    bool WaitIdle(int timeoutMs) { return m_wakeups.WaitIdle(timeoutMs); }

  private:
    // One thread each.
    void DecodeLoop();
    void DisplayLoop();
    void AudioLoop();
    // Steps of the loops; true if something was done, otherwise when to look again.
    bool DecodeStep(int64_t& nextMs) OPAL_REQUIRES(m_mutex);
    bool DisplayStep(int64_t& nextMs) OPAL_REQUIRES(m_mutex);
    bool AudioStep(int64_t& nextMs) OPAL_REQUIRES(m_mutex);
    void DecodeUnit() OPAL_REQUIRES(m_mutex);
    void DrainDecoder() OPAL_REQUIRES(m_mutex);
    void KeepPictures(std::vector<Picture>& pictures, uint64_t generation) OPAL_REQUIRES(m_mutex);
    void ShowFront() OPAL_REQUIRES(m_mutex);
    void PlaySound() OPAL_REQUIRES(m_mutex);
    void Hear(uint32_t pts, Sound& sound) OPAL_REQUIRES(m_mutex);
    int64_t SoundEnd() const OPAL_REQUIRES(m_mutex);
    bool PrepareSound() OPAL_REQUIRES(m_mutex);

    bool IsItem(unsigned long item) const OPAL_REQUIRES(m_mutex) {
        return m_connected && item != 0 && item == m_item;
    }
    bool Running() const OPAL_REQUIRES(m_mutex);
    bool Starved() const OPAL_REQUIRES(m_mutex);
    bool HasPicture() const OPAL_REQUIRES(m_mutex) { return m_pictures.size() > m_keptBack; }
    void PopPicture() OPAL_REQUIRES(m_mutex);
    void Refresh() OPAL_REQUIRES(m_mutex);
    void DropAll() OPAL_REQUIRES(m_mutex);
    void DropAudio() OPAL_REQUIRES(m_mutex);
    int PushVideo(Unit unit, bool forItem) OPAL_REQUIRES(m_mutex);
    int PushAudio(Unit unit) OPAL_REQUIRES(m_mutex);

    const Options m_options;
    const size_t m_keptBack;  ///< pictures that wait for the next before they are shown
    Wakeups m_wakeups;
    EventService m_events;

    mutable opal::Mutex m_mutex;
    opal::CondVar m_shownOne;
    std::vector<std::thread> m_threads OPAL_GUARDED_BY(m_mutex);
    std::unique_ptr<VideoDecoder> m_decoder;       ///< used by the decode thread only
    std::unique_ptr<VideoOut> m_videoOut;          ///< used by the display thread only
    std::unique_ptr<AudioDecoder> m_audioDecoder;  ///< used by the sound thread only
    std::unique_ptr<AudioOut> m_audioOut;          ///< likewise
    SoundPlacer m_placer;                          ///< likewise

    bool m_connected OPAL_GUARDED_BY(m_mutex) = false;
    bool m_stop OPAL_GUARDED_BY(m_mutex) = false;
    unsigned long m_item OPAL_GUARDED_BY(m_mutex) = 0;
    unsigned long m_lastItem OPAL_GUARDED_BY(m_mutex) = 0;
    bool m_itemIsNew OPAL_GUARDED_BY(m_mutex) = false;  ///< nothing was pushed to it yet
    bool m_playing OPAL_GUARDED_BY(m_mutex) = false;
    bool m_paused OPAL_GUARDED_BY(m_mutex) = false;

    std::deque<Unit> m_video
        OPAL_GUARDED_BY(m_mutex);  ///< not yet decoded; without an item: staged for the next
    size_t m_videoBytes OPAL_GUARDED_BY(m_mutex) =
        0;  ///< of m_video, and of what passes through undecoded in m_pictures
    std::deque<Picture> m_pictures OPAL_GUARDED_BY(m_mutex);
    uint64_t m_generation OPAL_GUARDED_BY(m_mutex) =
        0;  ///< counts flushes: what was decoded before one is not kept
    bool m_resetDecoder OPAL_GUARDED_BY(m_mutex) = false;
    bool m_decoding OPAL_GUARDED_BY(m_mutex) = false;
    bool m_decoderHolds OPAL_GUARDED_BY(m_mutex) =
        false;  ///< pictures that only more units, or draining it, bring out
    int64_t m_starvedSince OPAL_GUARDED_BY(m_mutex) = -1;
    uint32_t m_pushedPts OPAL_GUARDED_BY(m_mutex) = 0;  ///< of the last video unit
    bool m_flushed OPAL_GUARDED_BY(m_mutex) = false;    ///< no video unit came since the last flush
    bool m_pictureStale OPAL_GUARDED_BY(m_mutex) =
        false;  ///< units came since, and none of them is on the screen yet

    std::deque<Unit> m_audio OPAL_GUARDED_BY(m_mutex);
    size_t m_audioBytes OPAL_GUARDED_BY(m_mutex) = 0;
    uint64_t m_audioGeneration OPAL_GUARDED_BY(m_mutex) = 0;
    bool m_openAudio OPAL_GUARDED_BY(m_mutex) = false;
    bool m_flushAudio OPAL_GUARDED_BY(m_mutex) = false;
    uint32_t m_audioRate OPAL_GUARDED_BY(m_mutex) = 0;
    uint32_t m_audioChannels OPAL_GUARDED_BY(m_mutex) = 0;
    bool m_soundRuns OPAL_GUARDED_BY(m_mutex) = false;
    int64_t m_audioPlayedUs OPAL_GUARDED_BY(m_mutex) = 0;
    int64_t m_soundMs OPAL_GUARDED_BY(m_mutex) = 0;      ///< of the last unit
    int64_t m_soundEndPts OPAL_GUARDED_BY(m_mutex) = 0;  ///< of what went to the output

    Presenter m_presenter OPAL_GUARDED_BY(m_mutex);
    Picture m_screen OPAL_GUARDED_BY(m_mutex);
    bool m_black OPAL_GUARDED_BY(m_mutex) = false;
    ST_RECT m_rect OPAL_GUARDED_BY(m_mutex) = {};
    bool m_outputChanged OPAL_GUARDED_BY(m_mutex) = false;
    bool m_showing OPAL_GUARDED_BY(m_mutex) = false;
    Statistics m_statistics OPAL_GUARDED_BY(m_mutex);

    // Read without the mutex by the position queries.
    std::atomic<bool> m_hasPicture{false};
    std::atomic<uint32_t> m_shownPts{0};
    std::atomic<uint32_t> m_highestPts{0};  ///< that the position may have
    std::atomic<unsigned long> m_gauge{0};
    std::atomic<unsigned> m_volume{100};
};

/// Calls the application's listener. Never with a lock of the core held.
void TellPictureListener(uint32_t ptsMs);

}  // namespace tvset
