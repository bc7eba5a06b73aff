#include "opal-play/SessionRecording.h"

#include <stdexcept>

#include "TvSet.h"
#include "opal-play/MonotonicTime.h"

namespace opal::play {
namespace {

constexpr int64_t kFiguresPeriodMs = 1000;

}  // namespace

void SessionRecording::Start(const std::string& file, int livePort, const std::string& source) {
    if (!file.empty()) {
        m_file.open(file, std::ios::binary | std::ios::trunc);
        if (!m_file)
            throw std::runtime_error(file + ": cannot be written");
    }
    if (livePort >= 0) {
        std::string error;
        m_live = std::make_unique<report::LiveServer>();
        if (!m_live->Start(static_cast<uint16_t>(livePort), &error))
            throw std::runtime_error("--live: " + error);
    }
    if (IsRunning())
        m_observer.Record(source, [this](const std::string& line) {
            if (m_file.is_open())
                m_file << line << std::endl;
            if (m_live)
                m_live->Append(line);
        });
}

void SessionRecording::AddFiguresWhenDue() {
    if (IsRunning() && MonotonicMs() - m_lastFiguresMs >= kFiguresPeriodMs)
        AddFigures();
}

void SessionRecording::AddFigures() {
    const tvset::Statistics set = tvset::GetStatistics();
    recording::PlayerEvent event;
    event.shown = static_cast<int64_t>(set.framesShown);
    event.dropped = static_cast<int64_t>(set.framesDropped);
    event.decoded = static_cast<int64_t>(set.framesDecoded);
    event.errors = static_cast<int64_t>(set.decodeErrors);
    event.audioMs = static_cast<int64_t>(set.audioPlayedMs);
    m_observer.Add(event);
    m_lastFiguresMs = MonotonicMs();
}

bool SessionRecording::End(int exitCode, const std::string& summary) {
    if (!IsRunning())
        return true;
    AddFigures();
    recording::EndEvent end;
    end.exitCode = exitCode;
    end.summary = summary;
    m_observer.Add(end);
    if (m_live)
        m_live->End();
    const bool recorded = m_file.is_open();
    m_file.close();
    return !recorded || !m_file.fail();
}

}  // namespace opal::play
