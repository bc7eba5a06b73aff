#pragma once

#include <gmock/gmock.h>

#include <atomic>
#include <chrono>
#include <cstring>
#include <functional>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "Common/Clock.h"
#include "Common/CodecIDs.h"
#include "Common/StopSignal.h"
#include "MSrv_MM_PlayerInterface.h"
#include "PlatformAdapter/Common/PlatformAudio.h"
#include "PlatformAdapter/Common/PlatformVideo.h"
#include "PlatformAdapter/Mstar/HABArch.h"
#include "PlatformAdapter/Mstar/HABTimer.h"
#include "PlatformAdapter/Mstar/src/HABArchRecord.h"
#include "TvSet.h"
#include "support/AssertionTrap.h"

namespace opal::test {

namespace control = tvset::control;
using testing::ElementsAre;
using testing::HasSubstr;
using Bytes = std::vector<uint8_t>;

/// The television without decoding, on a clock that only the test and the library's sleeps move,
/// with its journal on.
class PlayerTest : public testing::Test, private opal::Clock {
  protected:
    PlayerTest() {
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
        testing::internal::GetCapturedStdout();
        opal::SetClock(nullptr);
        control::Reset();
    }

    /// Moves the television's clock in steps small enough for every picture to come at its time.
    void Advance(int64_t ms) {
        for (; ms > 0; ms -= 10) {
            m_clock->Advance(ms < 10 ? ms : 10);
            Settle();
        }
    }
    void Settle() { EXPECT_TRUE(control::WaitIdle()); }
    /// What was printed since the last call.
    static std::string TakePrinted() {
        const std::string printed = testing::internal::GetCapturedStdout();
        testing::internal::CaptureStdout();
        return printed;
    }
    /// Waits for another thread, in real time; false when that takes too long.
    [[nodiscard]] static bool Await(const std::function<bool()>& condition) {
        const auto giveUp = std::chrono::steady_clock::now() + std::chrono::seconds(20);
        while (!condition() && std::chrono::steady_clock::now() < giveUp)
            std::this_thread::yield();
        return condition();
    }
    static std::vector<control::JournalEntry> Entries(const std::string& call) {
        std::vector<control::JournalEntry> found;
        for (const auto& entry : control::Journal()) {
            if (entry.call == call)
                found.push_back(entry);
        }
        return found;
    }
    /// Decoder times of the payloads of one kind (1 video, 0 audio) that the television took, or
    /// refused.
    static std::vector<uint64_t> Pushed(uint32_t streamType, bool taken = true) {
        std::vector<uint64_t> times;
        for (const auto& entry : Entries("MM_PushPayload")) {
            if (entry.streamType == streamType && (entry.result == 0) == taken)
                times.push_back(entry.value);
        }
        return times;
    }
    /// The word at `offset` of a record that the television was given.
    static uint32_t Word(const Bytes& record, size_t offset) {
        uint32_t word = 0;
        std::memcpy(&word, &record[offset], sizeof(word));
        return word;
    }

    boost::posix_time::ptime Now() override { return boost::posix_time::ptime(); }
    void SleepMs(int64_t ms) override {
        m_sleptMs += ms;
        m_clock->Advance(ms);
    }

    const std::shared_ptr<tvset::ManualClock> m_clock = tvset::NewManualClock();
    std::atomic<int64_t> m_sleptMs{0};
};

/// The sinks of one session, made and configured as the controller does it.
struct Session {
    Session() {
        HABArch_New(&arch);
        HABArch_SetStopSignal(arch, &stop);
        HABTimer_New(&timer, arch, kSessionTimerKind);
        video = std::make_unique<PlatformVideo>(arch, timer);
        audio = std::make_unique<PlatformAudio>(arch, timer);
        EXPECT_EQ(OPAL_OK, video->Initialize());
        EXPECT_EQ(OPAL_OK, audio->Initialize());
        ConfigureVideo();
        ConfigureAudio();
    }
    ~Session() {
        video.reset();
        audio.reset();
        HABTimer_Delete(timer);
        HABArch_Delete(arch);
    }
    Session(const Session&) = delete;
    Session& operator=(const Session&) = delete;

    void ConfigureVideo() {
        EXPECT_EQ(OPAL_OK, video->Configure(VIDEOCODECID_AVC, 640, 360, 1, nullptr, 0, true));
    }
    /// Unless told otherwise AAC LC of 44100 Hz, stereo.
    void ConfigureAudio(const Bytes& config = {0x12, 0x10}, uint32_t rate = 48000,
                        const std::string& codec = AUDIOCODECID_AAC) {
        EXPECT_EQ(OPAL_OK, audio->Configure(codec, rate, 2, config.data(), config.size(), true));
    }
    OPALError Queue(int64_t ts) {
        Bytes unit = {0, 0, 0, 2, 0x67, 0x64, 0, 0, 0, 2, 0x65, 0x88};
        return video->Queue(unit.data(), unit.size(), ts, 40);
    }
    void QueueAll(std::initializer_list<int64_t> times) {
        for (const int64_t ts : times)
            EXPECT_EQ(OPAL_OK, Queue(ts)) << ts;
    }
    OPALError QueueAudio(int64_t ts) {
        uint8_t byte = 1;
        return audio->Queue(&byte, 1, ts, 21);
    }
    int64_t Position() {
        int64_t ms = -1;
        EXPECT_EQ(OPAL_OK, video->GetPosition(ms));
        return ms;
    }
    int64_t Buffered() {
        int64_t ms = -1;
        EXPECT_EQ(OPAL_OK, video->GetBufferedDuration(ms));
        return ms;
    }

    StopSignal stop;
    HHABARCH arch = nullptr;
    HHABTIMER timer = nullptr;
    std::unique_ptr<PlatformVideo> video;
    std::unique_ptr<PlatformAudio> audio;
};

}  // namespace opal::test
