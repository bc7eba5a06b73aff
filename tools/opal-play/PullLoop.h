#pragma once

#include <atomic>
#include <cstdint>
#include <fstream>
#include <functional>
#include <string>
#include <thread>

#include "StreamingController/IStreamingController.h"

namespace opal::play {

/// Fetches the blocks of a session in the pull model, video a second ahead of real time and audio
/// beside it. A thread of its own, which must end before the session does.
class PullLoop {
  public:
    /// `blocksFile`, if not empty, gets a line for each block. Throws std::runtime_error when it
    /// cannot be written.
    explicit PullLoop(const std::string& blocksFile);
    ~PullLoop();
    PullLoop(const PullLoop&) = delete;
    PullLoop& operator=(const PullLoop&) = delete;

    /// `failed` is called on the thread, at most once, with a code that no further pull can mend.
    void Start(IStreamingController& controller, std::function<void(OPALError)> failed);
    void Stop();
    /// Once it is stopped: whether the file has every line.
    bool IsWritten() const { return !m_blocks.is_open() || m_blocks.good(); }
    void SetSpeed(int speed) { m_speed = speed; }
    uint64_t VideoBlocks() const { return m_videoBlocks; }
    uint64_t AudioBlocks() const { return m_audioBlocks; }

  private:
    using Pull = OPALError (IStreamingController::*)(qutl::MemoryBuffer<unsigned char>&, int64_t&,
                                                     int64_t&, uint32_t&, uint32_t&);
    void Run(IStreamingController& controller);
    bool PullVideo(IStreamingController& controller);
    bool PullAudio(IStreamingController& controller);
    bool PullOne(IStreamingController& controller, Pull pull, const char* stream, int64_t& timeMs);
    bool VideoIsDue() const;

    std::thread m_thread;
    std::function<void(OPALError)> m_failed;
    std::ofstream m_blocks;
    std::atomic<bool> m_stop{false};
    std::atomic<int> m_speed{1};
    std::atomic<uint64_t> m_videoBlocks{0};
    std::atomic<uint64_t> m_audioBlocks{0};

    // The thread's own: where in media and in real time the present run of blocks began.
    bool m_anchored = false;
    int m_anchorSpeed = 1;
    int64_t m_anchorMediaMs = 0;
    int64_t m_anchorRealMs = 0;
    int64_t m_videoMs = 0;
    int64_t m_audioMs = 0;
};

}  // namespace opal::play
