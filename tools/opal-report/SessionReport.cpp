#include "opal-report/SessionReport.h"

#include <algorithm>
#include <cmath>
#include <nlohmann/json.hpp>
#include <utility>

#include "recording/SessionNames.h"

namespace opal::report {
namespace {

using nlohmann::json;
using recording::Name;

constexpr size_t kMostLevels = 1000;
constexpr int64_t kMostBytes = 1'000'000'000'000;  // so that no sum of them overflows
constexpr int64_t kMeasurableUs = 1000;            // a shorter transfer measures nothing

std::array<Table, kTableCount> EmptyTables() {
    const std::vector<Column> figures = {
        {"time_s", "Time"},
        {"rule", "Rule"},
        {"from", "From"},
        {"to", "To"},
        {"cluster", "Cluster"},
        {"bandwidth_bps", "Estimate"},
        {"available_bps", "Without audio"},
        {"guarded_bps", "Relied on"},
        {"target", "Level wanted"},
        {"candidate", "Level possible"},
        {"buffered_s", "Buffered"},
        {"required_s", "Required"},
        {"guard_s", "Guard"},
        {"held_s", "Held for"},
        {"download_bytes", "Last download"},
        {"download_s", "in"},
        {"mode", "Mode"},
    };
    std::array<Table, kTableCount> tables;
    tables[kSwitches] = {"switches", "Switches", figures, {}};
    tables[kDecisions] = {"decisions", "Decisions", figures, {}};
    tables[kStalls] = {"stalls",
                       "Stalls",
                       {{"start_s", "From"},
                        {"end_s", "Until"},
                        {"duration_s", "Lasted"},
                        {"position_s", "Position"}},
                       {}};
    tables[kPhases] = {"phases",
                       "Phases",
                       {{"start_s", "From"},
                        {"end_s", "Until"},
                        {"phase", "Phase"},
                        {"rate", "Rate"},
                        {"position_s", "Position"}},
                       {}};
    tables[kRequests] = {"requests",
                         "Requests",
                         {{"start_s", "Begun"},
                          {"wait_s", "Wait"},
                          {"transfer_s", "Transfer"},
                          {"stream", "Stream"},
                          {"purpose", "Purpose"},
                          {"index", "Level, track"},
                          {"cluster", "Cluster"},
                          {"bytes", "Bytes"},
                          {"throughput_bps", "Throughput"},
                          {"end", "End"},
                          {"status", "HTTP"},
                          {"result", "Result"},
                          {"ranges", "Ranges"},
                          {"url", "URL"}},
                         {}};
    tables[kBuffers] = {"buffers",
                        "Buffers",
                        {{"time_s", "Time"},
                         {"position_s", "Position"},
                         {"video_s", "Video"},
                         {"audio_s", "Audio"},
                         {"subtitle_s", "Subtitles"},
                         {"underflow_s", "Stalls below"},
                         {"required_video_s", "Video to start"},
                         {"required_audio_s", "Audio to start"},
                         {"max_video_s", "Video at most"},
                         {"bandwidth_bps", "Link estimate"},
                         {"level", "Level"},
                         {"playing", "Playing"}},
                        {}};
    tables[kLink] = {"link", "True rate of the link", {{"time_s", "From"}, {"bps", "Rate"}}, {}};
    tables[kStates] = {"states",
                       "What happened",
                       {{"time_s", "Time"},
                        {"state", "State"},
                        {"position_s", "Position"},
                        {"value_s", "Where to, duration"},
                        {"from", "From"},
                        {"to", "To"},
                        {"rate", "Rate"},
                        {"code", "Error"},
                        {"text", "Text"}},
                       {}};
    tables[kSubtitles] = {"subtitles",
                          "Subtitles shown",
                          {{"start_s", "Shown at"},
                           {"end_s", "Gone at"},
                           {"from_s", "Position from"},
                           {"until_s", "until"},
                           {"text", "Text"}},
                          {}};
    tables[kPlayer] = {"player",
                       "Pictures of the television",
                       {{"time_s", "Time"},
                        {"shown", "Shown"},
                        {"dropped", "Dropped"},
                        {"decoded", "Decoded"},
                        {"errors", "Errors"},
                        {"audio_s", "Audio played"},
                        {"queued_video", "Video queued"},
                        {"queued_audio", "Audio queued"},
                        {"shown_per_s", "Shown a second"},
                        {"dropped_since", "Dropped since the row before"}},
                       {}};
    tables[kSinks] = {"sinks",
                      "What the television took",
                      {{"time_s", "Time"},
                       {"stream", "Stream"},
                       {"blocks", "Blocks"},
                       {"bytes", "Bytes"},
                       {"refused", "Refused"},
                       {"flushes", "Flushes"},
                       {"refused_since", "Refused since the row before"},
                       {"rate_bps", "Rate since"}},
                      {}};
    tables[kLadder] = {
        "levels", "Levels", {{"level", "Level"}, {"bitrate_bps", "Bit-rate"}, {"uri", "URI"}}, {}};
    return tables;
}

/// Without the noise of sums: whole microseconds.
double Rounded(double seconds) {
    return std::round(seconds * 1e6) / 1e6;
}

double SecondsOf(int64_t ms) {
    return static_cast<double>(ms) / 1000;
}

Cell Known(int64_t value) {
    return value < 0 ? Cell() : Cell(value);
}

Cell Known(size_t index) {
    return index == static_cast<size_t>(-1) ? Cell() : Cell(static_cast<int64_t>(index));
}

/// 0 is none.
Cell Some(int64_t value) {
    return value == 0 ? Cell() : Cell(value);
}

Cell SomeSeconds(int64_t ms) {
    return ms == 0 ? Cell() : Cell(SecondsOf(ms));
}

Cell KnownSeconds(int64_t ms) {
    return ms < 0 ? Cell() : Cell(SecondsOf(ms));
}

Cell Word(const char* name) {
    return name ? Cell(std::string(name)) : Cell();
}

Cell Text(const std::string& text) {
    return text.empty() ? Cell() : Cell(text);
}

Row DecisionRow(const DecisionEvent& event, double timeS) {
    return {timeS,
            Word(Name(event.rule)),
            Known(int64_t{event.from}),
            Known(int64_t{event.to}),
            Known(event.cluster),
            Some(event.bandwidth),
            event.available,
            event.guarded,
            event.target,
            event.candidate,
            SecondsOf(event.bufferedMs),
            SecondsOf(event.requiredMs),
            SecondsOf(event.guardMs),
            SecondsOf(event.heldMs),
            int64_t{event.downloadBytes},
            SecondsOf(event.downloadMs),
            Word(event.mode == 1 ? "steady" : "agile")};
}

}  // namespace

SessionReport::SessionReport(size_t maxRows) : m_maxRows(maxRows), m_tables(EmptyTables()) {}

void SessionReport::Take(const recording::Record& record) {
    std::visit(
        [this](const auto& event) {
            m_headline.durationS = std::max(m_headline.durationS, Seconds(event.timeUs));
            On(event);
        },
        record);
}

double SessionReport::Seconds(int64_t timeUs) const {
    return static_cast<double>(timeUs - m_header.startUs) / 1e6;
}

void SessionReport::Add(TableId id, Row row) {
    if (m_tables[id].rows.size() < m_maxRows)
        m_tables[id].rows.push_back(std::move(row));
    else
        ++m_headline.rowsLeftOut;
}

void SessionReport::On(const RequestEvent& event) {
    const bool complete = event.end == RequestEnd::Complete;
    const int64_t bytes = std::clamp<int64_t>(event.bytes, 0, kMostBytes);
    ++m_headline.requests;
    m_headline.failed += event.end == RequestEnd::Failed;
    m_headline.cancelled += !complete && event.end != RequestEnd::Failed;
    m_headline.bytesFetched += bytes;
    m_headline.bytesDiscarded += complete ? 0 : bytes;
    if (complete && event.stream == OPAL_STREAM_VIDEO && event.purpose == RequestPurpose::Cluster &&
        event.index < m_bitrates.size()) {
        m_bitrateSum += m_bitrates[event.index];
        ++m_bitrateCount;
    }
    std::string ranges;
    for (const auto& [offset, length] : event.ranges)
        ranges +=
            (ranges.empty() ? "" : " ") + std::to_string(offset) + "+" + std::to_string(length);
    const double transferS = static_cast<double>(event.transferUs) / 1e6;
    Add(kRequests, {Seconds(event.timeUs - event.waitUs - event.transferUs),
                    static_cast<double>(event.waitUs) / 1e6, transferS, Word(Name(event.stream)),
                    Word(Name(event.purpose)), Known(event.index), Known(event.cluster), bytes,
                    event.transferUs < kMeasurableUs || bytes == 0
                        ? Cell()
                        : Cell(std::round(static_cast<double>(bytes) * 8 / transferS)),
                    Word(Name(event.end)), Some(event.status), Some(static_cast<int>(event.result)),
                    Text(ranges), Text(event.url)});
}

void SessionReport::On(const DecisionEvent& event) {
    Add(kDecisions, DecisionRow(event, Seconds(event.timeUs)));
    const auto to = static_cast<size_t>(event.to);
    if (event.to < 0 || event.to == event.from || to >= kMostLevels)
        return;
    if (m_moves.size() <= to)
        m_moves.resize(to + 1);
    m_moves[to] = event;
}

void SessionReport::On(const SwitchingCallEvent& event) {
    if (event.kind != SwitchingCallEvent::Kind::SetLevels || !m_bitrates.empty())
        return;
    for (const auto& level : event.levels) {
        if (m_bitrates.size() == kMostLevels)
            break;
        Add(kLadder,
            {static_cast<int64_t>(m_bitrates.size()), int64_t{level.bitrate}, Text(level.uri)});
        m_bitrates.push_back(level.bitrate);
    }
}

void SessionReport::On(const BufferEvent& event) {
    m_positionMs = event.positionMs;
    Add(kBuffers,
        {Seconds(event.timeUs), KnownSeconds(event.positionMs), SecondsOf(event.videoMs),
         SecondsOf(event.audioMs), SecondsOf(event.subtitleMs), SomeSeconds(event.underflowMs),
         SomeSeconds(event.requiredVideoMs), SomeSeconds(event.requiredAudioMs),
         SomeSeconds(event.maxVideoMs), Some(event.bandwidth), Known(event.level), event.playing});
}

void SessionReport::On(const StateEvent& event) {
    const double timeS = Seconds(event.timeUs);
    const bool hasValue = event.state == SessionState::Opened || event.state == SessionState::Seek;
    const bool hasRate = event.state == SessionState::Rate ||
                         event.state == SessionState::RateWanted ||
                         event.state == SessionState::Playing;
    if (event.state == SessionState::Subtitle) {
        OnSubtitle(event);
        return;
    }
    Add(kStates, {timeS, Word(Name(event.state)), KnownSeconds(event.positionMs),
                  hasValue ? Cell(SecondsOf(event.valueMs)) : Cell(), Known(event.from),
                  Known(event.to), hasRate ? Word(Name(event.rate)) : Cell(),
                  Some(static_cast<int>(event.code)), Text(event.text)});
    if (event.state == SessionState::Level)
        OnSwitch(event);
    FollowPhase(event);
}

/// The text's times are media times. The position at this moment says when that was.
void SessionReport::OnSubtitle(const StateEvent& event) {
    const int64_t positionMs = event.positionMs >= 0 ? event.positionMs : m_positionMs;
    const double shownFor = SecondsOf(event.endMs) - SecondsOf(event.valueMs);
    double startS = Seconds(event.timeUs);
    if (positionMs >= 0)
        startS -= std::clamp(SecondsOf(positionMs) - SecondsOf(event.valueMs), 0.0,
                             std::max(shownFor, 0.0));
    Add(kSubtitles, {Rounded(startS), Rounded(startS + std::max(shownFor, 0.0)),
                     SecondsOf(event.valueMs), SecondsOf(event.endMs), event.text});
}

/// A switch is told when the next cluster comes from another level. What decided so came before.
void SessionReport::OnSwitch(const StateEvent& event) {
    if (event.from == event.to || event.to >= kMostLevels)
        return;
    const bool first = event.from == static_cast<size_t>(-1);
    m_headline.switchesUp += !first && event.to > event.from;
    m_headline.switchesDown += !first && event.to < event.from;
    if (first)
        return;
    const double timeS = Seconds(event.timeUs);
    Row row(m_tables[kSwitches].columns.size());
    if (event.to < m_moves.size() && m_moves[event.to].to == static_cast<int>(event.to))
        row = DecisionRow(m_moves[event.to], timeS);
    row[0] = timeS;
    row[2] = Known(event.from);
    row[3] = Known(event.to);
    Add(kSwitches, std::move(row));
}

void SessionReport::FollowPhase(const StateEvent& event) {
    const double timeS = Seconds(event.timeUs);
    switch (event.state) {
        case SessionState::Opening:
            m_openingS = timeS;
            EnterPhase("starting", event);
            break;
        case SessionState::Playing:
            if (m_headline.startupS < 0 && m_openingS >= 0)
                m_headline.startupS = timeS - m_openingS;
            EnterPhase("playing", event);
            break;
        case SessionState::Paused:
            if (m_phase.name != "starting")  // until it begins, a session counts as paused
                EnterPhase("paused", event);
            break;
        case SessionState::Underflow:
            EnterPhase("stalled", event);
            break;
        case SessionState::Rate:
            if (event.rate == OPAL_PLAYRATE_ONEX) {
                EnterPhase("playing", event);
            } else {
                EnterPhase("trick play", event);
                m_phase.rate = Name(event.rate) ? Name(event.rate) : "";
            }
            break;
        case SessionState::Seek:
            if (m_phase.name != "paused" && m_phase.name != "starting")
                EnterPhase("seeking", event);
            break;
        case SessionState::EndOfStream:
        case SessionState::Stopped:
        case SessionState::Closed:
            EndPhase(timeS);
            break;
        default:
            break;
    }
}

void SessionReport::EnterPhase(const std::string& name, const StateEvent& event) {
    const double timeS = Seconds(event.timeUs);
    if (m_phase.name == name && name != "trick play")
        return;
    EndPhase(timeS);
    m_phase = {name, "", timeS, event.positionMs >= 0 ? event.positionMs : m_positionMs};
    m_headline.stalls += name == "stalled";
}

void SessionReport::EndPhase(double endS) {
    if (m_phase.name.empty())
        return;
    const double lasted = std::max(endS - m_phase.startS, 0.0);
    Add(kPhases,
        {m_phase.startS, endS, m_phase.name, Text(m_phase.rate), KnownSeconds(m_phase.positionMs)});
    if (m_phase.name == "stalled") {
        Add(kStalls, {m_phase.startS, endS, Rounded(lasted), KnownSeconds(m_phase.positionMs)});
        m_headline.stalledS += lasted;
    }
    m_headline.playedS += m_phase.name == "playing" ? lasted : 0;
    m_phase.name.clear();
}

void SessionReport::On(const SinkEvent& event) {
    SinkEvent& before = m_sinks[static_cast<size_t>(event.stream) % m_sinks.size()];
    const uint64_t refused = event.refused > before.refused ? event.refused - before.refused : 0;
    const double passed = static_cast<double>(event.timeUs - before.timeUs) / 1e6;
    const bool follows = before.timeUs != 0 && passed > 0 && event.bytes >= before.bytes;
    const auto bits = static_cast<double>(event.bytes - before.bytes) * 8;
    Add(kSinks,
        {Seconds(event.timeUs), Word(Name(event.stream)), static_cast<int64_t>(event.blocks),
         static_cast<int64_t>(event.bytes), static_cast<int64_t>(event.refused),
         static_cast<int64_t>(event.flushes), static_cast<int64_t>(refused),
         follows ? Cell(std::round(bits / passed)) : Cell()});
    before = event;
}

void SessionReport::On(const recording::PlayerEvent& event) {
    const double passed = static_cast<double>(event.timeUs - m_player.timeUs) / 1e6;
    const auto shown = static_cast<double>(event.shown) - static_cast<double>(m_player.shown);
    const bool follows = m_player.timeUs != 0 && passed > 0 && shown >= 0;
    Add(kPlayer, {Seconds(event.timeUs), event.shown, event.dropped, event.decoded, event.errors,
                  SecondsOf(event.audioMs), event.queuedVideo, event.queuedAudio,
                  follows ? Cell(std::round(shown / passed * 10) / 10) : Cell(),
                  event.dropped > m_player.dropped && m_player.dropped >= 0
                      ? event.dropped - m_player.dropped
                      : int64_t{0}});
    m_player = event;
}

void SessionReport::On(const recording::LinkEvent& event) {
    Add(kLink, {Seconds(event.timeUs), Known(event.bitsPerSecond)});
}

void SessionReport::On(const recording::DroppedEvent& event) {
    m_headline.eventsLost = event.total;
}

void SessionReport::On(const recording::EndEvent& event) {
    EndPhase(Seconds(event.timeUs));
}

void SessionReport::TakeLink(const std::vector<recording::Record>& records) {
    Row before;
    for (const recording::Record& record : records) {
        const auto* link = std::get_if<recording::LinkEvent>(&record);
        if (!link || Seconds(link->timeUs) > m_headline.durationS)
            continue;
        if (Seconds(link->timeUs) <= 0) {
            before = {0.0, Known(link->bitsPerSecond)};
            continue;
        }
        if (!before.empty())
            Add(kLink, std::exchange(before, {}));
        On(*link);
    }
    if (!before.empty())
        Add(kLink, std::move(before));
    std::stable_sort(
        m_tables[kLink].rows.begin(), m_tables[kLink].rows.end(),
        [](const Row& a, const Row& b) { return std::get<double>(a[0]) < std::get<double>(b[0]); });
}

void SessionReport::Finish() {
    EndPhase(m_headline.durationS);
}

Headline SessionReport::GetHeadline() const {
    Headline headline = m_headline;
    if (m_bitrateCount > 0)
        headline.meanBitrate = std::round(m_bitrateSum / static_cast<double>(m_bitrateCount));
    if (m_phase.name == "stalled")
        headline.stalledS += headline.durationS - m_phase.startS;
    if (m_phase.name == "playing")
        headline.playedS += headline.durationS - m_phase.startS;
    return headline;
}

json SessionReport::Summary() const {
    const Headline line = GetHeadline();
    const auto known = [](double value) { return value < 0 ? json() : json(value); };
    const json headline = {{"startup_s", known(Rounded(line.startupS))},
                           {"stalls", line.stalls},
                           {"stalled_s", Rounded(line.stalledS)},
                           {"mean_bitrate_bps", known(line.meanBitrate)},
                           {"switches", line.switchesUp + line.switchesDown},
                           {"switches_up", line.switchesUp},
                           {"switches_down", line.switchesDown},
                           {"requests", line.requests},
                           {"requests_failed", line.failed},
                           {"requests_cancelled", line.cancelled},
                           {"bytes_fetched", line.bytesFetched},
                           {"bytes_discarded", line.bytesDiscarded},
                           {"duration_s", line.durationS},
                           {"played_s", Rounded(line.playedS)},
                           {"events_lost", line.eventsLost},
                           {"rows_left_out", line.rowsLeftOut}};
    json phase;
    if (!m_phase.name.empty())
        phase = {{"phase", m_phase.name}, {"start_s", m_phase.startS}, {"rate", m_phase.rate}};
    return {{"source", m_header.source},
            {"tool", m_header.tool},
            {"library", m_header.library},
            {"start_us", m_header.startUs},
            {"simulated", m_header.simulated},
            {"settings", m_header.settings},
            {"headline", headline},
            {"phase", phase}};
}

json ToJson(const std::vector<const SessionReport*>& sessions) {
    json all = json::array();
    for (const SessionReport* session : sessions) {
        json one = session->Summary();
        for (const Table& table : session->Tables())
            one["tables"].push_back(ToJson(table));
        all.push_back(std::move(one));
    }
    return {{"sessions", all}};
}

std::string ToCsv(const std::vector<const SessionReport*>& sessions) {
    std::vector<std::string> columns;
    for (const Table& table : EmptyTables()) {
        for (const Column& column : table.columns) {
            if (std::find(columns.begin(), columns.end(), column.name) == columns.end())
                columns.emplace_back(column.name);
        }
    }
    std::string csv = "session,table";
    for (const std::string& column : columns)
        csv += "," + column;
    csv += "\r\n";
    for (size_t session = 0; session < sessions.size(); ++session) {
        for (const Table& table : sessions[session]->Tables()) {
            const std::string start = std::to_string(session + 1) + "," + table.name;
            std::vector<size_t> places;  // of the table's columns among all
            for (const Column& column : table.columns) {
                const auto found = std::find(columns.begin(), columns.end(), column.name);
                places.push_back(static_cast<size_t>(found - columns.begin()));
            }
            for (const Row& row : table.rows) {
                std::vector<std::string> fields(columns.size());
                for (size_t i = 0; i < row.size(); ++i)
                    fields[places[i]] = ToCsv(row[i]);
                csv += start;
                for (const std::string& field : fields)
                    csv += "," + field;
                csv += "\r\n";
            }
        }
    }
    return csv;
}

}  // namespace opal::report
