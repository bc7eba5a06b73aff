#pragma once

#include <gmock/gmock.h>

#include <algorithm>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "Film.h"
#include "MSrv_MM_PlayerInterface.h"
#include "TvSet.h"

using Values = std::vector<uint64_t>;

/// A player on a television whose clock the test moves.
class PlayerFixture : public testing::Test {
  protected:
    void Open(tvset::Options options) {
        m_player.reset();
        tvset::control::Reset();
        options.clock = m_clock = tvset::NewManualClock();
        ASSERT_TRUE(tvset::Configure(options));
        tvset::control::Record(true);
        m_shownFrom = 0;
        m_player = std::make_unique<MSrv_MM_PlayerInterface>();
    }
    void TearDown() override {
        m_player.reset();
        tvset::control::Reset();
        EXPECT_TRUE(tvset::Configure(tvset::Options()));
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
        ASSERT_EQ(m_player->MM_Initialize(), 0);
        ASSERT_EQ(Create(sampleRate), 0);
        ASSERT_EQ(m_player->MM_Play(m_item), 0);
        Run(60);
        ASSERT_EQ(Events(), (Values{E_EVENT_INIT_OK, E_EVENT_PLAYING_OK}));
    }
    /// Values of what the television did of one kind, from an entry of the journal on.
    static Values Done(const char* what, size_t from = 0) {
        Values values;
        const auto journal = tvset::control::Journal();
        for (size_t i = from; i < journal.size(); ++i) {
            if (journal[i].call == what)
                values.push_back(journal[i].value);
        }
        return values;
    }
    static Values Events() { return Done("event"); }
    /// PTS of the pictures shown since `ForgetShown()`.
    Values Shown() const { return Done("shown", m_shownFrom); }
    void ForgetShown() { m_shownFrom = tvset::control::Journal().size(); }

    int PushTo(unsigned long item, const std::vector<uint8_t>& bytes, uint32_t pts,
               uint32_t streamType) {
        std::vector<uint8_t> own = bytes;  // overwritten after the call: it must have been copied
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
    /// Lets the television's time pass in steps of a few milliseconds, as it would by itself.
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
    static double AudioPlayedMs() {
        return static_cast<double>(tvset::GetStatistics().audioPlayedMs);
    }
    /// PTS of `count` pictures from `first` on.
    static Values Pictures(uint64_t first, size_t count) {
        Values all;
        for (uint64_t i = 0; i < count; ++i)
            all.push_back(first + i * film::kFrameMs);
        return all;
    }

    std::shared_ptr<tvset::ManualClock> m_clock;
    std::unique_ptr<MSrv_MM_PlayerInterface> m_player;
    unsigned long m_item = 0;
    size_t m_shownFrom = 0;
};
