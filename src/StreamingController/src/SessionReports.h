#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <string>

#include "Common/OPALError.h"
#include "Common/OPALPlayRate.h"
#include "Common/SessionEvents.h"
#include "StreamSwitchingAlgorithm/AbandonRule.h"

class IStreamingControllerNotify;
class ISMILParser;
class LogEvent;

namespace opal {

/// What a session tells: each report is an event of the uploaded log and a call of the listener.
///
/// Threading: the event loop and, for what comes from a call of the application's, the
/// application's thread; the position's seconds and the listener may change at any time.
/// Ownership: refers to the controller's fields; the listener is the application's.
/// Units: milliseconds, bits per second.
class SessionReports {
  public:
    SessionReports(const std::atomic<IStreamingControllerNotify*>& listener,
                   const std::atomic<int64_t>& positionSeconds)
        : m_listener(listener), m_positionSeconds(positionSeconds) {}

    /// The calling thread is inside a call of the listener.
    bool IsCalling() const { return t_calling == this; }
    bool HasListener() const { return m_listener != nullptr; }
    /// Calls the listener, if there is one.
    template <typename Call>
    void Tell(Call call) const {
        if (IStreamingControllerNotify* listener = m_listener) {
            const Scope scope(this);
            call(*listener);
        }
    }

    void Play(OPALPlayRate rate, size_t level, size_t audio, size_t subtitle, int64_t audioAsset,
              int64_t subtitleAsset) const;
    void Stop() const;
    void Pause() const;
    void EndOfStream() const;
    void PlayRate(OPALPlayRate rate) const;
    void Underflow(size_t level) const;
    void AudioTrack(size_t track) const;
    /// For the log alone: which asset is heard.
    void AudioAsset(int64_t asset) const;
    void SubtitleTrack(size_t track, int64_t asset) const;
    void LevelChange(ISMILParser& manifest, size_t from, size_t to, int bandwidth) const;
    void Position(int64_t positionMs, size_t level) const;
    void BufferingProgress(size_t percent) const;
    /// An error that ends the session.
    void Error(OPALError code, const std::string& text) const;
    /// An error that a call of the application's answers too.
    void ContentError(OPALError code, const std::string& text) const;
    /// A refused audio track, which ends nothing.
    void UnsupportedAudio() const;
    /// For the observer alone: what the session was asked for, and what else it does.
    void Observe(SessionState state, int64_t valueMs = 0,
                 size_t to = static_cast<size_t>(-1)) const;
    void Observe(StateEvent event) const;
    void ObserveFailure(OPALError code) const;
    /// Where playback is, for the states that are told from now on.
    void ObservePosition(int64_t positionMs) const { m_positionMs = positionMs; }
    void SlowTransfer(const playback::AbandonRule::Transfer& transfer, size_t to,
                      int bandwidth) const;

  private:
    class Scope {
      public:
        explicit Scope(const SessionReports* reports) : m_outer(t_calling) { t_calling = reports; }
        ~Scope() { t_calling = m_outer; }
        Scope(const Scope&) = delete;
        Scope& operator=(const Scope&) = delete;

      private:
        const SessionReports* const m_outer;
    };

    static inline thread_local const SessionReports* t_calling = nullptr;
    const std::atomic<IStreamingControllerNotify*>& m_listener;
    const std::atomic<int64_t>& m_positionSeconds;
    mutable std::atomic<SessionState> m_observed{SessionState::Closed};  ///< the last one told
    mutable std::atomic<int64_t> m_positionMs{-1};                       ///< last known
};

}  // namespace opal
