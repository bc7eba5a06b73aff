#pragma once

#include <gtest/gtest.h>

#include <algorithm>
#include <condition_variable>
#include <cstring>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "Film.h"
#include "MSrv_MM_PlayerInterface.h"
#include "TvSet.h"

/// What the set's event recipient heard.
class Ear {
  public:
    struct Heard {
        unsigned long event;
        unsigned long item;
        std::thread::id thread;
    };

    static Ear& Get() {
        static Ear ear;
        return ear;
    }
    static unsigned char Recipient(void*, void* event, void* item) {
        Ear& ear = Get();
        const std::lock_guard<std::mutex> lock(ear.m_mutex);
        ear.m_heard.push_back({static_cast<unsigned long>(reinterpret_cast<uintptr_t>(event)),
                               *static_cast<unsigned long*>(item), std::this_thread::get_id()});
        return 0;
    }
    void Clear() {
        const std::lock_guard<std::mutex> lock(m_mutex);
        m_heard.clear();
    }
    std::vector<Heard> All() {
        const std::lock_guard<std::mutex> lock(m_mutex);
        return m_heard;
    }
    std::vector<unsigned long> Events() {
        std::vector<unsigned long> events;
        for (const Heard& heard : All()) {
            events.push_back(heard.event);
        }
        return events;
    }

  private:
    std::mutex m_mutex;
    std::vector<Heard> m_heard;
};

using Events = std::vector<unsigned long>;
using Ptss = std::vector<uint32_t>;

/// A player on a set whose clock the test moves.
class PlayerFixture : public testing::Test {
  protected:
    void Open(tvset::Options options) {
        Ear::Get().Clear();
        tvset::control::Reset();
        if (!options.clock) {
            m_clock = tvset::NewManualClock();
            options.clock = m_clock;
        }
        ASSERT_TRUE(tvset::Configure(options));
        tvset::SetPictureListener([this](uint32_t pts) {
            const std::lock_guard<std::mutex> lock(m_mutex);
            m_shown.push_back(pts);
        });
        m_player = std::make_unique<MSrv_MM_PlayerInterface>();
    }

    void TearDown() override {
        m_player.reset();
        tvset::SetPictureListener({});
        tvset::control::Reset();
        EXPECT_TRUE(tvset::Configure(tvset::Options()));
    }

    void Connect() {
        ASSERT_EQ(m_player->MM_Initialize(), 0);
        ASSERT_EQ(m_player->AddEventRecipient(Ear::Recipient), 0);
    }

    int Create(uint32_t sampleRate = 44100) {
        ST_MEDIA_INFO info{};
        info.bytes[80] = 7;
        std::memcpy(info.bytes + 124, &sampleRate, sizeof(sampleRate));
        info.bytes[160] = 6;
        return m_player->MM_CreateMediaItem(info, &m_item);
    }

    /// An item that plays, PLAYING_OK delivered.
    void StartPlaying(uint32_t sampleRate = 44100) {
        Connect();
        ASSERT_EQ(Create(sampleRate), 0);
        ASSERT_EQ(m_player->MM_Play(m_item), 0);
        Run(60);
        ASSERT_EQ(Ear::Get().Events(), (Events{E_EVENT_INIT_OK, E_EVENT_PLAYING_OK}));
    }

    int PushTo(unsigned long item, const std::vector<uint8_t>& bytes, uint32_t pts,
               uint32_t streamType) {
        std::vector<uint8_t> own = bytes;  // overwritten after the call: the set must have copied
        ST_MMPLAYER_DATA_INFO data{own.data(), static_cast<uint32_t>(own.size()), pts, streamType};
        const int result = m_player->MM_PushPayload(item, &data);
        std::fill(own.begin(), own.end(), uint8_t{0xFF});
        return result;
    }
    int PushVideo(const std::vector<uint8_t>& bytes, uint32_t pts) {
        return PushTo(m_item, bytes, pts, 1);
    }
    int PushAudio(const std::vector<uint8_t>& bytes, uint32_t pts) {
        return PushTo(m_item, bytes, pts, 0);
    }
    /// Units [from, to) of the film, in decoding order, their PTS moved by `shift`.
    void PushFilm(size_t from, size_t to, uint32_t shift = 0) {
        for (size_t i = from; i < to; ++i) {
            const film::AccessUnit& unit = film::Video()[i];
            ASSERT_EQ(PushVideo(unit.bytes, unit.pts + shift), 0);
        }
    }
    void PushSound(const film::Stream& stream, uint32_t shift = 0) {
        for (const film::AccessUnit& unit : stream) {
            ASSERT_EQ(PushAudio(unit.bytes, unit.pts + shift), 0);
        }
    }

    void Settle() { ASSERT_TRUE(tvset::control::WaitIdle()); }
    /// Lets the set's time pass in steps of a few milliseconds, as it would by itself.
    void Run(int64_t ms) {
        Settle();
        for (int64_t at = 0; at < ms; at += 20) {
            m_clock->Advance(std::min<int64_t>(20, ms - at));
            Settle();
        }
    }
    int SetPaused(bool paused) {
        return m_player->MM_SetTrickMode(m_item, ST_TRICK_INFO{paused ? 1u : 0u, 1});
    }
    int Flush() { return m_player->MM_SetFlushData(m_item, EN_DATA_TYPE_VIDEO); }

    unsigned long Gauge() {
        unsigned long value = 0;
        EXPECT_EQ(m_player->MM_GetVideoDataBufferInfo(m_item, EN_PLAYER_VIDEO_BUFFER_LEVEL, &value),
                  0);
        return value;
    }
    uint32_t Position() { return m_player->MM_GetVideoPTS(); }
    Ptss Shown() {
        const std::lock_guard<std::mutex> lock(m_mutex);
        return m_shown;
    }
    void ForgetShown() {
        const std::lock_guard<std::mutex> lock(m_mutex);
        m_shown.clear();
    }
    /// PTS of `count` pictures from `first` on.
    static Ptss Pictures(uint32_t first, size_t count, uint32_t step = film::kFrameMs) {
        Ptss all;
        for (size_t i = 0; i < count; ++i) {
            all.push_back(first + static_cast<uint32_t>(i) * step);
        }
        return all;
    }

    std::shared_ptr<tvset::ManualClock> m_clock;
    std::unique_ptr<MSrv_MM_PlayerInterface> m_player;
    unsigned long m_item = 0;

  private:
    std::mutex m_mutex;
    Ptss m_shown;
};
