#pragma once

#include <gtest/gtest.h>

#include <atomic>
#include <functional>
#include <iostream>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "Common/Clock.h"
#include "Common/CodecIDs.h"
#include "MSrv_MM_PlayerInterface.h"
#include "PlatformAdapter/Mstar/HABArch.h"
#include "PlatformAdapter/Mstar/HABAudio.h"
#include "PlatformAdapter/Mstar/HABTimer.h"
#include "PlatformAdapter/Mstar/HABVideo.h"
#include "PlatformAdapter/Mstar/src/HABArchRecord.h"
#include "TvSet.h"

namespace opal::test {

using Bytes = std::vector<uint8_t>;

/// AAC LC, 44100 Hz, stereo.
inline const Bytes kStereoConfig = {0x12, 0x10};

/// The set without decoding, on a clock that only the test and the library's sleeps move, with its
/// journal on. What is printed is kept and shown when a test fails.
class PlayerTest : public testing::Test, private opal::Clock {
  protected:
    PlayerTest() {
        namespace control = tvset::control;
        control::Reset();
        tvset::Options options;
        options.decoding = tvset::Decoding::PassThrough;
        options.clock = m_clock;
        EXPECT_TRUE(tvset::Configure(options));
        control::Record(true);
        opal::SetClock(this);
        testing::internal::CaptureStdout();
    }
    ~PlayerTest() override {
        m_allPrinted += testing::internal::GetCapturedStdout();
        if (HasFailure())
            std::cerr << m_allPrinted << std::endl;
        opal::SetClock(nullptr);
        tvset::control::Reset();
    }

    /// Moves the set's clock in steps small enough for every picture to come at its time.
    void Advance(int64_t ms) {
        for (; ms > 0; ms -= 10) {
            m_clock->Advance(ms < 10 ? ms : 10);
            Settle();
        }
    }
    void Settle() { EXPECT_TRUE(tvset::control::WaitIdle()); }
    /// What was printed since the last call.
    std::string TakePrinted() {
        const std::string printed = testing::internal::GetCapturedStdout();
        testing::internal::CaptureStdout();
        m_allPrinted += printed;
        return printed;
    }
    /// Waits for another thread, in real time.
    static void Await(const std::function<bool()>& condition) {
        while (!condition())
            std::this_thread::yield();
    }
    static std::vector<tvset::control::JournalEntry> Entries(const std::string& call) {
        std::vector<tvset::control::JournalEntry> found;
        for (const auto& entry : tvset::control::Journal()) {
            if (entry.call == call)
                found.push_back(entry);
        }
        return found;
    }
    /// Decoder times of the payloads of one kind (1 video, 0 audio) that the set took.
    static std::vector<uint64_t> Taken(uint32_t streamType) {
        std::vector<uint64_t> times;
        for (const auto& entry : Entries("MM_PushPayload")) {
            if (entry.streamType == streamType && entry.result == 0)
                times.push_back(entry.value);
        }
        return times;
    }

    boost::posix_time::ptime Now() override { return boost::posix_time::ptime(); }
    void SleepMs(int64_t ms) override {
        m_sleptMs += ms;
        m_clock->Advance(ms);
    }

    const std::shared_ptr<tvset::ManualClock> m_clock = tvset::NewManualClock();
    std::atomic<int64_t> m_sleptMs{0};

  private:
    std::string m_allPrinted;
};

/// The HAB objects of one session, video configured.
struct Session {
    Session() {
        HABArch_New(&arch);
        HABTimer_New(&timer, arch, kSessionTimerKind);
        HABVideo_New(&video, arch, timer);
        HABAudio_New(&audio, arch, timer);
        HABVideo_Configure(video, VIDEOCODECID_AVC, 1920, 1080, 6000000, nullptr, 0, true);
    }
    ~Session() {
        HABVideo_Delete(video);
        HABAudio_Delete(audio);
        HABTimer_Delete(timer);
        HABArch_Delete(arch);
    }
    Session(const Session&) = delete;
    Session& operator=(const Session&) = delete;

    int ConfigureAudio(const Bytes& config = kStereoConfig, uint32_t rate = 48000) {
        return HABAudio_Configure(audio, AUDIOCODECID_AAC, rate, 2, config.data(), config.size(),
                                  true);
    }
    int Queue(uint32_t ts) {
        Bytes unit = {0, 0, 0, 2, 0x65, 0x88};
        return HABVideo_Queue(video, unit.data(), static_cast<int32_t>(unit.size()), ts);
    }
    int QueueAudio(uint32_t ts) {
        const Bytes frame = {1, 2, 3};
        return HABAudio_Queue(audio, frame.data(), static_cast<uint32_t>(frame.size()), ts, 21);
    }
    int64_t Position() {
        int64_t ms = -1;
        EXPECT_EQ(0, HABVideo_GetPosition(video, &ms));
        return ms;
    }
    uint32_t Buffered() {
        uint32_t ms = 0;
        EXPECT_EQ(0, HABVideo_GetBufferedDuration(video, &ms));
        return ms;
    }

    HHABARCH arch = nullptr;
    HHABTIMER timer = nullptr;
    HHABVIDEO video = nullptr;
    HHABAUDIO audio = nullptr;
};

}  // namespace opal::test
