#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <nlohmann/json_fwd.hpp>
#include <string>
#include <vector>

#include "opal-report/Table.h"
#include "recording/SessionRecords.h"

namespace opal::report {

enum TableId : size_t {
    kSwitches,
    kStalls,
    kPhases,
    kDecisions,
    kRequests,
    kBuffers,
    kLink,
    kStates,
    kSubtitles,
    kPlayer,
    kSinks,
    kLadder,
    kTableCount
};

/// What is told of a session in its first row. Negative: not known.
struct Headline {
    double startupS = -1;  ///< from opening to the first picture's play
    int64_t stalls = 0;
    double stalledS = 0;
    double meanBitrate = -1;  ///< of the video clusters that arrived, by their levels' bit-rates
    int64_t switchesUp = 0;
    int64_t switchesDown = 0;
    int64_t requests = 0;
    int64_t failed = 0;
    int64_t cancelled = 0;
    int64_t bytesFetched = 0;    ///< of all requests
    int64_t bytesDiscarded = 0;  ///< of those that did not end complete
    double durationS = 0;        ///< from the recording's start to its last event
    double playedS = 0;          ///< in phase "playing"
    int64_t eventsLost = 0;
    int64_t rowsLeftOut = 0;
};

/// Makes the rows and the headline of a session from its records, one record after the other; so
/// that it serves a session that still runs too.
///
/// Units: seconds since the recording's start in rows; names of columns say the others.
class SessionReport {
  public:
    /// More rows than `maxRows` of a kind are left out and counted.
    explicit SessionReport(size_t maxRows = SIZE_MAX);

    void SetHeader(const recording::Header& header) { m_header = header; }
    void Take(const recording::Record& record);
    /// The true rate of the link from another recording, that of opal-origin: what lies within the
    /// time of this session. Call after all records.
    void TakeLink(const std::vector<recording::Record>& records);
    /// Ends the phase that runs.
    void Finish();

    const recording::Header& GetHeader() const { return m_header; }
    Headline GetHeadline() const;
    const Table& Get(TableId id) const { return m_tables[id]; }
    const std::array<Table, kTableCount>& Tables() const { return m_tables; }

    /// {"source", "tool", ..., "headline": {...}, "phase": the one that runs}, without tables.
    nlohmann::json Summary() const;

  private:
    struct Phase {
        std::string name;  // empty: none
        std::string rate;
        double startS = 0;
        int64_t positionMs = -1;
    };

    void On(const RequestEvent& event);
    void On(const DecisionEvent& event);
    void On(const SwitchingCallEvent& event);
    void On(const LevelIndexEvent&) {}
    void On(const BufferEvent& event);
    void On(const StateEvent& event);
    void On(const SinkEvent& event);
    void On(const recording::PlayerEvent& event);
    void On(const recording::LinkEvent& event);
    void On(const recording::DroppedEvent& event);
    void On(const recording::EndEvent& event);

    void Add(TableId id, Row row);
    double Seconds(int64_t timeUs) const;
    void OnSwitch(const StateEvent& event);
    void OnSubtitle(const StateEvent& event);
    void FollowPhase(const StateEvent& event);
    void EnterPhase(const std::string& name, const StateEvent& event);
    void EndPhase(double endS);

    const size_t m_maxRows;
    recording::Header m_header;
    std::array<Table, kTableCount> m_tables;
    Headline m_headline;
    std::vector<int> m_bitrates;  // by level
    double m_bitrateSum = 0;
    int64_t m_bitrateCount = 0;
    std::vector<DecisionEvent> m_moves;  // by level: the last decision that led there
    double m_openingS = -1;
    int64_t m_positionMs = -1;
    Phase m_phase;
    recording::PlayerEvent m_player;
    std::array<SinkEvent, 5> m_sinks;
};

/// All rows of all sessions: {"sessions": [{summary..., "tables": [...]}]}.
nlohmann::json ToJson(const std::vector<const SessionReport*>& sessions);

/// The same as CSV, with every column of every table; "session" and "table" say what a row is of.
std::string ToCsv(const std::vector<const SessionReport*>& sessions);

}  // namespace opal::report
