#include "Presenter.h"

#include <algorithm>
#include <cstdlib>

namespace tvset {
namespace {

constexpr int64_t kNever = INT64_MAX;
/// Further off the clock than this, a picture starts a new timeline.
constexpr int64_t kDiscontinuityMs = 10000;
/// A decoder behind by more than this loses pictures ...
constexpr int64_t kLateMs = 100;
/// ... but one is shown this often, and the clock set back to it.
constexpr int64_t kShowAtLeastEveryMs = 250;
/// Sound goes on for this long behind the last picture: films do not end with both at once.
constexpr int64_t kSoundTailMs = 60;
constexpr int64_t kUsualFrameMs = 40;
constexpr int64_t kShortestFrameMs = 10;
/// Trick play at low rates spaces its pictures by a second and more.
constexpr int64_t kLongestFrameMs = 2000;

}  // namespace

void Presenter::Reset() {
    m_anchored = false;
    m_stalled = false;
    m_ticking = false;
    m_hasShown = false;
    m_frameMs = kUsualFrameMs;
}

int64_t Presenter::MediaTime(int64_t nowMs) const {
    return m_ticking ? m_basePts + (nowMs - m_baseMs) : m_basePts;
}

int64_t Presenter::WhenDue(int64_t pts) const {
    return m_ticking ? m_baseMs + (pts - m_basePts) : kNever;
}

void Presenter::Anchor(int64_t pts, int64_t nowMs) {
    m_anchored = true;
    m_stalled = false;
    m_basePts = pts;
    m_baseMs = nowMs;
    m_ticking = m_running;
}

void Presenter::UpdateTicking(int64_t nowMs) {
    const bool ticking = m_anchored && m_running && !m_stalled;
    if (ticking != m_ticking) {
        m_basePts = MediaTime(nowMs);
        m_baseMs = nowMs;
        m_ticking = ticking;
    }
}

void Presenter::SetRunning(bool running, int64_t nowMs) {
    m_running = running;
    UpdateTicking(nowMs);
}

Presenter::Decision Presenter::Next(const Candidate* front, bool pipeEmpty, int64_t soundEnd,
                                    int64_t nowMs) {
    if (!m_running)
        return {Action::Wait, kNever};
    if (front != nullptr)
        return WithPicture(*front, nowMs);
    if (!m_anchored || m_stalled || !pipeEmpty)
        return {Action::Wait, kNever};
    return WithoutPicture(soundEnd, nowMs);
}

Presenter::Decision Presenter::WithoutPicture(int64_t soundEnd, int64_t nowMs) {
    const int64_t pictureEnd = m_shownPts + m_frameMs;
    const int64_t end = std::clamp(soundEnd, pictureEnd, pictureEnd + kSoundTailMs);
    if (MediaTime(nowMs) < end)
        return {Action::Wait, WhenDue(end)};
    m_stalled = true;
    m_ticking = false;
    m_basePts = end;
    return {Action::Wait, kNever};
}

Presenter::Decision Presenter::WithPicture(const Candidate& front, int64_t nowMs) {
    if (!m_anchored) {
        Anchor(front.pts, nowMs);
        return {Action::Show, 0};
    }
    const bool afterStall = m_stalled;
    m_stalled = false;
    UpdateTicking(nowMs);
    const int64_t ahead = front.pts - MediaTime(nowMs);
    if (std::abs(ahead) > kDiscontinuityMs) {
        Anchor(front.pts, nowMs);
        return {Action::Show, 0};
    }
    if (ahead > 0)
        return {Action::Wait, WhenDue(front.pts)};
    if (m_hasShown && front.pts < m_shownPts)
        return {Action::Drop, 0};
    const bool late = front.droppable && front.readyMs - WhenDue(front.pts) > kLateMs;
    if (late && !afterStall && nowMs - m_shownMs < kShowAtLeastEveryMs)
        return {Action::Drop, 0};
    if (late || afterStall)
        Anchor(front.pts, nowMs);
    return {Action::Show, 0};
}

void Presenter::Shown(int64_t pts, int64_t nowMs) {
    if (m_hasShown && pts > m_shownPts)
        m_frameMs = std::clamp(pts - m_shownPts, kShortestFrameMs, kLongestFrameMs);
    m_hasShown = true;
    m_shownPts = pts;
    m_shownMs = nowMs;
}

}  // namespace tvset
