#include "opal-simulate/SessionRecorder.h"

#include <algorithm>
#include <cmath>
#include <utility>
#include <variant>

#include "Common/SessionEventStream.h"
#include "opal-simulate/SimulatedClock.h"
#include "recording/SessionWriter.h"

namespace opal::simulate {
namespace {

thread_local SessionRecorder* t_recorder = nullptr;

/// Takes what the switching code tells to the recorder of the thread.
class Sink : public SessionEventSink {
  public:
    void Take(AnySessionEvent&& event) override {
        if (t_recorder)
            std::visit([](auto& told) { t_recorder->Add(std::move(told)); }, event);
    }
    void Lost() noexcept override {
        if (t_recorder)
            t_recorder->CountLost();
    }
};

int64_t ToUs(double ms) {
    return std::llround(ms * 1000.0);
}

}  // namespace

SessionRecorder::SessionRecorder(recording::Header header, LineSink sink)
    : m_sink(std::move(sink)) {
    static Sink events;
    SimulatedClock::SetNowMs(0.0);
    m_startUs = header.startUs = SessionEventStream::NowUs();
    header.simulated = true;
    m_sink(recording::ToLine(header));
    t_recorder = this;
    SessionEventStream::SetSink(&events);
}

SessionRecorder::~SessionRecorder() {
    SessionEventStream::SetSink(nullptr);
    t_recorder = nullptr;
}

void SessionRecorder::Add(recording::Record record) {
    if (m_lost != m_lostTold) {
        recording::DroppedEvent dropped;
        dropped.timeUs = SessionEventStream::NowUs();
        dropped.total = m_lostTold = m_lost;
        m_sink(recording::ToLine(dropped, m_startUs));
    }
    std::visit(
        [](auto& event) {
            if (event.timeUs == 0)
                event.timeUs = SessionEventStream::NowUs();
        },
        record);
    m_sink(recording::ToLine(record, m_startUs));
}

void SessionRecorder::AddRequest(const RequestLabel& label, const Transfer& transfer,
                                 int64_t offset, RequestEnd end) {
    RequestEvent event;
    static_cast<RequestLabel&>(event) = label;
    event.timeUs = SessionEventStream::NowUs();
    event.url = label.purpose == RequestPurpose::Manifest ? "manifest"
                : label.stream == OPAL_STREAM_AUDIO       ? "audio"
                                                          : "level" + std::to_string(label.index);
    const auto length = static_cast<int64_t>(transfer.bytes);
    if (length > 0)
        event.ranges.emplace_back(offset, length);
    const int64_t took = event.timeUs - m_startUs - ToUs(transfer.startMs);
    event.waitUs = std::min(took, ToUs(transfer.latencyMs - transfer.waitMs));
    event.transferUs = took - event.waitUs;
    event.bytes = length - static_cast<int64_t>(std::ceil(transfer.bytesLeft));
    event.status = event.bytes > 0 || end == RequestEnd::Complete ? (length > 0 ? 206 : 200) : 0;
    event.end = end;
    if (end != RequestEnd::Complete)
        event.result = end == RequestEnd::Failed ? OPAL_ERROR_TIMEOUT : OPAL_ERROR_CANCELLED;
    Add(std::move(event));
}

void SessionRecorder::AddSlowTransfer(size_t from, size_t to, size_t cluster, int64_t received,
                                      int64_t bufferedMs) {
    DecisionEvent event;
    event.rule = SwitchingRule::SlowTransfer;
    event.from = static_cast<int>(from);
    event.to = static_cast<int>(to);
    event.cluster = static_cast<int64_t>(cluster);
    event.downloadBytes = static_cast<int>(received);
    event.bufferedMs = static_cast<int>(bufferedMs);
    Add(event);
}

void SessionRecorder::AddState(SessionState state, size_t to, int64_t valueMs, size_t from) {
    StateEvent event;
    event.state = state;
    event.to = to;
    event.valueMs = valueMs;
    event.from = from;
    Add(std::move(event));
}

void SessionRecorder::AddLink(double bytesPerMs) {
    const int64_t rate = std::llround(bytesPerMs * 8000.0);
    if (rate == m_linkRate)
        return;
    m_linkRate = rate;
    recording::LinkEvent event;
    event.bitsPerSecond = rate;
    Add(event);
}

}  // namespace opal::simulate
