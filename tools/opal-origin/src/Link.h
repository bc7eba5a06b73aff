#pragma once

#include <chrono>
#include <cstdint>
#include <deque>

#include "opal-origin/RateScript.h"

namespace opal::origin {

/// The one link that all connections share: grants quanta of bytes in turn, each when its last
/// byte would have passed a link of the scripted rate. A quantum that is late because the timer
/// was late does not move those behind it; an idle link saves nothing up.
///
/// Threading: none of its own; the caller serialises the calls. Time is an argument.
///
/// Units: nanoseconds since any fixed moment, bytes.
class Link {
  public:
    using Time = std::chrono::nanoseconds;
    static constexpr Time kNoTime = Time::max();

    void SetScript(const RateScript& script, Time now);
    /// A request has come: the first one after SetScript is the script's time 0.
    void OnRequest(Time now);

    /// For how long the script has run; negative: no request has come yet.
    Time ScriptTime(Time now) const { return m_scriptRuns ? now - m_scriptStart : Time(-1); }

    int64_t LatencyMs(Time now) const;
    /// How much to ask for at once: 5 ms of the link, at least a packet.
    int64_t Quantum(Time now) const;

    /// Queues a quantum of the connection; continuing: of a reply whose last one was just granted.
    void Ask(uint64_t connection, int64_t bytes, bool continuing, Time now);
    void Drop(uint64_t connection, Time now);
    /// When the first quantum in the queue is through; kNoTime: nothing asked for, or never.
    Time Due() const;
    /// Takes the first quantum if it is through.
    bool Take(Time now, uint64_t* pConnection);

  private:
    struct Slot {
        uint64_t connection;
        double bytes;
    };
    struct Piece {
        const RateScript::Step* pStep;
        Time end;  // kNoTime: lasts for ever
    };
    Piece PieceAt(Time time) const;
    Time FinishTime(Time start, double bytes) const;
    void Account(Time now);

    RateScript m_script = RateScript::Constant(kUnlimited);
    double m_bytesPerLoop = 0;
    bool m_scriptRuns = false;
    Time m_scriptStart{0};
    std::deque<Slot> m_queue;
    Time m_start{0};  // the front's transmission began here; with an empty queue: the link is free
    Time m_lateness{0};  // of the last grant
};

}  // namespace opal::origin
