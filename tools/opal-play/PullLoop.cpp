#include "opal-play/PullLoop.h"

#include <algorithm>
#include <boost/crc.hpp>
#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <iomanip>
#include <stdexcept>

#include "opal-play/MonotonicTime.h"

namespace opal::play {
namespace {

// The sink takes two seconds; half of that leaves room for the decoder's start.
constexpr int64_t kAheadMs = 1000;
constexpr int64_t kAudioAheadMs = 500;
// Video that comes this late was not just waited for: the session was paused, or it starved.
constexpr int64_t kGapMs = 300;
constexpr int64_t kJumpMs = 10000;
constexpr std::chrono::milliseconds kNothingToDo(5);

}  // namespace

PullLoop::PullLoop(const std::string& blocksFile) {
    if (blocksFile.empty())
        return;
    m_blocks.open(blocksFile, std::ios::trunc);
    if (!m_blocks)
        throw std::runtime_error(blocksFile + " cannot be written: " + std::strerror(errno));
}

PullLoop::~PullLoop() {
    Stop();
}

void PullLoop::Start(IStreamingController& controller, std::function<void(OPALError)> failed) {
    m_failed = std::move(failed);
    m_thread = std::thread([this, &controller] { Run(controller); });
}

void PullLoop::Stop() {
    m_stop = true;
    if (m_thread.joinable())
        m_thread.join();
    m_blocks.flush();
}

void PullLoop::Run(IStreamingController& controller) {
    while (!m_stop) {
        const bool video = VideoIsDue() && PullVideo(controller);
        const bool audio = m_anchored && m_audioMs <= m_videoMs + kAudioAheadMs && m_speed == 1 &&
                           PullAudio(controller);
        if (!video && !audio)
            std::this_thread::sleep_for(kNothingToDo);
    }
}

bool PullLoop::VideoIsDue() const {
    if (!m_anchored || m_speed != m_anchorSpeed)
        return true;
    const int64_t media = std::llabs(m_videoMs - m_anchorMediaMs) / std::abs(m_anchorSpeed);
    return media <= MonotonicMs() - m_anchorRealMs + kAheadMs;
}

bool PullLoop::PullVideo(IStreamingController& controller) {
    const int64_t before = m_videoMs;
    if (!PullOne(controller, &IStreamingController::PullVideoBlock, "video", m_videoMs))
        return false;
    ++m_videoBlocks;
    const int64_t now = MonotonicMs();
    const int64_t media = std::llabs(before - m_anchorMediaMs) / std::abs(m_anchorSpeed);
    const int64_t due = m_anchorRealMs + std::max<int64_t>(0, media - kAheadMs);
    const bool late = now > due + kGapMs;
    if (!m_anchored || late || m_speed != m_anchorSpeed ||
        std::llabs(m_videoMs - before) > kJumpMs) {
        m_anchored = true;
        m_anchorSpeed = m_speed;
        m_anchorMediaMs = m_videoMs;
        // What went down before the gap is played out by now, so nothing is ahead.
        m_anchorRealMs = now;
        m_audioMs = m_videoMs;
    }
    return true;
}

bool PullLoop::PullAudio(IStreamingController& controller) {
    if (!PullOne(controller, &IStreamingController::PullAudioBlock, "audio", m_audioMs))
        return false;
    ++m_audioBlocks;
    return true;
}

bool PullLoop::PullOne(IStreamingController& controller, Pull pull, const char* stream,
                       int64_t& timeMs) {
    qutl::MemoryBuffer<unsigned char> data;
    int64_t time = 0;
    int64_t duration = 0;
    uint32_t level = 0;
    uint32_t flags = 0;
    const OPALError code = (controller.*pull)(data, time, duration, level, flags);
    if (code != OPAL_OK) {
        // Nothing yet and the end are no failures, nor is a session that opens, jumps or ends.
        if (IsFatalError(code) && code != OPAL_ERROR_NOT_READY && code != OPAL_ERROR_TERMINATED) {
            m_stop = true;
            m_failed(code);
        }
        return false;
    }
    timeMs = time;
    if (m_blocks.is_open()) {
        boost::crc_32_type crc;
        crc.process_bytes(data.GetData(), data.GetSize());
        m_blocks << stream << ' ' << time << ' ' << duration << ' ' << level << ' ' << flags << ' '
                 << data.GetSize() << ' ' << std::hex << std::setw(8) << std::setfill('0')
                 << crc.checksum() << std::dec << '\n';
    }
    return true;
}

}  // namespace opal::play
