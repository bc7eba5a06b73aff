#include "opal-simulate/Report.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <functional>
#include <nlohmann/json.hpp>
#include <tuple>

namespace opal::simulate {
namespace {

constexpr double kMsPerHour = 3600000.0;
constexpr double kMsPerMinute = 60000.0;

struct Column {
    const char* name;
    std::function<double(const Result&)> value;
};

const std::vector<Column>& Columns() {
    static const std::vector<Column> columns = {
        {"mean_kbps", [](const Result& r) { return r.MeanKbps(); }},
        {"stalls", [](const Result& r) { return static_cast<double>(r.stalls); }},
        {"stall_s", [](const Result& r) { return r.stallMs / 1000.0; }},
        {"stall_pct", [](const Result& r) { return 100.0 * r.StallShare(); }},
        {"switches", [](const Result& r) { return static_cast<double>(r.switches); }},
        {"mean_step", [](const Result& r) { return r.MeanStep(); }},
        {"startup_ms", [](const Result& r) { return r.startupMs; }},
        {"refetches", [](const Result& r) { return static_cast<double>(r.refetches); }},
        {"abandoned", [](const Result& r) { return static_cast<double>(r.abandoned); }},
    };
    return columns;
}

void PrintRow(const char* name, const std::function<double(const Column&)>& value,
              const char* remark = "") {
    std::printf("%-36.36s", name);
    for (const Column& column : Columns())
        std::printf(" %10.2f", value(column));
    std::printf("%s\n", remark);
}

double Quantile(std::vector<double> values, double share) {
    std::sort(values.begin(), values.end());
    const double at = share * static_cast<double>(values.size() - 1);
    return values[static_cast<size_t>(std::lround(at))];
}

/// Simulated time, of all sessions.
double SessionMs(const std::vector<Result>& results) {
    double ms = 0.0;
    for (const Result& result : results)
        ms += result.startupMs + result.playMs + result.stallMs;
    return ms;
}

nlohmann::json ToJson(const Result& result) {
    nlohmann::json row = {{"trace", result.trace}, {"finished", result.finished}};
    for (const Column& column : Columns())
        row[column.name] = column.value(result);
    return row;
}

/// A file's name may be no UTF-8.
std::string Dump(const nlohmann::json& value, int indent = -1) {
    return value.dump(indent, ' ', false, nlohmann::json::error_handler_t::replace);
}

}  // namespace

Summary Summarise(const std::vector<Result>& results) {
    Summary summary;
    double playMs = 0.0;
    double stallMs = 0.0;
    double kbps = 0.0;
    double decisionNs = 0.0;
    int64_t decisions = 0;
    int stalls = 0;
    int stalled = 0;
    int switches = 0;
    int steps = 0;
    for (const Result& result : results) {
        playMs += result.playMs;
        stallMs += result.stallMs;
        kbps += result.MeanKbps();
        stalls += result.stalls;
        stalled += result.stalls > 0 ? 1 : 0;
        switches += result.switches;
        steps += result.stepSum;
        decisions += result.decisions;
        decisionNs += result.decisionNs;
        summary.startupMs += result.startupMs;
        summary.unfinished += result.finished ? 0 : 1;
    }
    summary.sessions = results.size();
    const double count = std::max(1.0, static_cast<double>(results.size()));
    if (playMs > 0.0) {
        summary.stallsPerHour = stalls * kMsPerHour / playMs;
        summary.switchesPerMinute = switches * kMsPerMinute / playMs;
        summary.stallShare = stallMs / (playMs + stallMs);
    }
    summary.stalledSessions = stalled / count;
    summary.meanKbps = kbps / count;
    summary.meanStep = switches == 0 ? 0.0 : static_cast<double>(steps) / switches;
    summary.startupMs /= count;
    summary.decisionUs = decisions == 0 ? 0.0 : decisionNs / static_cast<double>(decisions) / 1e3;
    return summary;
}

void PrintTable(const std::vector<Result>& results, double seconds) {
    std::printf("%-36s", "trace");
    for (const Column& column : Columns())
        std::printf(" %10s", column.name);
    std::printf("\n");
    for (const Result& result : results)
        PrintRow(
            result.trace.c_str(), [&result](const Column& c) { return c.value(result); },
            result.finished ? "" : "  (not finished)");
    if (results.size() > 1) {
        std::printf("\n");
        for (const auto& [name, share] : {std::pair<const char*, double>{"minimum", 0.0},
                                          {"10 %", 0.1},
                                          {"median", 0.5},
                                          {"90 %", 0.9},
                                          {"maximum", 1.0}}) {
            PrintRow(name, [&results, share = share](const Column& column) {
                std::vector<double> values;
                for (const Result& result : results)
                    values.push_back(column.value(result));
                return Quantile(values, share);
            });
        }
    }
    const Summary all = Summarise(results);
    std::printf(
        "\n%zu sessions: %.0f kbit/s, %.2f stalls an hour, %.3f %% of the time stalled, %.2f "
        "switches a minute of %.2f levels, start-up %.0f ms\n",
        all.sessions, all.meanKbps, all.stallsPerHour, 100.0 * all.stallShare,
        all.switchesPerMinute, all.meanStep, all.startupMs);
    if (all.unfinished > 0)
        std::printf("%zu sessions did not finish\n", all.unfinished);
    std::printf("%.2f s for %.0f s of sessions: %.0f times real time; %.2f us a decision\n",
                seconds, SessionMs(results) / 1000.0,
                SessionMs(results) / 1000.0 / std::max(seconds, 1e-9), all.decisionUs);
}

void PrintCsv(const std::vector<Result>& results) {
    std::printf("trace");
    for (const Column& column : Columns())
        std::printf(",%s", column.name);
    std::printf(",finished\n");
    for (const Result& result : results) {
        std::printf("%s", result.trace.c_str());
        for (const Column& column : Columns())
            std::printf(",%.3f", column.value(result));
        std::printf(",%d\n", result.finished ? 1 : 0);
    }
}

void PrintJson(const std::vector<Result>& results, const std::string& tunables, double seconds) {
    nlohmann::json out;
    out["tunables"] = tunables;
    out["seconds"] = seconds;
    out["session_seconds"] = SessionMs(results) / 1000.0;
    for (const Result& result : results)
        out["sessions"].push_back(ToJson(result));
    const Summary all = Summarise(results);
    out["summary"] = {{"mean_kbps", all.meanKbps},
                      {"stalls_per_hour", all.stallsPerHour},
                      {"stall_share", all.stallShare},
                      {"stalled_sessions", all.stalledSessions},
                      {"switches_per_minute", all.switchesPerMinute},
                      {"mean_step", all.meanStep},
                      {"startup_ms", all.startupMs},
                      {"decision_us", all.decisionUs},
                      {"unfinished", all.unfinished}};
    std::printf("%s\n", Dump(out, 2).c_str());
}

std::string ToJsonText(const Result& result) {
    return Dump(ToJson(result));
}

void PrintJsonLine(const Result& result, const std::string& rule, const std::string& tunables) {
    nlohmann::json row = ToJson(result);
    row["rule"] = rule;
    row["tunables"] = tunables;
    row["play_s"] = result.playMs / 1000.0;
    std::printf("%s\n", Dump(row).c_str());
    std::fflush(stdout);
}

void PrintTrials(std::vector<Trial> trials, size_t count) {
    const auto key = [](const Trial& trial) {
        const Summary& s = trial.summary;
        return std::make_tuple(s.unfinished, std::lround(s.stallShare * 1e4),
                               -std::lround(100.0 * std::log(std::max(1.0, s.meanKbps))),
                               s.meanStep * s.switchesPerMinute);
    };
    std::stable_sort(trials.begin(), trials.end(), [&key](const Trial& left, const Trial& right) {
        return key(left) < key(right);
    });
    std::printf("%9s %9s %9s %9s %9s %9s  tunables\n", "kbps", "stalls/h", "stall_%", "switch/m",
                "step", "start_ms");
    for (size_t i = 0; i < std::min(count, trials.size()); ++i) {
        const Summary& s = trials[i].summary;
        std::printf("%9.0f %9.2f %9.3f %9.2f %9.2f %9.0f  %s\n", s.meanKbps, s.stallsPerHour,
                    100.0 * s.stallShare, s.switchesPerMinute, s.meanStep, s.startupMs,
                    trials[i].tunables.c_str());
    }
}

}  // namespace opal::simulate
