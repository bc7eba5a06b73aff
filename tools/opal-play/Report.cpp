#include "opal-play/Report.h"

#include <algorithm>
#include <cmath>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <nlohmann/json.hpp>

namespace opal::play {
namespace {

constexpr double kLeastShown = 0.95;
constexpr double kSlowest = 0.9;
constexpr double kFastest = 1.1;
constexpr int64_t kShortMs = 5000;
/// Picture and sound of a film may end this far apart, and two pictures may be.
constexpr int64_t kEndMs = 1000;

const char* OutcomeText(Outcome outcome) {
    switch (outcome) {
        case Outcome::EndOfStream:
            return "end of stream";
        case Outcome::TimeLimit:
            return "time limit";
        case Outcome::PictureLimit:
            return "picture limit";
        case Outcome::Quit:
            return "quit";
        case Outcome::Error:
            return "error";
        case Outcome::FlushFailed:
            return "failed flush";
        case Outcome::Signal:
            return "signal";
    }
    return "";
}

__attribute__((format(printf, 1, 2))) std::string Format(const char* format, ...) {
    char text[512];
    va_list arguments;
    va_start(arguments, format);
    std::vsnprintf(text, sizeof text, format, arguments);
    va_end(arguments);
    return text;
}

double Seconds(int64_t ms) {
    return static_cast<double>(ms) / 1000;
}

unsigned long long Wide(uint64_t value) {
    return value;
}

/// Without an estimate the library stays where it is.
std::string LinkText(const Summary& summary) {
    if (summary.network.linkBitsPerSecond > 0)
        return BitrateText(summary.network.linkBitsPerSecond);
    if (!summary.network.IsTooFast())
        return "not measured";
    const bool low = summary.watchedMs.size() <= 1 && summary.levels.size() > 1;
    return std::string("too fast to measure") +
           (low ? ", which keeps the level down; serve with a rate and a latency" : "");
}

std::string WatchedText(const Summary& summary) {
    std::string text = Format("\nstalled: %.1f s", Seconds(summary.stalledMs));
    const char* separator = "; watched: ";
    for (size_t i = 0; i < summary.watchedMs.size() && i < summary.levels.size(); ++i) {
        if (summary.watchedMs[i] == 0)
            continue;
        const Level& level = summary.levels[i];
        text += Format("%s%.1f s of %ux%u", separator, Seconds(summary.watchedMs[i]), level.width,
                       level.height);
        const auto alike = [&](const Level& other) {
            return other.width == level.width && other.height == level.height;
        };
        if (std::count_if(summary.levels.begin(), summary.levels.end(), alike) > 1)
            text += " at " + BitrateText(level.bitrate);
        separator = ", ";
    }
    if (const int64_t mean = MeanBitrate(summary))
        text += "; on average " + BitrateText(mean);
    return text;
}

}  // namespace

std::string TimeText(int64_t ms) {
    const char* sign = ms < 0 ? "-" : "";
    const long long tenths = std::llabs(ms) / 100;
    const long long minutes = tenths / 600;
    if (minutes < 60)
        return Format("%s%lld:%02lld.%lld", sign, minutes, tenths / 10 % 60, tenths % 10);
    return Format("%s%lld:%02lld:%02lld.%lld", sign, minutes / 60, minutes % 60, tenths / 10 % 60,
                  tenths % 10);
}

std::string BitrateText(int64_t bitsPerSecond) {
    const double rate = static_cast<double>(bitsPerSecond);
    if (bitsPerSecond < 1000000)
        return Format("%.0f kbit/s", rate / 1e3);
    return Format(bitsPerSecond < 100000000 ? "%.2f Mbit/s" : "%.0f Mbit/s", rate / 1e6);
}

std::string ErrorText(OPALError code) {
    struct Row {
        OPALError code;
        const char* text;
    };
    static constexpr Row kRows[] = {
        {OPAL_ERROR_GENERAL, "the presentation cannot be read; check manifest and media files"},
        {OPAL_ERROR_INVALID_ARGUMENT,
         "the library does not take this; write an http:// or file:// URL"},
        {OPAL_ERROR_OUT_OF_RANGE, "the presentation has no such thing"},
        {OPAL_ERROR_NOT_READY, "not possible yet; try again once it plays"},
        {OPAL_ERROR_NO_MEMORY, "a cluster or header is larger than the library takes"},
        {OPAL_ERROR_RANGE, "a byte range was refused; index and media file do not match"},
        {OPAL_ERROR_HTTP_CLIENT, "the server refuses (status 4xx); check the URL"},
        {OPAL_ERROR_HTTP_SERVER, "the server failed (status 5xx); look at its log"},
        {OPAL_ERROR_TIMEOUT, "the server does not answer in time; check the network"},
        {OPAL_ERROR_CONNECT, "no connection, or no such regular file; is the server running?"},
        {OPAL_ERROR_LINK_DOWN, "the network link is down"},
        {OPAL_ERROR_LINK_UNKNOWN, "no connection, and the network link's state is not known"},
        {OPAL_ERROR_AUDIO_UNSUPPORTED,
         "the television does not take this audio track; use another"},
    };
    for (const Row& row : kRows) {
        if (row.code == code)
            return std::string(row.text) + " (" + std::to_string(code) + ")";
    }
    return "the library reports error " + std::to_string(code);
}

std::string ErrorText(OPALError code, const MediaFailure& failure) {
    // A start without a usable stream has this code whatever the reason.
    if (code == OPAL_ERROR_GENERAL && failure.code != code && failure.code != OPAL_OK)
        return ErrorText(code) + "; " + ErrorText(static_cast<OPALError>(failure.code), failure);
    if (failure.code != code || code == OPAL_OK)
        return ErrorText(code);
    if (!failure.found)
        return failure.url + ": " + ErrorText(code);
    if (failure.cluster >= 0)
        return failure.url + ": its cluster " + std::to_string(failure.cluster) + " is damaged (" +
               std::to_string(code) + ")";
    const bool content = code == OPAL_ERROR_GENERAL || code == OPAL_ERROR_INVALID_ARGUMENT ||
                         code == OPAL_ERROR_OUT_OF_RANGE;
    return failure.url + ": its header or index " +
           (content ? "is damaged, or does not match the manifest (" + std::to_string(code) + ")"
                    : "cannot be read: " + ErrorText(code));
}

int64_t MeanBitrate(const Summary& summary) {
    int64_t bitMs = 0;
    int64_t ms = 0;
    for (size_t i = 0; i < summary.watchedMs.size() && i < summary.levels.size(); ++i) {
        bitMs += summary.watchedMs[i] * summary.levels[i].bitrate;
        ms += summary.watchedMs[i];
    }
    return ms > 0 ? bitMs / ms : 0;
}

std::string ProgressText(const Status& status, size_t width) {
    std::vector<std::string> parts;
    parts.push_back(Format("%-9s %s / %s", status.state.c_str(),
                           TimeText(status.positionMs).c_str(),
                           TimeText(status.durationMs).c_str()));
    if (status.leftMs >= 0)
        parts.push_back(TimeText(status.leftMs) + " left");
    if (status.level < status.levelCount)
        parts.push_back(Format("level %zu/%zu %ux%u %s", status.level + 1, status.levelCount,
                               status.levelInfo.width, status.levelInfo.height,
                               BitrateText(status.levelInfo.bitrate).c_str()));
    parts.push_back(Format("buffer %.1f s", Seconds(std::max<int64_t>(status.bufferedMs, 0))));
    if (status.linkBitsPerSecond > 0)
        parts.push_back("link " + BitrateText(status.linkBitsPerSecond));
    else if (status.linkTooFast && status.level == 0 && status.levelCount > 1)
        parts.push_back("link too fast to measure");
    std::string text = parts.front().substr(0, width);
    for (size_t i = 1; i < parts.size() && text.size() + 2 + parts[i].size() <= width; ++i)
        text += "  " + parts[i];
    return text;
}

std::string StatsText(const Status& status, const LiveFigures& live, uint64_t shown,
                      uint64_t dropped) {
    std::string text =
        Format("%s %s / %s", status.state.c_str(), TimeText(status.positionMs).c_str(),
               TimeText(status.durationMs).c_str());
    if (status.level < status.levelCount)
        text += Format("\nlevel   %zu of %zu: %ux%u %s", status.level + 1, status.levelCount,
                       status.levelInfo.width, status.levelInfo.height,
                       BitrateText(status.levelInfo.bitrate).c_str());
    text += Format("\nbuffer  video %.1f s (starts at %.1f), audio %.1f s", Seconds(live.videoMs),
                   Seconds(live.requiredMs), Seconds(live.audioMs));
    text += "\nlink    " +
            (live.linkBitsPerSecond > 0 ? BitrateText(live.linkBitsPerSecond) : "no estimate");
    if (live.lastBitsPerSecond > 0)
        text += Format("; last cluster %s, %lld ms to its first byte",
                       BitrateText(live.lastBitsPerSecond).c_str(),
                       static_cast<long long>(live.lastWaitMs));
    if (!live.rule.empty())
        text += Format("\nrule    %s, %s", live.rule.c_str(), live.steady ? "steady" : "agile");
    text += Format("\nshown   %llu pictures, %llu dropped; %.1f MB fetched", Wide(shown),
                   Wide(dropped), static_cast<double>(live.bytes) / 1e6);
    return text;
}

std::string SummaryText(const Summary& summary) {
    std::string text = Format("%s at %s of %s after %.1f s", OutcomeText(summary.outcome),
                              TimeText(summary.positionMs).c_str(),
                              TimeText(summary.durationMs).c_str(), Seconds(summary.realMs));
    text += summary.startupMs < 0
                ? std::string("\nno picture was shown")
                : Format("\nfirst picture after %.2f s", Seconds(summary.startupMs));
    if (summary.pace > 0)
        text += Format("; position moved at %.2f of real time", summary.pace);
    text += Format("\npictures: %llu decoded, %llu shown, %llu dropped; %llu decoding errors",
                   Wide(summary.framesDecoded), Wide(summary.framesShown),
                   Wide(summary.framesDropped), Wide(summary.decodeErrors));
    text += Format("\nsound: %.1f s; underflows: %llu; level changes: %llu",
                   Seconds(static_cast<int64_t>(summary.audioPlayedMs)), Wide(summary.underflows),
                   Wide(summary.levelChanges));
    text += WatchedText(summary);
    text += Format("\nnetwork: %llu clusters, %.2f MB; link %s", Wide(summary.network.clusters),
                   static_cast<double>(summary.network.bytes) / 1e6, LinkText(summary).c_str());
    if (summary.pull)
        text += Format("\npulled: %llu video blocks, %llu audio blocks",
                       Wide(summary.pulledVideoBlocks), Wide(summary.pulledAudioBlocks));
    for (const Snapshot& snapshot : summary.snapshots)
        text += "\nsnapshot of " + TimeText(snapshot.atMs) + ": " + snapshot.file;
    return text + "\n";
}

std::string SummaryJson(const Summary& summary) {
    nlohmann::ordered_json json;
    json["url"] = summary.url;
    json["outcome"] = OutcomeText(summary.outcome);
    json["exitCode"] = ExitCodeOf(summary);
    json["errors"] = summary.errors;
    json["faults"] = summary.faults;
    json["startupMs"] = summary.startupMs < 0 ? nlohmann::ordered_json()
                                              : nlohmann::ordered_json(summary.startupMs);
    json["positionMs"] = summary.positionMs;
    json["durationMs"] = summary.durationMs;
    json["realMs"] = summary.realMs;
    json["pace"] = std::round(summary.pace * 1000) / 1000;
    json["framesDecoded"] = summary.framesDecoded;
    json["framesShown"] = summary.framesShown;
    json["framesDropped"] = summary.framesDropped;
    json["decodeErrors"] = summary.decodeErrors;
    json["longestGapMs"] = summary.longestGapMs;
    json["audioPlayedMs"] = summary.audioPlayedMs;
    json["underflows"] = summary.underflows;
    json["levelChanges"] = summary.levelChanges;
    json["clusters"] = summary.network.clusters;
    json["clusterBytes"] = summary.network.bytes;
    json["linkBitsPerSecond"] = summary.network.linkBitsPerSecond;
    json["link"] = LinkText(summary);
    json["stalledMs"] = summary.stalledMs;
    json["meanBitrate"] = MeanBitrate(summary);
    json["levels"] = nlohmann::ordered_json::array();
    for (size_t i = 0; i < summary.levels.size(); ++i)
        json["levels"].push_back({{"bitrate", summary.levels[i].bitrate},
                                  {"width", summary.levels[i].width},
                                  {"height", summary.levels[i].height},
                                  {"ms", i < summary.watchedMs.size() ? summary.watchedMs[i] : 0}});
    if (summary.pull) {
        json["pulledVideoBlocks"] = summary.pulledVideoBlocks;
        json["pulledAudioBlocks"] = summary.pulledAudioBlocks;
    }
    json["snapshots"] = nlohmann::ordered_json::array();
    for (const Snapshot& snapshot : summary.snapshots)
        json["snapshots"].push_back({{"atMs", snapshot.atMs}, {"file", snapshot.file}});
    constexpr auto kReplace = nlohmann::ordered_json::error_handler_t::replace;
    return json.dump(2, ' ', false, kReplace) + "\n";
}

std::vector<std::string> FindFaults(const Summary& summary) {
    std::vector<std::string> faults;
    if (summary.outcome != Outcome::EndOfStream)
        faults.push_back("the end of the stream was not reached");
    if (!summary.errors.empty())
        faults.push_back("an error was reported: " + summary.errors.front());
    const bool tooShortToTell =
        summary.pace == 0 && (summary.jumped || summary.durationMs < kShortMs);
    if (!tooShortToTell && !(summary.pace >= kSlowest && summary.pace <= kFastest))
        faults.push_back(Format("the position moved at %.2f of real time", summary.pace));
    const double shown = static_cast<double>(summary.framesShown);
    // A jump drops decoded pictures whose time had not come.
    const uint64_t due =
        summary.jumped ? summary.framesShown + summary.framesDropped : summary.framesDecoded;
    if (summary.framesDecoded == 0)
        faults.push_back("no picture was decoded");
    else if (shown <= kLeastShown * static_cast<double>(due))
        faults.push_back(
            Format("only %llu of %llu pictures were shown", Wide(summary.framesShown), Wide(due)));
    if (summary.outcome != Outcome::EndOfStream || summary.jumped || summary.pull)
        return faults;
    const uint64_t met = summary.framesShown + summary.framesDropped;
    if (met < summary.videoUnits)
        faults.push_back(Format("%llu of %llu pictures never reached the screen",
                                Wide(summary.videoUnits - met), Wide(summary.videoUnits)));
    if (summary.decodeErrors > 0)
        faults.push_back(Format("%llu decoding errors: blocks are damaged or missing",
                                Wide(summary.decodeErrors)));
    if (summary.longestGapMs > kEndMs)
        faults.push_back("no picture came between " +
                         TimeText(summary.gapEndMs - summary.longestGapMs) + " and " +
                         TimeText(summary.gapEndMs));
    if (summary.lastShownMs + kEndMs < summary.durationMs)
        faults.push_back("the last picture was that of " + TimeText(summary.lastShownMs) + " of " +
                         TimeText(summary.durationMs));
    if (summary.audioUnits > 0 &&
        static_cast<int64_t>(summary.audioPlayedMs) + kEndMs < summary.durationMs)
        faults.push_back(Format("only %.1f s of sound were heard",
                                Seconds(static_cast<int64_t>(summary.audioPlayedMs))));
    return faults;
}

int ExitCodeOf(const Summary& summary) {
    if (summary.outcome == Outcome::Signal)
        return kExitSignal;
    if (summary.outcome == Outcome::Error || !summary.errors.empty())
        return kExitError;
    if (!summary.faults.empty())
        return kExitStrict;
    return summary.outcome == Outcome::FlushFailed ? kExitError : kExitDone;
}

}  // namespace opal::play
