#include "opal-origin/src/Link.h"

#include <algorithm>
#include <cmath>
#include <limits>

namespace opal::origin {
namespace {

using std::chrono::milliseconds;

constexpr int64_t kPacket = 1460;
constexpr int64_t kMaxQuantum = 64 * 1024;
constexpr int64_t kUnlimitedQuantum = 256 * 1024;
constexpr int64_t kQuantaPerSecond = 200;
// On a loaded machine this thread gets its turn late. What passed between a quantum's due time and
// its grant is made good whole, within reason. What passed between the grant and the next quantum
// may also be a client that did not read, and that time is lost, as it would be on a real link.
constexpr milliseconds kMaxLateness{1000};
constexpr milliseconds kMaxWriteTime{100};
constexpr double kMaxNanoseconds = 1e18;

double Nanoseconds(double bytes, int64_t bitsPerSecond) {
    return bytes * 8e9 / static_cast<double>(bitsPerSecond);
}

double Bytes(Link::Time time, int64_t bitsPerSecond) {
    return static_cast<double>(time.count()) * static_cast<double>(bitsPerSecond) / 8e9;
}

// Scripts built by hand may break their own rules; what does not fit is left out.
RateScript Sane(const RateScript& script) {
    RateScript sane;
    for (RateScript::Step step : script.steps) {
        step.atMs = sane.steps.empty() ? 0 : step.atMs;
        step.latencyMs = std::max<int64_t>(step.latencyMs, 0);
        if (sane.steps.empty() || step.atMs > sane.steps.back().atMs)
            sane.steps.push_back(step);
    }
    if (sane.steps.empty())
        return RateScript::Constant(kUnlimited);
    sane.loopMs = script.loopMs > sane.steps.back().atMs ? script.loopMs : 0;
    return sane;
}

double BytesPerLoop(const RateScript& script) {
    double bytes = 0;
    for (size_t i = 0; i < script.steps.size() && script.loopMs > 0; ++i) {
        const RateScript::Step& step = script.steps[i];
        if (step.bitsPerSecond < 0)
            return std::numeric_limits<double>::infinity();
        const int64_t endMs =
            i + 1 < script.steps.size() ? script.steps[i + 1].atMs : script.loopMs;
        bytes += Bytes(milliseconds(endMs - step.atMs), step.bitsPerSecond);
    }
    return bytes;
}

}  // namespace

void Link::SetScript(const RateScript& script, Time now) {
    Account(now);
    m_script = Sane(script);
    m_bytesPerLoop = BytesPerLoop(m_script);
    m_scriptRuns = false;
}

void Link::OnRequest(Time now) {
    if (!m_scriptRuns) {
        Account(now);
        m_scriptRuns = true;
        m_scriptStart = now;
    }
}

int64_t Link::LatencyMs(Time now) const {
    return PieceAt(now).pStep->latencyMs;
}

int64_t Link::Quantum(Time now) const {
    const int64_t rate = PieceAt(now).pStep->bitsPerSecond;
    return rate < 0 ? kUnlimitedQuantum
                    : std::clamp(rate / 8 / kQuantaPerSecond, kPacket, kMaxQuantum);
}

void Link::Ask(uint64_t connection, int64_t bytes, bool continuing, Time now) {
    if (m_queue.empty())
        m_start = continuing ? std::max(m_start, now - m_lateness - kMaxWriteTime) : now;
    m_queue.push_back({connection, static_cast<double>(bytes)});
}

void Link::Drop(uint64_t connection, Time now) {
    if (!m_queue.empty() && m_queue.front().connection == connection)
        m_start = now;
    m_queue.erase(
        std::remove_if(m_queue.begin(), m_queue.end(),
                       [connection](const Slot& slot) { return slot.connection == connection; }),
        m_queue.end());
}

Link::Time Link::Due() const {
    return m_queue.empty() ? kNoTime : FinishTime(m_start, m_queue.front().bytes);
}

bool Link::Take(Time now, uint64_t* pConnection) {
    const Time due = Due();
    if (due > now)
        return false;
    *pConnection = m_queue.front().connection;
    m_queue.pop_front();
    m_start = due;
    m_lateness = std::min(now - due, Time(kMaxLateness));
    return true;
}

Link::Piece Link::PieceAt(Time time) const {
    const auto& steps = m_script.steps;
    if (!m_scriptRuns)
        return {&steps.front(), kNoTime};
    const Time elapsed = std::max(time - m_scriptStart, Time(0));
    const Time loop = milliseconds(m_script.loopMs);
    const Time loopStart = loop.count() > 0 ? elapsed - elapsed % loop : Time(0);
    const auto next = std::upper_bound(
        steps.begin() + 1, steps.end(), elapsed - loopStart,
        [](Time at, const RateScript::Step& step) { return at < milliseconds(step.atMs); });
    Time end = kNoTime;
    if (next != steps.end())
        end = m_scriptStart + loopStart + milliseconds(next->atMs);
    else if (loop.count() > 0)
        end = m_scriptStart + loopStart + loop;
    return {&*(next - 1), end};
}

Link::Time Link::FinishTime(Time start, double bytes) const {
    Time time = start;
    if (m_scriptRuns && m_script.loopMs > 0) {
        const double loops = m_bytesPerLoop > 0 ? std::floor(bytes / m_bytesPerLoop) : 0;
        const Time loop = milliseconds(m_script.loopMs);
        if (m_bytesPerLoop <= 0 || loops * static_cast<double>(loop.count()) > kMaxNanoseconds)
            return kNoTime;
        if (loops >= 1) {
            time += static_cast<int64_t>(loops) * loop;
            bytes -= loops * m_bytesPerLoop;
        }
    }
    while (bytes > 0) {
        const Piece piece = PieceAt(time);
        const int64_t rate = piece.pStep->bitsPerSecond;
        if (rate < 0)
            break;
        if (piece.end == kNoTime) {
            if (rate == 0 || Nanoseconds(bytes, rate) > kMaxNanoseconds)
                return kNoTime;
            return time + Time(static_cast<int64_t>(Nanoseconds(bytes, rate)));
        }
        const double fits = Bytes(piece.end - time, rate);
        if (fits >= bytes)
            return time + Time(static_cast<int64_t>(Nanoseconds(bytes, rate)));
        bytes -= fits;
        time = piece.end;
    }
    return time;
}

// Brings the front's remaining bytes up to date, so that the script may change.
void Link::Account(Time now) {
    if (m_queue.empty())
        return;
    double& bytes = m_queue.front().bytes;
    while (m_start < now && bytes > 0) {
        const Piece piece = PieceAt(m_start);
        const Time end = std::min(piece.end, now);
        const int64_t rate = piece.pStep->bitsPerSecond;
        bytes = rate < 0 ? 0 : std::max(bytes - Bytes(end - m_start, rate), 0.0);
        m_start = end;
    }
    m_start = std::max(m_start, now);
}

}  // namespace opal::origin
