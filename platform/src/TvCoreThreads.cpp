#include <algorithm>
#include <iterator>

extern "C" {
#include <libavutil/frame.h>
}

#include "Control.h"
#include "TvCore.h"

namespace tvset {
namespace {

/// A decoder without data for this long is asked for what it holds back ...
constexpr int64_t kDrainAfterMs = 200;
/// ... and earlier if the screen waits for it, but not between two units that come one by one.
constexpr int64_t kDrainForScreenMs = 20;
/// Sound later than this is not even decoded; what is less late is cut.
constexpr int64_t kAudioLateMs = 200;
/// Sound this early belongs to no picture to come, and would hold up all that follows.
constexpr int64_t kAudioEarlyMs = 10000;

void Scale(std::vector<int16_t>& samples, unsigned percent) {
    if (percent < 100) {
        for (int16_t& sample : samples)
            sample = static_cast<int16_t>(sample * static_cast<int>(percent) / 100);
    }
}

}  // namespace

// Decoding

void TvCore::DecodeLoop() {
    opal::MutexLock lock(m_mutex);
    while (!m_stop) {
        const uint64_t ticket = m_wakeups.Ticket();
        int64_t nextMs = kNever;
        if (!DecodeStep(nextMs))
            m_wakeups.Sleep(Sleeper::Decode, m_mutex, nextMs, ticket);
    }
    lock.Unlock();
    m_wakeups.End(Sleeper::Decode);
}

bool TvCore::DecodeStep(int64_t& nextMs) {
    if (m_video.resetDecoder) {
        m_video.resetDecoder = false;
        m_mutex.Unlock();
        m_decoder->Reset();
        m_mutex.Lock();
        return true;
    }
    if (m_item == 0)
        return false;
    if (!m_video.units.empty()) {
        if (m_pictures.size() >= m_decoder->MaxWaiting() + m_keptBack)
            return false;
        DecodeUnit();
        return true;
    }
    Refresh();
    if (m_video.starvedSince < 0 || m_decoder->Held() == 0)
        return false;
    const int64_t drainMs =
        m_video.starvedSince + (m_presenter.Stalled() ? kDrainForScreenMs : kDrainAfterMs);
    if (m_wakeups.NowMs() < drainMs) {
        nextMs = drainMs;
        return false;
    }
    DrainDecoder();
    return true;
}

void TvCore::DecodeUnit() {
    const Unit unit = std::move(m_video.units.front());
    m_video.units.pop_front();
    m_video.bytes -= unit.Cost();
    const uint64_t generation = m_video.generation;
    m_video.decoding = true;
    m_mutex.Unlock();
    std::vector<Picture> pictures;
    const unsigned errors = m_decoder->Decode(unit, pictures);
    m_mutex.Lock();
    m_statistics.decodeErrors += errors;
    KeepPictures(pictures, generation);
}

void TvCore::DrainDecoder() {
    const uint64_t generation = m_video.generation;
    m_video.decoding = true;
    m_mutex.Unlock();
    std::vector<Picture> pictures;
    m_decoder->Drain(pictures);
    m_mutex.Lock();
    KeepPictures(pictures, generation);
}

void TvCore::KeepPictures(std::vector<Picture>& pictures, uint64_t generation) {
    m_video.decoding = false;
    if (generation == m_video.generation) {
        m_video.decoderHolds = m_decoder->Held() != 0;
        const int64_t now = m_wakeups.NowMs();
        for (Picture& picture : pictures) {
            picture.readyMs = now;
            m_video.bytes += picture.cost;
            auto place = m_pictures.end();
            while (!m_decoder->InOrder() && place != m_pictures.begin() &&
                   std::prev(place)->pts > picture.pts)
                --place;
            m_pictures.insert(place, std::move(picture));
            ++m_statistics.framesDecoded;
        }
    }
    Refresh();
    m_wakeups.Wake();
}

// Display

void TvCore::DisplayLoop() {
    opal::MutexLock lock(m_mutex);
    while (!m_stop) {
        const uint64_t ticket = m_wakeups.Ticket();
        int64_t nextMs = kNever;
        if (!DisplayStep(nextMs))
            m_wakeups.Sleep(Sleeper::Display, m_mutex, nextMs, ticket);
    }
    lock.Unlock();
    m_wakeups.End(Sleeper::Display);
}

bool TvCore::DisplayStep(int64_t& nextMs) {
    if (m_outputChanged) {
        m_outputChanged = false;
        const ST_RECT rect = m_rect;
        const bool black = m_black;
        m_mutex.Unlock();
        m_videoOut->SetRectangle(rect);
        m_videoOut->SetBlack(black);
        m_mutex.Lock();
        return true;
    }
    Presenter::Candidate candidate{};
    if (HasPicture()) {
        candidate = {m_pictures.front().pts, m_pictures.front().readyMs,
                     m_pictures.front().frame != nullptr};
    }
    const bool pipeEmpty = m_video.units.empty() && !m_video.decoding;
    const bool ticking = m_presenter.Ticking();
    const Presenter::Decision decision = m_presenter.Next(HasPicture() ? &candidate : nullptr,
                                                          pipeEmpty, SoundEnd(), m_wakeups.NowMs());
    if (m_presenter.Ticking() != ticking) {
        m_wakeups.Wake();  // sound follows the clock, and the decoder gives what it holds back
    }
    switch (decision.action) {
        case Presenter::Action::Wait:
            nextMs = decision.untilMs;
            return false;
        case Presenter::Action::Drop:
            ++m_statistics.framesDropped;
            PopPicture();
            m_wakeups.Wake();
            return true;
        case Presenter::Action::Show:
            ShowFront();
            return true;
    }
    return false;
}

void TvCore::PopPicture() {
    m_video.bytes -= m_pictures.front().cost;
    m_pictures.pop_front();
    Refresh();
}

void TvCore::ShowFront() {
    const Picture picture = m_pictures.front();
    PopPicture();
    const uint64_t generation = m_video.generation;
    m_showing = true;
    m_screen = picture;
    m_mutex.Unlock();
    m_videoOut->Show(picture);
    control::JournalEntry entry;
    entry.call = "shown";
    entry.value = picture.pts;
    Control::Get().Append(std::move(entry));
    m_mutex.Lock();
    const int64_t now = m_wakeups.NowMs();
    m_presenter.Shown(picture.pts, now);
    if (picture.frame) {
        m_statistics.pictureWidth = picture.frame->width;
        m_statistics.pictureHeight = picture.frame->height;
    }
    if (m_statistics.firstPictureMs < 0)
        m_statistics.firstPictureMs = now;
    ++m_statistics.framesShown;
    // The gauge moves last: who sees it changed must also see the new PTS, or a jump forward would
    // be taken for a decoder that has run dry behind a full queue.
    m_shownPts = picture.pts;
    if (generation == m_video.generation) {
        m_video.screenIsStale = false;
        m_highestPts = m_video.lastPts;
    }
    m_hasPicture = true;
    ++m_gauge;
    m_showing = false;
    m_shownOne.NotifyAll();
    m_wakeups.Wake();
    m_mutex.Unlock();
    TellPictureListener(picture.pts);
    m_mutex.Lock();
}

// Sound

void TvCore::AudioLoop() {
    // A device may take its time to open; pictures do not wait for it.
    m_audioOut = NewAudioOut(m_options.audio, m_options.clock);
    m_audioDecoder = m_options.decoding == Decoding::Libav ? NewLibavAudioDecoder()
                                                           : NewPassThroughAudioDecoder();
    opal::MutexLock lock(m_mutex);
    while (!m_stop) {
        const uint64_t ticket = m_wakeups.Ticket();
        int64_t nextMs = kNever;
        if (!AudioStep(nextMs))
            m_wakeups.Sleep(Sleeper::Audio, m_mutex, nextMs, ticket);
    }
    lock.Unlock();
    m_audioOut.reset();
    m_audioDecoder.reset();
    m_wakeups.End(Sleeper::Audio);
}

bool TvCore::PrepareSound() {
    const bool running = Running() && m_presenter.Ticking();
    if (!m_sound.open && !m_sound.flush && running == m_sound.runs)
        return false;
    const bool open = m_sound.open;
    const bool flush = m_sound.flush;
    const uint32_t rate = m_sound.rate;
    const uint32_t channels = m_sound.channels;
    m_sound.open = m_sound.flush = false;
    m_sound.runs = running;
    m_mutex.Unlock();
    if (flush || open)
        m_placer.Restart();
    if (flush)
        m_audioOut->Flush();
    if (open)
        m_audioDecoder->Open(rate, channels);
    m_audioOut->Pause(!running);
    m_mutex.Lock();
    return true;
}

bool TvCore::AudioStep(int64_t& nextMs) {
    if (PrepareSound())
        return true;
    if (!Running() || !m_presenter.Anchored() || m_sound.units.empty())
        return false;
    const int64_t pts = m_sound.units.front().pts;
    const int64_t now = m_wakeups.NowMs();
    const int64_t aheadMs = pts - m_presenter.MediaTime(now);
    if (aheadMs < -kAudioLateMs || aheadMs > kAudioEarlyMs) {
        m_sound.bytes -= m_sound.units.front().Cost();
        m_sound.units.pop_front();
        return true;
    }
    if (aheadMs > m_audioOut->LeadMs()) {
        nextMs = m_presenter.WhenDue(pts - m_audioOut->LeadMs());
        return false;
    }
    PlaySound();
    return true;
}

int64_t TvCore::SoundEnd() const {
    if (m_video.decoderHolds) {
        return 0;  // pictures first
    }
    return m_sound.units.empty() ? m_sound.endPts : m_sound.units.back().pts + m_sound.lastMs;
}

void TvCore::PlaySound() {
    const Unit unit = std::move(m_sound.units.front());
    m_sound.units.pop_front();
    m_sound.bytes -= unit.Cost();
    const uint64_t generation = m_sound.generation;
    m_mutex.Unlock();
    Sound sound;
    const bool decoded = m_audioDecoder->Decode(unit, m_audioOut->WantsSamples(), sound);
    Scale(sound.samples, m_volume);
    m_mutex.Lock();
    if (!decoded)
        ++m_statistics.decodeErrors;
    else if (generation == m_sound.generation)
        Hear(unit.pts, sound);
}

void TvCore::Hear(uint32_t pts, Sound& sound) {
    m_sound.lastMs = sound.durationUs / 1000;
    m_sound.endPts = pts + m_sound.lastMs;
    const int64_t now = m_wakeups.NowMs();
    const int64_t dueMs = now + (pts - m_presenter.MediaTime(now));
    m_mutex.Unlock();
    const int64_t queuedUs = m_audioOut->QueuedUs();
    const int64_t measuredMs = m_wakeups.NowMs();
    const SoundPlacer::Place place =
        m_placer.Next((dueMs - measuredMs) * 1000, queuedUs, sound.durationUs);
    if (place.skipUs < sound.durationUs) {
        const auto skipped =
            static_cast<size_t>(place.skipUs * AudioOut::kRate / 1000000) * AudioOut::kChannels;
        sound.samples.erase(sound.samples.begin(),
                            sound.samples.begin() +
                                static_cast<ptrdiff_t>(std::min(skipped, sound.samples.size())));
        const int64_t leftUs = sound.durationUs - place.skipUs;
        control::JournalEntry entry;
        entry.call = "heard";
        entry.value = pts + static_cast<uint64_t>(place.skipUs / 1000);
        entry.size = static_cast<uint32_t>(leftUs / 1000);
        Control::Get().Append(std::move(entry), (queuedUs + place.silenceUs) / 1000);
        m_audioOut->Play(place.silenceUs, sound.samples, leftUs);
    }
    m_mutex.Lock();
    // What a device that lags behind makes necessary counts all the same.
    const int64_t lateUs = std::max<int64_t>(measuredMs - dueMs, 0) * 1000;
    m_sound.playedUs += sound.durationUs - std::min(place.skipUs, lateUs);
}

}  // namespace tvset
