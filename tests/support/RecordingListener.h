#pragma once

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <functional>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "StreamingController/IStreamingControllerNotify.h"

namespace opal::test {

/// A listener that writes each call down as a line: "OnPlay 1 0 -1", "OnError -13 ''".
///
/// OnPosition and OnBufferingProgress are kept apart from the other lines: how often they come
/// depends on the machine. Threading: any thread; `onEvent` runs on the caller's, without the lock.
class RecordingListener : public IStreamingControllerNotify {
  public:
    struct Position {
        int64_t ms;
        size_t level;
    };

    void OnPlay(OPALPlayRate rate, size_t audioTrack, size_t subtitleTrack) override {
        Add("OnPlay " + std::to_string(rate) + Index(audioTrack) + Index(subtitleTrack));
    }
    void OnStop() override { Add("OnStop"); }
    void OnPause() override { Add("OnPause"); }
    void OnEndOfStream() override { Add("OnEndOfStream"); }
    void OnAudioTrackChanged(size_t track) override { Add("OnAudioTrackChanged" + Index(track)); }
    void OnSubtitleTrackChanged(size_t track) override {
        Add("OnSubtitleTrackChanged" + Index(track));
    }
    void OnPlayRateChanged(OPALPlayRate rate) override {
        Add("OnPlayRateChanged " + std::to_string(rate));
    }
    void OnUnderflow() override { Add("OnUnderflow"); }
    void OnVideoLevelChanged(size_t levelCount, const VideoLevelChange& from,
                             const VideoLevelChange& to) override {
        Add("OnVideoLevelChanged " + std::to_string(levelCount) + " " + std::to_string(from.index) +
            " " + std::to_string(to.index));
    }
    void OnPosition(int64_t positionMs, size_t level) override {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_positions.push_back({positionMs, level});
        m_changed.notify_all();
    }
    void OnError(OPALError code, const char* text) override {
        Add("OnError " + std::to_string(code) + (text ? " '" + std::string(text) + "'" : " null"));
    }
    void OnSubtitle(int64_t startMs, int64_t endMs, const std::string& text) override {
        Add("OnSubtitle " + std::to_string(startMs) + " " + std::to_string(endMs) + " " + text);
    }
    void OnBufferingProgress(size_t percent) override {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_progress.push_back(percent);
        m_changed.notify_all();
    }

    std::vector<std::string> Lines() const {
        std::lock_guard<std::mutex> lock(m_mutex);
        return m_lines;
    }
    std::vector<Position> Positions() const {
        std::lock_guard<std::mutex> lock(m_mutex);
        return m_positions;
    }
    std::vector<size_t> Progress() const {
        std::lock_guard<std::mutex> lock(m_mutex);
        return m_progress;
    }
    size_t Count(const std::string& line) const {
        std::lock_guard<std::mutex> lock(m_mutex);
        return CountLocked(line);
    }
    void Clear() {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_lines.clear();
        m_positions.clear();
        m_progress.clear();
    }
    /// False if `line` has not come `count` times in real time.
    [[nodiscard]] bool WaitFor(const std::string& line, size_t count = 1,
                               std::chrono::milliseconds timeout = std::chrono::seconds(20)) const {
        std::unique_lock<std::mutex> lock(m_mutex);
        return m_changed.wait_for(lock, timeout, [&] { return CountLocked(line) >= count; });
    }
    [[nodiscard]] bool WaitForPrefix(const std::string& prefix) const {
        std::unique_lock<std::mutex> lock(m_mutex);
        return m_changed.wait_for(lock, std::chrono::seconds(20),
                                  [&] { return CountPrefixLocked(prefix) > 0; });
    }
    size_t CountPrefix(const std::string& prefix) const {
        std::lock_guard<std::mutex> lock(m_mutex);
        return CountPrefixLocked(prefix);
    }

    /// Set before the session starts.
    std::function<void(const std::string&)> onEvent;

  private:
    static std::string Index(size_t index) {
        return index == static_cast<size_t>(-1) ? " -1" : " " + std::to_string(index);
    }
    size_t CountLocked(const std::string& line) const {
        return static_cast<size_t>(std::count(m_lines.begin(), m_lines.end(), line));
    }
    size_t CountPrefixLocked(const std::string& prefix) const {
        return static_cast<size_t>(std::count_if(
            m_lines.begin(), m_lines.end(),
            [&](const std::string& line) { return line.compare(0, prefix.size(), prefix) == 0; }));
    }
    void Add(const std::string& line) {
        {
            std::lock_guard<std::mutex> lock(m_mutex);
            m_lines.push_back(line);
            m_changed.notify_all();
        }
        if (onEvent)
            onEvent(line);
    }

    mutable std::mutex m_mutex;
    mutable std::condition_variable m_changed;
    std::vector<std::string> m_lines;
    std::vector<Position> m_positions;
    std::vector<size_t> m_progress;
};

}  // namespace opal::test
