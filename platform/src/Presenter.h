#pragma once

#include <cstdint>

namespace tvset {

/// Decides when pictures are shown, and with it runs the television's media clock, which audio
/// follows.
///
/// The clock is anchored at the first picture after a start or flush and then ticks with the
/// television's time. It stands while the television does not run. When the decoder has nothing
/// left it goes on to the end of the picture on the screen, and of sound that ends little later,
/// and waits there, so that what comes late after a starvation is shown and not thrown away. A
/// picture that the decoder itself finished too late is dropped.
///
/// Threading: none of its own; guarded by its owner. Units: milliseconds.
class Presenter {
  public:
    enum class Action { Wait, Show, Drop };
    struct Decision {
        Action action;
        int64_t untilMs;  ///< Wait: when to ask again, unless something changes before
    };
    struct Candidate {
        int64_t pts;
        int64_t readyMs;  ///< when the decoder was done with it
        bool droppable;   ///< lateness of the decoder counts
    };

    /// Forgets the anchor: the next picture is shown at once.
    void Reset();
    void SetRunning(bool running, int64_t nowMs);
    /// `front`: the next picture, or null. `pipeEmpty`: nothing is being decoded or waits for it.
    /// `soundEnd`: media time up to which there is sound to finish when no picture is left.
    Decision Next(const Candidate* front, bool pipeEmpty, int64_t soundEnd, int64_t nowMs);
    void Shown(int64_t pts, int64_t nowMs);

    bool Anchored() const { return m_anchored; }
    bool Ticking() const { return m_ticking; }
    /// The clock has come to the end of the last picture there was.
    bool Stalled() const { return m_stalled; }
    /// Media time; only when anchored.
    int64_t MediaTime(int64_t nowMs) const;
    /// The time at which the media time is `pts`; never while the clock stands.
    int64_t WhenDue(int64_t pts) const;

  private:
    Decision WithoutPicture(int64_t soundEnd, int64_t nowMs);
    Decision WithPicture(const Candidate& front, int64_t nowMs);
    void Anchor(int64_t pts, int64_t nowMs);
    void UpdateTicking(int64_t nowMs);

    bool m_running = false;
    bool m_anchored = false;
    bool m_stalled = false;
    bool m_ticking = false;
    int64_t m_basePts = 0;  ///< media time at m_baseMs, or while the clock stands
    int64_t m_baseMs = 0;
    bool m_hasShown = false;  ///< since the anchor was set after Reset()
    int64_t m_shownPts = 0;
    int64_t m_shownMs = 0;
    int64_t m_frameMs = 0;
};

}  // namespace tvset
