#include <log4cxx/level.h>
#include <log4cxx/logger.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <exception>
#include <filesystem>
#include <fstream>
#include <functional>
#include <iostream>
#include <map>
#include <mutex>
#include <nlohmann/json.hpp>
#include <sstream>
#include <stdexcept>
#include <string>
#include <thread>
#include <variant>
#include <vector>

#include "Common/ConfigurationFiles.h"
#include "Common/OPALVersion.h"
#include "StreamSwitchingAlgorithm/AlgorithmConfig.h"
#include "command-line/CommandLine.h"
#include "opal-simulate/Film.h"
#include "opal-simulate/Link.h"
#include "opal-simulate/Replay.h"
#include "opal-simulate/Report.h"
#include "opal-simulate/Session.h"
#include "opal-simulate/SessionRecorder.h"
#include "opal-simulate/SimulatedClock.h"
#include "opal-simulate/Tunables.h"
#include "recording/SessionReader.h"

namespace {

using namespace opal::simulate;

constexpr const char* kFooter = R"(Examples:
  opal-simulate --film presentation.json --trace traces/
  opal-simulate --film film.json --trace traces/ --set maxLevelDrop=0 --no-audio
  opal-simulate --film film.json --trace traces/ --grid maxLevelDrop=0,1,3

Exit codes: 0 done, 2 wrong usage, 3 a file that cannot be read or written,
4 a replay that decides otherwise.)";
constexpr int kExitUsage = 2;
constexpr int kExitInput = 3;
constexpr int kExitDiffers = 4;

/// Part `number` of `count` of a sweep.
struct Slice {
    size_t number = 1;
    size_t count = 1;

    static Slice Parse(const std::string& text) {
        Slice slice;
        char slash = 0;
        std::istringstream stream(text);
        stream >> slice.number >> slash >> slice.count;
        if (!stream || !stream.eof() || slash != '/' || slice.number < 1 ||
            slice.number > slice.count || text.find('-') != std::string::npos)
            throw UsageError(text + ": not of the form K/N, with K from 1 to N");
        return slice;
    }
    bool Has(size_t session) const { return session % count == number - 1; }
};

struct Options {
    std::string film;
    std::vector<std::string> traces;
    std::string configFolder;
    std::vector<std::string> replays;
    std::string record;
    std::vector<std::string> settings;
    std::vector<std::string> grid;
    int audioKbps = 128;
    bool noAudio = false;
    RuleName rule = RuleName::BuiltIn;
    double bolaBufferSeconds = 25.0;
    int loops = 1;
    int top = 10;
    unsigned jobs = std::max(1u, std::thread::hardware_concurrency());
    bool json = false;
    bool csv = false;
    bool decisions = false;
    bool jsonLines = false;
    Slice slice;
};

/// The files, and those in the folders that end so.
std::vector<std::string> Files(const std::vector<std::string>& paths, const char* extension) {
    std::vector<std::string> files;
    for (const std::string& path : paths) {
        if (!std::filesystem::is_directory(path)) {
            files.push_back(path);
            continue;
        }
        std::vector<std::string> inFolder;
        for (const auto& entry : std::filesystem::recursive_directory_iterator(path)) {
            if (entry.is_regular_file() && entry.path().extension() == extension)
                inFolder.push_back(entry.path().string());
        }
        std::sort(inFolder.begin(), inFolder.end());
        files.insert(files.end(), inFolder.begin(), inFolder.end());
    }
    return files;
}

/// Runs `work` for each number below `count`, spread over threads. The first exception ends it.
void ForEach(size_t count, unsigned jobs, const std::function<void(size_t)>& work) {
    std::atomic<size_t> next{0};
    std::mutex mutex;
    std::exception_ptr problem;
    std::vector<std::thread> threads;
    for (unsigned i = 0; i < std::min<size_t>(jobs, count); ++i) {
        threads.emplace_back([&] {
            try {
                for (size_t at = next++; at < count; at = next++)
                    work(at);
            } catch (...) {
                next = count;
                const std::lock_guard<std::mutex> lock(mutex);
                if (!problem)
                    problem = std::current_exception();
            }
        });
    }
    for (std::thread& thread : threads)
        thread.join();
    if (problem)
        std::rethrow_exception(problem);
}

PlayOptions HowToPlay(const Film& film, const Options& options) {
    PlayOptions play;
    // A session that stands still for ten times its film will not come to an end.
    play.limitMs = 10.0 * static_cast<double>(film.DurationMs()) + 600000.0;
    play.rule = options.rule;
    play.bolaBufferMs = options.bolaBufferSeconds * 1000.0;
    return play;
}

/// All sessions under the present tunables, spread over threads, in the order of the traces.
std::vector<Result> PlayAll(const Film& film, const std::vector<Trace>& traces,
                            const Options& options) {
    const PlayOptions play = HowToPlay(film, options);
    std::vector<Result> results(traces.size());
    ForEach(traces.size(), options.jobs,
            [&](size_t at) { results[at] = Play(film, traces[at], play); });
    return results;
}

/// Plays this slice of a sweep, all traces under each of the tunables, and prints each session as
/// it ends.
void PrintSweep(const Film& film, const std::vector<Trace>& traces,
                const std::vector<Tunables>& trials, const Options& options) {
    const PlayOptions play = HowToPlay(film, options);
    const std::string rule = options.rule == RuleName::BolaE ? "bola-e" : "built-in";
    std::mutex output;
    size_t first = 0;
    for (const Tunables& trial : trials) {
        trial.Apply();
        ForEach(traces.size(), options.jobs, [&](size_t at) {
            if (!options.slice.Has(first + at))
                return;
            const Result result = Play(film, traces[at], play);
            const std::lock_guard<std::mutex> lock(output);
            PrintJsonLine(result, rule, trial.Describe());
            if (std::ferror(stdout) != 0)  // a batch engine goes by the exit code
                throw std::runtime_error("the results cannot be written");
        });
        first += traces.size();
    }
}

void PrintDecisions(const Film& film, const Trace& trace, const Options& options) {
    std::printf("%10s %8s %6s %10s\n", "time_s", "cluster", "level", "kbit/s");
    PlayOptions play = HowToPlay(film, options);
    play.listener = [&film](double ms, size_t cluster, int level) {
        std::printf("%10.3f %8zu %6d %10d\n", ms / 1000.0, cluster, level,
                    film.levels[static_cast<size_t>(level)].bitrate / 1000);
    };
    (void)Play(film, trace, play);
}

/// Decides one recorded session again, under the settings that it was recorded under.
std::vector<Replayed> ReplayFile(const std::string& path) {
    opal::recording::Session session;
    std::string problem;
    if (!opal::recording::SessionReader::ReadFile(path, &session, &problem))
        throw std::runtime_error(path + ": " + problem);
    AlgorithmConfig::Instance().Reset();
    try {
        (void)LoadConfigText(session.header.settings);
    } catch (const std::logic_error&) {
        // A file that is not right did not count for the session either.
    }
    const bool lost = std::any_of(
        session.records.begin(), session.records.end(), [](const opal::recording::Record& record) {
            return std::holds_alternative<opal::recording::DroppedEvent>(record);
        });
    if (lost)
        std::cerr << "opal-simulate: " << path << ": events were lost, so answers may differ\n";
    try {
        std::vector<Replayed> answers = Replay(session.records);
        if (answers.empty())
            throw std::runtime_error("it holds no decisions of the switching code");
        return answers;
    } catch (const std::runtime_error& error) {
        throw std::runtime_error(path + ": " + error.what());
    }
}

/// Decides recorded sessions again: the levels of one, or a line for each of several. False if an
/// answer differs.
bool PrintReplays(const std::vector<std::string>& paths) {
    const std::vector<std::string> files = Files(paths, ".jsonl");
    size_t levels = 0;
    size_t answers = 0;
    size_t different = 0;
    if (files.size() == 1)
        std::printf("%10s %8s %8s\n", "time_s", "session", "replay");
    for (const std::string& file : files) {
        size_t differentHere = 0;
        for (const Replayed& answer : ReplayFile(file)) {
            ++answers;
            levels += answer.IsLevel() ? 1 : 0;
            differentHere += answer.Differs() ? 1 : 0;
            if (files.size() == 1 && (answer.IsLevel() || answer.Differs()))
                std::printf("%10.3f %8lld %8lld%s\n", static_cast<double>(answer.timeUs) / 1e6,
                            static_cast<long long>(answer.then), static_cast<long long>(answer.now),
                            answer.Differs() ? "  differs" : "");
        }
        if (files.size() > 1)
            std::printf("%s: %zu differ\n", file.c_str(), differentHere);
        different += differentHere;
    }
    std::printf("%zu sessions, %zu decisions of %zu answers, %zu differ\n", files.size(), levels,
                answers, different);
    return different == 0;
}

/// Plays one session and writes its recording.
Result PlayAndRecord(const Film& film, const Trace& trace, const Options& options) {
    std::ofstream file(options.record, std::ios::binary);
    opal::recording::Header header;
    header.tool = "opal-simulate";
    header.library = OPAL_VERSION_TEXT;
    header.source = options.film + " over " + trace.name;
    header.settings = Tunables::Current().ToSettingsFile();
    PlayOptions play = HowToPlay(film, options);
    SessionRecorder recorder(header, [&file](const std::string& line) { file << line << '\n'; });
    play.recorder = &recorder;
    const Result result = Play(film, trace, play);
    opal::recording::EndEvent end;
    end.summary = ToJsonText(result);
    recorder.Add(end);
    file.close();
    if (!file)
        throw std::runtime_error(options.record + ": cannot be written");
    return result;
}

/// Loads the settings file. The library says on stdout that it found one, where that would lead off
/// the JSON or CSV; so it says it on stderr here.
void LoadSettings(const std::string& folder) {
    opal::SetConfigurationDirectory(folder);
    std::fflush(stdout);
    const int standardOutput = dup(STDOUT_FILENO);
    dup2(STDERR_FILENO, STDOUT_FILENO);
    std::string problem;
    try {
        if (!LoadConfigFile())
            problem = "not there, or a value is not right";
    } catch (const std::exception& error) {
        problem = error.what();
    }
    std::fflush(stdout);
    dup2(standardOutput, STDOUT_FILENO);
    close(standardOutput);
    if (!problem.empty())
        throw std::runtime_error(folder + "/kmt_ssa_config.xml: " + problem);
}

void Run(const Options& options) {
    if (!options.configFolder.empty())
        LoadSettings(options.configFolder);
    Tunables tunables = Tunables::Current();
    for (const std::string& setting : options.settings)
        tunables.Set(setting);
    tunables.Apply();

    if (options.film.empty() || options.traces.empty())
        throw UsageError("needs --film and --trace, or --replay; see --help");
    Film film = ReadFilm(options.film);
    film.audioBitrate = options.noAudio ? 0 : options.audioKbps * 1000;
    for (Film::Level& level : film.levels) {
        const std::vector<int64_t> once = level.clusterSizes;
        for (int i = 1; i < options.loops; ++i)
            level.clusterSizes.insert(level.clusterSizes.end(), once.begin(), once.end());
    }
    std::vector<Trace> traces;
    for (const std::string& file : Files(options.traces, ".json"))
        traces.push_back(ReadTrace(file));
    if (traces.empty())
        throw std::runtime_error("no trace files (*.json) found");

    if (options.decisions) {
        PrintDecisions(film, traces.front(), options);
        return;
    }
    const std::vector<Tunables> sweep = Grid(tunables, options.grid);
    if (!options.record.empty() && (traces.size() > 1 || sweep.size() > 1))
        throw UsageError("--record takes one trace, and no grid: a recording is of one session");
    if (options.jsonLines) {
        PrintSweep(film, traces, sweep, options);
        return;
    }
    if (!options.grid.empty()) {
        std::vector<Trial> trials;
        for (const Tunables& candidate : sweep) {
            candidate.Apply();
            trials.push_back({candidate.Describe(), Summarise(PlayAll(film, traces, options))});
        }
        PrintTrials(trials, static_cast<size_t>(options.top));
        return;
    }
    const auto begin = std::chrono::steady_clock::now();
    const std::vector<Result> results =
        options.record.empty() ? PlayAll(film, traces, options)
                               : std::vector<Result>{PlayAndRecord(film, traces.front(), options)};
    const double seconds =
        std::chrono::duration<double>(std::chrono::steady_clock::now() - begin).count();
    if (options.json)
        PrintJson(results, tunables.Describe(), seconds);
    else if (options.csv)
        PrintCsv(results);
    else
        PrintTable(results, seconds);
}

}  // namespace

int main(int argc, char** argv) {
    Options options;
    CLI::App app(
        "Plays a film over bandwidth traces in virtual time, with the library's own stream "
        "switching, and tells how the sessions went.",
        "opal-simulate");
    app.footer(kFooter);
    auto* replay =
        app.add_option("--replay", options.replays,
                       "Decide recorded sessions again and compare: files of opal-play's "
                       "or this program's --record, or folders of .jsonl files")
            ->type_name("FILE");
    auto* film = app.add_option(
        "--film", options.film,
        "Film description: segment_duration_ms, bitrates_kbps, segment_sizes_bits; the "
        "presentation.json of opal-package is one");
    film->type_name("FILE")->excludes(replay);
    app.add_option("--trace", options.traces, "Trace files, or folders of them")
        ->type_name("FILE")
        ->needs(film);
    app.add_option("--config", options.configFolder, "Folder of a kmt_ssa_config.xml")
        ->type_name("FOLDER");
    app.add_option("--set", options.settings,
                   "A tunable, named as in kmt_ssa_config.xml, times in ms; agile.NAME "
                   "and steady.NAME for the modes")
        ->type_name("NAME=VALUE");
    app.add_option("--grid", options.grid,
                   "Try each value; several span a grid. Prints the best: fewest "
                   "stalls, then bitrate, then steps")
        ->type_name("NAME=V1,V2,...");
    app.add_option("--top", options.top, "How many of a grid to print")->check(CLI::Range(1, 1000));
    auto* audio =
        app.add_option("--audio", options.audioKbps, "The audio track's kbit/s; 128 by default")
            ->check(CLI::Range(1, 2000));
    app.add_flag("--no-audio", options.noAudio, "A film without sound")->excludes(audio);
    const std::map<std::string, RuleName> rules = {{"built-in", RuleName::BuiltIn},
                                                   {"bola-e", RuleName::BolaE}};
    app.add_option("--rule", options.rule, "What decides; bola-e is published, to compare with")
        ->type_name("built-in|bola-e")
        ->transform(CLI::CheckedTransformer(rules));
    app.add_option("--bola-buffer", options.bolaBufferSeconds,
                   "Seconds that bola-e buffers at most; 25 by default")
        ->check(CLI::Range(4.0, 3600.0));
    app.add_option("--loop", options.loops, "Play the film this many times in a row")
        ->check(CLI::Range(1, 100));
    app.add_option("--jobs", options.jobs, "Threads; all cores by default")
        ->check(CLI::Range(1, 256));
    app.add_flag("--decisions", options.decisions, "Print each decision over the first trace");
    auto* json = app.add_flag("--json", options.json, "Results as JSON");
    auto* csv = app.add_flag("--csv", options.csv, "Results as CSV")->excludes(json);
    auto* lines = app.add_flag("--json-lines", options.jsonLines,
                               "One JSON line a session, as it ends; of a grid too")
                      ->excludes(json)
                      ->excludes(csv);
    app.add_option("--record", options.record,
                   "Write the recording of one session, as opal-play does; for opal-report too")
        ->type_name("FILE")
        ->needs(film)
        ->excludes(lines);
    std::string slice;
    app.add_option("--slice", slice,
                   "Of the sessions of a sweep only those of part K of N, so that N runs, on "
                   "any number of machines, make the whole")
        ->type_name("K/N")
        ->needs(lines);
    opal::tools::Prepare(
        app, {"--film", "--trace", "--set", "--grid", "--rule", "--replay", "--json", "--csv"});
    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError& error) {
        return opal::tools::ExitOfParse(app, error, kExitUsage, kExitInput);
    }
    log4cxx::Logger::getRootLogger()->setLevel(log4cxx::Level::getOff());
    static SimulatedClock clock;
    opal::SetClock(&clock);
    try {
        if (!slice.empty())
            options.slice = Slice::Parse(slice);
        bool same = true;
        if (!options.replays.empty())
            same = PrintReplays(options.replays);
        else
            Run(options);
        if (std::fflush(stdout) != 0 || std::ferror(stdout) != 0)
            throw std::runtime_error("the results cannot be written");
        return same ? 0 : kExitDiffers;
    } catch (const UsageError& error) {
        std::cerr << "opal-simulate: " << error.what() << "\n";
        return kExitUsage;
    } catch (const std::exception& error) {
        std::cerr << "opal-simulate: " << error.what() << "\n";
        return kExitInput;
    }
}
