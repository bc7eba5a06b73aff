#include "opal-play/Options.h"

#include <CLI/CLI.hpp>
#include <algorithm>
#include <cctype>
#include <cstdlib>
#include <iostream>

#include "command-line/CommandLine.h"
#include "opal-play/Rates.h"
#include "opal-play/Report.h"

namespace opal::play {
namespace {

constexpr const char* kFooter = R"(Examples:
  opal-play http://127.0.0.1:8090/presentation.smil
  opal-play --headless --at 5s:seek=20 --at 10s:rate=4x URL
  opal-play --headless --strict --snapshots pictures --snapshot-at 5,15 URL

Times: TIME is seconds (12.5), 1500ms, 1:20 or 1:02:03.

Keys: on a terminal, space pauses and resumes; left and right jump by 10 s; up
and down change the rate; 0 to 9 jump to that tenth; a takes the next audio
track; s the next subtitles, and off; p makes a snapshot; q quits.

Exit codes: 0 played to the end, to a limit given, or until q; 1 the library
reported an error, or a file could not be written; 2 wrong command line; 3
--strict found a fault; 4 ended by a signal.)";

constexpr int64_t kMsPerSecond = 1000;
constexpr double kLongestSeconds = 1e9;

double ParseNumber(const std::string& text, const std::string& whole) {
    char* end = nullptr;
    const double value = std::strtod(text.c_str(), &end);
    const bool plain = !text.empty() && (std::isdigit(static_cast<unsigned char>(text[0])) != 0);
    if (!plain || *end != '\0' || !(value <= kLongestSeconds))
        throw UsageError("'" + whole + "' is no time; write 12.5, 1500ms or 1:20");
    return value;
}

bool EndsWith(const std::string& text, const std::string& end) {
    return text.size() > end.size() && text.compare(text.size() - end.size(), end.size(), end) == 0;
}

int64_t ParseTrack(const std::string& text, const std::string& whole, bool mayBeOff) {
    if (mayBeOff && text == "off")
        return -1;
    if (text.empty() || text.size() > 4 ||
        !std::all_of(text.begin(), text.end(), [](unsigned char c) { return std::isdigit(c); }))
        throw UsageError("'" + whole + "' lacks a track number" + (mayBeOff ? " or off" : ""));
    return std::stoi(text);
}

bool IsLanguage(const std::string& text) {
    return text.size() >= 2 && std::isalpha(static_cast<unsigned char>(text[0])) != 0;
}

struct Words {
    std::vector<std::string> actions;
    std::string start, limit, snapshots, audio, subtitle = "off";
    bool headless = false;
    bool windowed = false;
    bool silent = false;
};

void Declare(CLI::App& app, Options& options, Words& words) {
    app.footer(kFooter);
    app.add_option("URL", options.url, "Manifest of the presentation")->type_name("URL");
    app.add_option("--ticket", options.ticket,
                   "Start from this ticket instead; WNCEndPoint.cfg in this folder tells where the "
                   "services are");
    app.add_option("--session", options.session, "With --ticket: what identifies the client");
    app.add_option("--at", words.actions,
                   "Do something TIME after playback started, as 5s:seek=20 or 10s:rate=-4x; also "
                   "pause, play, stop, audio=N, subtitle=N, subtitle=off, snapshot, quit")
        ->type_name("ACTION")
        ->allow_extra_args(false);
    app.add_option("--start", words.start, "Begin at TIME")->type_name("TIME");
    app.add_option("--time-limit", words.limit, "End after TIME from the program's start")
        ->type_name("TIME");
    app.add_option("--frames", options.pictureLimit, "End when so many pictures were shown")
        ->check(CLI::Range(0, 1000000000));
    app.add_option("--audio-track", words.audio,
                   "Audio track to begin with; else the preferred one")
        ->type_name("N");
    app.add_option("--subtitles,--subtitle-track", words.subtitle,
                   "Subtitles to begin with: a track's number, a language as eng, or off")
        ->type_name("TRACK");
    app.add_option("--country", options.country, "Given to the library")->capture_default_str();
    app.add_option("--language", options.language, "Given to the library")->capture_default_str();
    app.add_flag("--pull", options.pull, "Fetch each block through the library's pull model");
    app.add_option("--blocks", options.blocksFile,
                   "With --pull: FILE gets a line for each block: stream, time, duration, level, "
                   "flags, size, CRC-32")
        ->type_name("FILE");
    app.add_flag("--window", words.windowed, "Show the pictures (the default with a DISPLAY)");
    app.add_flag("--headless", words.headless, "No window and no sound");
    app.add_flag("--silent", words.silent, "No sound");
    app.add_flag("--pass-through", options.passThrough,
                 "The television takes access units for pictures and decodes nothing");
    app.add_option("--snapshots", options.snapshotFolder, "Folder for pictures of the screen")
        ->type_name("FOLDER");
    app.add_option("--snapshot-at", words.snapshots, "Media TIMEs of snapshots, as 5,15,25")
        ->type_name("TIMES");
    app.add_flag("--json", options.json, "Print the summary as JSON, and nothing else");
    app.add_flag(
        "--strict", options.strict,
        "Fail unless the end was reached in real time, with more than 95 % of the pictures "
        "shown and no error; where nothing jumped, also unless all that came was met and decoded, "
        "no second was without a picture, and picture and sound went on to the end");
    app.add_flag("--verify", options.verify,
                 "Compare every block with the golden file beside its media file; with --strict a "
                 "mismatch, or a stream without one, is a fault");
    app.add_option("--log", options.logFile,
                   "FILE for the session's log: each document that would be uploaded, a line each")
        ->type_name("FILE");
    app.add_option("--live", options.livePort,
                   "Serve the session's report on PORT of this machine while it plays; 0: any port")
        ->type_name("PORT")
        ->check(CLI::Range(0, 65535));
    app.add_option("--record", options.recordFile,
                   "FILE for a recording of the session, which opal-report draws")
        ->type_name("FILE");
    app.add_flag("--stats", options.stats,
                 "Key figures over the picture, in snapshots and on the terminal");
    app.add_option("--output", options.outputFile, "FILE for what library and television print")
        ->type_name("FILE")
        ->capture_default_str();
    app.add_flag("--verbose", options.verbose,
                 "Leave what library and television print on the terminal");
    tools::Prepare(app, {"--start", "--at", "--audio-track", "--subtitles", "--window",
                         "--headless", "--snapshots", "--snapshot-at", "--stats", "--json"});
}

std::vector<int64_t> ParseTimes(const std::string& text) {
    std::vector<int64_t> times;
    std::istringstream parts(text);
    for (std::string part; std::getline(parts, part, ',');)
        times.push_back(ParseTime(part));
    std::sort(times.begin(), times.end());
    return times;
}

void Complete(Options& options, const Words& words, bool display) {
    for (const std::string& text : words.actions)
        options.actions.push_back(ParseAction(text));
    std::stable_sort(options.actions.begin(), options.actions.end(),
                     [](const Action& a, const Action& b) { return a.atMs < b.atMs; });
    options.startMs = words.start.empty() ? 0 : ParseTime(words.start);
    options.timeLimitMs = words.limit.empty() ? 0 : ParseTime(words.limit);
    if (!words.audio.empty())
        options.audioTrack = ParseTrack(words.audio, words.audio, false);
    if (words.subtitle != "off" && IsLanguage(words.subtitle))
        options.subtitleLanguage = words.subtitle;
    else
        options.subtitleTrack = ParseTrack(words.subtitle, words.subtitle, true);
    options.snapshotsAtMs = ParseTimes(words.snapshots);
    if (options.url.empty() == options.ticket.empty())
        throw UsageError("give the URL of a manifest, or --ticket");
    if (options.verify && options.url.empty())
        throw UsageError(
            "--verify needs the URL of a manifest: a ticket does not tell where golden files lie");
    if (!options.ticket.empty())
        options.url = "ticket";  // the ticket itself is a credential and is not printed
    const bool snapshots =
        !options.snapshotsAtMs.empty() ||
        std::any_of(options.actions.begin(), options.actions.end(),
                    [](const Action& action) { return action.kind == Action::Kind::Snapshot; });
    if (snapshots && options.snapshotFolder.empty())
        throw UsageError("snapshots need a folder; add --snapshots FOLDER");
    if (words.headless && words.windowed)
        throw UsageError("--headless and --window do not go together");
    if (!options.blocksFile.empty() && !options.pull)
        throw UsageError("--blocks needs --pull");
    options.window = words.windowed || (display && !words.headless);
    options.sound = !words.headless && !words.silent;
}

}  // namespace

int64_t ParseTime(const std::string& text) {
    if (EndsWith(text, "ms"))
        return static_cast<int64_t>(ParseNumber(text.substr(0, text.size() - 2), text));
    std::string rest = EndsWith(text, "s") ? text.substr(0, text.size() - 1) : text;
    double seconds = 0;
    for (size_t colon = rest.find(':'); colon != std::string::npos; colon = rest.find(':')) {
        seconds = (seconds + ParseNumber(rest.substr(0, colon), text)) * 60;
        rest.erase(0, colon + 1);
    }
    seconds += ParseNumber(rest, text);
    if (seconds > kLongestSeconds)
        throw UsageError("'" + text + "' is too long a time");
    return static_cast<int64_t>(seconds * kMsPerSecond + 0.5);
}

Action ParseAction(const std::string& text) {
    // The time may have colons of its own: the action begins with a letter.
    size_t colon = text.find(':');
    while (colon != std::string::npos &&
           (colon + 1 >= text.size() ||
            std::isalpha(static_cast<unsigned char>(text[colon + 1])) == 0))
        colon = text.find(':', colon + 1);
    if (colon == std::string::npos)
        throw UsageError("--at '" + text + "' lacks time or action; write 5s:seek=20");
    Action action;
    action.atMs = ParseTime(text.substr(0, colon));
    const std::string what = text.substr(colon + 1);
    const size_t equals = what.find('=');
    const std::string name = what.substr(0, equals);
    const std::string value = equals == std::string::npos ? "" : what.substr(equals + 1);
    const bool bare = equals == std::string::npos;
    using Kind = Action::Kind;
    OPALPlayRate rate = OPAL_PLAYRATE_ONEX;
    if (name == "seek" && !bare) {
        action.kind = Kind::Seek;
        action.value = ParseTime(value);
    } else if (name == "rate" && ParseRate(value, rate)) {
        action.kind = Kind::Rate;
        action.value = rate;
    } else if (name == "audio" && !bare) {
        action.kind = Kind::Audio;
        action.value = ParseTrack(value, text, false);
    } else if (name == "subtitle" && !bare) {
        action.kind = Kind::Subtitle;
        action.value = ParseTrack(value, text, true);
    } else if (bare && name == "pause") {
        action.kind = Kind::Pause;
    } else if (bare && name == "play") {
        action.kind = Kind::Play;
    } else if (bare && name == "stop") {
        action.kind = Kind::Stop;
    } else if (bare && name == "snapshot") {
        action.kind = Kind::Snapshot;
    } else if (bare && name == "quit") {
        action.kind = Kind::Quit;
    } else {
        throw UsageError("--at '" + text +
                         "': no such action; use seek=TIME, rate=2x to 32x or -2x to -32x, pause, "
                         "play, stop, audio=N, subtitle=N, snapshot or quit");
    }
    return action;
}

bool ParseCommandLine(int argc, char** argv, bool display, Options& options, int& exitCode) {
    CLI::App app("Plays a presentation through libOPAL on the software television set.",
                 "opal-play");
    Words words;
    Declare(app, options, words);
    exitCode = kExitUsage;
    try {
        app.parse(argc, argv);
        Complete(options, words, display);
        exitCode = kExitDone;
        return true;
    } catch (const CLI::ParseError& error) {
        exitCode = tools::ExitOfParse(app, error, kExitUsage, kExitError);
    } catch (const UsageError& error) {
        std::cerr << "opal-play: " << error.what() << std::endl;
    }
    return false;
}

}  // namespace opal::play
