#include "TvCore.h"

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <exception>
#include <new>

#include "Control.h"

namespace tvset {
namespace {

constexpr int kFailed = -1;
constexpr int kFull = 1;
/// A running decoder refuses video above this ...
constexpr size_t kVideoFull = size_t{32} << 20;
/// ... and one that does not run takes on until here, since a payload that waits for room while the
/// player is paused would keep the one who could resume it from doing so.
constexpr size_t kVideoLimit = 2 * kVideoFull;
constexpr size_t kAudioLimit = size_t{8} << 20;
constexpr size_t kPadding = 64;
constexpr int64_t kPlayingOkMs = 50;
constexpr uint32_t kCodecAvc = 7;
constexpr uint32_t kCodecAac = 6;
constexpr uint32_t kCodecUnset = 0xFFFFFFFF;

uint32_t Word(const unsigned char* bytes) {
    uint32_t value = 0;
    std::memcpy(&value, bytes, sizeof(value));
    return value;
}

}  // namespace

TvCore::TvCore(const Options& options, void* instance)
    : m_options(options),
      m_keptBack(options.holdOnePicture ? 1 : 0),
      m_wakeups(options.clock),
      m_events(m_wakeups, instance) {}

TvCore::~TvCore() {
    (void)Disconnect();
}

int TvCore::Connect() {
    const opal::MutexLock lock(m_mutex);
    if (m_connected)
        return 0;
    try {
        m_decoder = m_options.decoding == Decoding::Libav ? NewLibavVideoDecoder()
                                                          : NewPassThroughVideoDecoder();
        if (m_options.video == VideoOutput::Window) {
            std::string error;
            m_videoOut = NewDirectFBVideoOut(error);
            if (!m_videoOut) {
                std::fprintf(stderr, "television set: no window (%s), going on without\n",
                             error.c_str());
            }
        }
        if (!m_videoOut)
            m_videoOut = std::make_unique<NullVideoOut>();
        m_stop = false;
        m_presenter.Reset();
        m_events.Start();
        m_wakeups.Begin(Sleeper::Decode);
        m_threads.emplace_back([this] { DecodeLoop(); });
        m_wakeups.Begin(Sleeper::Display);
        m_threads.emplace_back([this] { DisplayLoop(); });
        m_wakeups.Begin(Sleeper::Audio);
        m_threads.emplace_back([this] { AudioLoop(); });
    } catch (const std::exception& error) {
        std::fprintf(stderr, "television set: %s\n", error.what());
        m_stop = true;
        m_wakeups.Wake();
        return kFailed;  // Disconnect() joins what was started
    }
    m_connected = true;
    return 0;
}

int TvCore::Disconnect() {
    std::vector<std::thread> ending;
    {
        opal::MutexLock lock(m_mutex);
        if (m_events.OnOwnThread())
            return kFailed;
        m_stop = true;
        m_connected = false;
        m_playing = m_paused = false;
        m_item = 0;
        ending.swap(m_threads);
    }
    m_wakeups.Wake();
    m_events.Stop();
    for (std::thread& thread : ending)
        thread.join();
    opal::MutexLock lock(m_mutex);
    DropAll();
    m_decoder.reset();
    m_videoOut.reset();
    return 0;
}

int TvCore::CreateItem(const ST_MEDIA_INFO& info, unsigned long* item) {
    const uint32_t videoCodec = Word(info.bytes + 80);
    const uint32_t audioCodec = Word(info.bytes + 160);
    unsigned long made = 0;
    {
        const opal::MutexLock lock(m_mutex);
        if (!m_connected || m_item != 0 || item == nullptr)
            return kFailed;
        made = ++m_lastItem;
        m_item = made;
        m_itemIsNew = true;
        m_playing = m_paused = false;
        m_hasPicture = false;
        m_sound.rate = Word(info.bytes + 124);
        m_sound.channels = 0;
        m_sound.open = true;
        m_video.resetDecoder = true;
        m_presenter.Reset();
        Refresh();
    }
    m_wakeups.Wake();
    const bool known = (videoCodec == kCodecAvc || videoCodec == kCodecUnset) &&
                       (audioCodec == kCodecAac || audioCodec == kCodecUnset);
    const EN_PLAYER_EVENT event = known ? E_EVENT_INIT_OK : E_EVENT_INIT_FAIL;
    if (Control::Get().InitBeforeHandle()) {
        m_events.Post(event, 0, 0);
        m_events.Drain();
        *item = made;
    } else {
        *item = made;
        m_events.Post(event, made, 0);
    }
    return 0;
}

int TvCore::DeleteItem(unsigned long item) {
    {
        opal::MutexLock lock(m_mutex);
        if (!IsItem(item))
            return kFailed;
        m_item = 0;
        m_playing = m_paused = false;
        DropAll();
    }
    m_events.Purge(item);
    m_wakeups.Wake();
    return 0;
}

int TvCore::Play(unsigned long item) {
    {
        const opal::MutexLock lock(m_mutex);
        if (!IsItem(item))
            return kFailed;
        m_playing = true;
        m_paused = false;
        Refresh();
    }
    m_wakeups.Wake();
    m_events.Post(E_EVENT_PLAYING_OK, item, kPlayingOkMs);
    return 0;
}

int TvCore::Stop(unsigned long item) {
    {
        opal::MutexLock lock(m_mutex);
        if (!IsItem(item))
            return kFailed;
        m_playing = m_paused = false;
        DropAll();
    }
    m_events.Purge(item, E_EVENT_PLAYING_OK);
    m_wakeups.Wake();
    return 0;
}

int TvCore::SetTrickMode(unsigned long item, const ST_TRICK_INFO& info) {
    {
        const opal::MutexLock lock(m_mutex);
        if (!IsItem(item) || info.u32Mode > 1)
            return kFailed;
        m_paused = info.u32Mode == 1;
        Refresh();
    }
    m_wakeups.Wake();
    return 0;
}

int TvCore::SetRectangle(unsigned long item, const ST_RECT& rect) {
    {
        const opal::MutexLock lock(m_mutex);
        if (!IsItem(item))
            return kFailed;
        m_rect = rect;
        m_outputChanged = true;
    }
    m_wakeups.Wake();
    return 0;
}

int TvCore::Push(unsigned long item, const ST_MMPLAYER_DATA_INFO& data) {
    const bool video = data.u32StreamType == 1;
    if (data.u32StreamType > 1 || data.pData == nullptr || data.u32Size == 0)
        return kFailed;
    Unit unit;
    unit.size = data.u32Size;
    unit.pts = data.u32Pts;
    const bool fits = unit.size <= (video ? kVideoFull : kAudioLimit);
    if (fits) {
        auto* copy = new (std::nothrow) uint8_t[unit.size + kPadding];
        if (copy == nullptr)
            return kFull;
        unit.data.reset(copy);
        std::memcpy(copy, data.pData, unit.size);
        std::memset(copy + unit.size, 0, kPadding);
    }
    int result = 0;
    bool first = false;
    {
        const opal::MutexLock lock(m_mutex);
        if (item != 0 && !IsItem(item))
            return kFailed;
        const bool forItem = item != 0;
        if (Control::Get().TakeRefusal(video)) {
            ++m_statistics.payloadsRefused;
            return kFull;
        }
        // Without an item data is staged for the next one; beside an item nobody would want it.
        if (!fits || (!forItem && m_item != 0)) {
            ++m_statistics.unitsDiscarded;
            return 0;
        }
        result = video ? PushVideo(std::move(unit), forItem) : PushAudio(std::move(unit));
        first = forItem && m_itemIsNew;
        m_itemIsNew = m_itemIsNew && !forItem;
    }
    m_wakeups.Wake();
    if (first && !m_events.OnOwnThread()) {
        m_events.Drain();  // who pushes a film of a few units without a pause must hear of INIT_OK
    }
    return result;
}

int TvCore::PushVideo(Unit unit, bool forItem) {
    const size_t after = m_video.bytes + unit.Cost();
    if (after > kVideoFull && forItem && Running()) {
        ++m_statistics.payloadsRefused;
        return kFull;
    }
    if (after > (forItem ? kVideoLimit : kVideoFull)) {
        ++m_statistics.unitsDiscarded;
        return 0;
    }
    m_video.bytes = after;
    m_video.lastPts = unit.pts;
    m_video.screenIsStale |= m_video.flushed;
    if (m_video.flushed || !m_video.screenIsStale || unit.pts < m_highestPts)
        m_highestPts = unit.pts;
    m_video.flushed = false;
    m_video.units.push_back(std::move(unit));
    ++m_statistics.videoUnitsPushed;
    Refresh();
    return 0;
}

int TvCore::PushAudio(Unit unit) {
    m_sound.bytes += unit.Cost();
    m_sound.units.push_back(std::move(unit));
    ++m_statistics.audioUnitsPushed;
    while (m_sound.bytes > kAudioLimit) {
        m_sound.bytes -= m_sound.units.front().Cost();
        m_sound.units.pop_front();
        ++m_statistics.unitsDiscarded;
    }
    return 0;
}

int TvCore::Flush(unsigned long item) {
    {
        opal::MutexLock lock(m_mutex);
        if (!IsItem(item))
            return kFailed;
        DropAll();
    }
    m_wakeups.Wake();
    return 0;
}

int TvCore::SwitchAudio(unsigned long item, uint32_t sampleRate, uint32_t channels) {
    {
        const opal::MutexLock lock(m_mutex);
        if (!IsItem(item))
            return kFailed;
        DropAudio();
        m_sound.rate = sampleRate;
        m_sound.channels = channels;
        m_sound.open = true;
    }
    m_wakeups.Wake();
    return 0;
}

int TvCore::SetVolume(unsigned char volume) {
    m_volume = std::min<unsigned>(volume, 100);
    return 0;
}

int TvCore::SetBlack(bool black) {
    {
        const opal::MutexLock lock(m_mutex);
        m_black = black;
        m_outputChanged = true;
    }
    m_wakeups.Wake();
    return 0;
}

uint32_t TvCore::VideoPts() const {
    // Never above what was pushed last: whoever subtracts the two counts on it. After a jump back
    // the old picture is still on the screen; what was pushed since then is all still to come.
    // Read in the reverse order of their change, so that no picture of before meets a later limit.
    const uint32_t highest = m_highestPts;
    return m_hasPicture ? std::min<uint32_t>(m_shownPts, highest) : 0;
}

void TvCore::PictureSize(int& width, int& height) const {
    const opal::MutexLock lock(m_mutex);
    width = m_statistics.pictureWidth;
    height = m_statistics.pictureHeight;
}

Statistics TvCore::GetStatistics() const {
    const opal::MutexLock lock(m_mutex);
    Statistics statistics = m_statistics;
    statistics.audioPlayedMs = static_cast<uint64_t>(m_sound.playedUs / 1000);
    statistics.shownPts = m_shownPts;
    return statistics;
}

Picture TvCore::Screen(bool& black) const {
    const opal::MutexLock lock(m_mutex);
    black = m_black;
    return m_screen;
}

void TvCore::ControlChanged() {
    {
        const opal::MutexLock lock(m_mutex);
        Refresh();
    }
    m_wakeups.Wake();
}

bool TvCore::Running() const {
    return m_playing && !m_paused && !Control::Get().Frozen();
}

bool TvCore::Starved() const {
    return Running() && m_video.units.empty() && !m_video.decoding && !HasPicture();
}

void TvCore::Refresh() {
    const int64_t now = m_wakeups.NowMs();
    m_presenter.SetRunning(Running(), now);
    if (!Starved())
        m_video.starvedSince = -1;
    else if (m_video.starvedSince < 0)
        m_video.starvedSince = now;
}

void TvCore::DropAll() {
    m_video.units.clear();
    m_pictures.clear();
    m_video.bytes = 0;
    ++m_video.generation;
    m_video.resetDecoder = true;
    m_video.decoderHolds = false;
    m_video.starvedSince = -1;
    m_video.flushed = true;
    DropAudio();
    while (m_showing)
        m_shownOne.Wait(m_mutex);
    m_presenter.Reset();
    Refresh();
}

void TvCore::DropAudio() {
    m_sound.units.clear();
    m_sound.bytes = 0;
    ++m_sound.generation;
    m_sound.endPts = 0;
    m_sound.flush = true;
}

}  // namespace tvset
