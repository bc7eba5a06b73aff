#include <signal.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <iostream>
#include <string>

#include "command-line/CommandLine.h"
#include "opal-package/Av.h"
#include "opal-package/Dump.h"
#include "opal-package/Error.h"
#include "opal-package/Packager.h"

namespace {

using opal::package::Failure;
using opal::package::PackageError;

constexpr const char* kFooter = R"(Examples:
  opal-package film.mp4 -o film --base-url http://127.0.0.1:8090
  opal-package film.mkv -o film --subtitles english.srt:eng
  opal-package --test-film --duration 30 -o film
  opal-package --manifest film --base-url http://192.168.0.2:8090
  opal-package --dump film/trick.mkv

Exit codes: 0 done; 1 a file cannot be read or written, or an encoder is
missing; 2 wrong command line; 3 the source cannot be packaged; 4 --dump: the
file is damaged; 128 and the signal's number: stopped by SIGINT, SIGTERM or
SIGHUP. The folder stays as it was unless the code is 0.)";

volatile std::sig_atomic_t g_signal = 0;

/// The second signal of a kind ends the program at once.
void StopOnSignals() {
    struct sigaction action = {};
    action.sa_handler = [](int number) { g_signal = number; };
    action.sa_flags = static_cast<int>(SA_RESETHAND);
    sigaction(SIGINT, &action, nullptr);
    sigaction(SIGTERM, &action, nullptr);
    sigaction(SIGHUP, &action, nullptr);
}

/// A bar that stays on its line on a terminal; on a pipe a line for every tenth.
class ProgressLine {
  public:
    void Show(int64_t doneMs, int64_t allMs) {
        const int percent =
            allMs > 0 ? static_cast<int>(std::min<int64_t>(100, doneMs * 100 / allMs)) : 0;
        if (m_terminal) {
            ShowBar(percent, doneMs, allMs);
        } else if (allMs > 0 && percent / 10 != m_shown) {
            m_shown = percent / 10;
            std::printf("%3d %%\n", m_shown * 10);
        } else if (allMs <= 0 && doneMs / 10000 != m_shown) {
            m_shown = static_cast<int>(doneMs / 10000);
            std::printf("%d s\n", m_shown * 10);
        }
        std::fflush(stdout);
    }

    /// Leaves the bar's line, so that something else can be printed.
    void Break() {
        if (m_terminal && m_shown > 0) {
            std::printf("\n");
            m_shown = 0;
        }
    }

  private:
    void ShowBar(int percent, int64_t doneMs, int64_t allMs) {
        constexpr int kWidth = 40;
        constexpr int kColumns = 80;
        const int state = allMs > 0 ? 1 + percent : static_cast<int>(1 + doneMs / 1000);
        if (state == m_shown)
            return;
        m_shown = state;
        char figures[64];
        std::snprintf(figures, sizeof figures, "%3d %%  %.1f s%s", percent,
                      static_cast<double>(doneMs) / 1000, TimeLeft(percent).c_str());
        winsize window = {};
        const int columns = ioctl(STDOUT_FILENO, TIOCGWINSZ, &window) == 0 && window.ws_col > 0
                                ? window.ws_col
                                : kColumns;
        // The last column stays free, or the terminal would go to the next line.
        const int width = std::min(kWidth, columns - 4 - static_cast<int>(std::strlen(figures)));
        std::string line = figures;
        if (width > 0) {
            std::string bar(static_cast<size_t>(percent * width / 100), '#');
            bar.resize(static_cast<size_t>(width), ' ');
            line = "[" + bar + "] " + line;
        }
        std::printf("\r%s\033[K", line.substr(0, static_cast<size_t>(columns - 1)).c_str());
    }

    /// At the pace so far.
    std::string TimeLeft(int percent) const {
        if (percent <= 0)
            return "";
        const std::chrono::duration<double> spent = std::chrono::steady_clock::now() - m_start;
        const auto seconds = static_cast<int64_t>(spent.count() * (100 - percent) / percent);
        char text[32];
        std::snprintf(text, sizeof text, "  %lld:%02lld left", static_cast<long long>(seconds / 60),
                      static_cast<long long>(seconds % 60));
        return text;
    }

    const std::chrono::steady_clock::time_point m_start = std::chrono::steady_clock::now();
    bool m_terminal = isatty(STDOUT_FILENO) != 0;
    int m_shown = 0;
};

struct CommandLine {
    opal::package::PackageOptions package;
    bool testFilm = false;
    std::string levels;
    std::string audioBitrate = "128k";
    std::string audioLanguages = "eng,ger";
    std::string textLanguages = "eng";
    double duration = 30;
    std::vector<std::string> subtitles;
    std::string manifestFolder;
    std::string dumpFile;
};

void Declare(CLI::App& app, CommandLine& line) {
    app.footer(kFooter);
    app.add_option("INPUT", line.package.input, "Video; without one, the test film is made")
        ->type_name("FILE");
    app.add_option("-o,--output", line.package.folder, "Folder to be made")->type_name("FOLDER");
    app.add_flag("--test-film", line.testFilm, "Make the test film (the default without INPUT)");
    app.add_option("--duration", line.duration, "Seconds of test film")->capture_default_str();
    app.add_option("--fps", line.package.testFilm.framesPerSecond, "Frames a second, test film")
        ->capture_default_str();
    app.add_option("--audio", line.audioLanguages, "Languages of the test film's audio tracks")
        ->capture_default_str();
    app.add_option("--texts", line.textLanguages, "Languages of the test film's subtitle tracks")
        ->capture_default_str();
    app.add_option("--levels", line.levels,
                   "Ladder, as 500k:426x240,1000k:640x360; by default five levels from 240p to "
                   "1080p. Levels larger than the source take its size")
        ->type_name("LADDER");
    app.add_flag("--copy", line.package.copy,
                 "One level of the source's own H.264 pictures; they need a key frame every 2 s");
    app.add_option("--preset", line.package.preset, "x264 preset")->capture_default_str();
    app.add_option("--audio-bitrate", line.audioBitrate, "Rate of each audio track")
        ->capture_default_str();
    app.add_option(
           "--subtitles", line.subtitles,
           "SubRip or WebVTT file and language, as film.srt:eng; may be repeated. Tracks of "
           "texts inside INPUT are taken as well")
        ->type_name("FILE")
        ->allow_extra_args(false);
    app.add_option("--font", line.package.font,
                   "TrueType font for the subtitles; by default DejaVu Sans of this machine")
        ->type_name("FILE");
    app.add_option("--trick-interval", line.package.trickIntervalMs,
                   "Milliseconds between trick pictures; 0 for no trick track")
        ->capture_default_str();
    app.add_option("--base-url", line.package.baseUrl,
                   "URL under which the folder will be served; the manifest holds it")
        ->type_name("URL")
        ->capture_default_str();
    app.add_option("--manifest", line.manifestFolder,
                   "Only write FOLDER's manifest again, with another --base-url")
        ->type_name("FOLDER");
    app.add_flag("--golden", line.package.golden,
                 "Write FILE.golden beside each file: time, size and CRC of every block");
    app.add_option("--dump", line.dumpFile,
                   "Print FILE's header, index and blocks, or the blocks of FILE.golden")
        ->type_name("FILE");
    opal::tools::Prepare(app, {"--output", "--levels", "--subtitles", "--duration", "--base-url",
                               "--manifest", "--dump"});
}

std::vector<std::string> Split(const std::string& text, char separator) {
    std::vector<std::string> parts;
    std::istringstream in(text);
    for (std::string part; std::getline(in, part, separator);)
        parts.push_back(part);
    return parts;
}

void Complete(CommandLine& line) {
    auto& options = line.package;
    if (line.testFilm && !options.input.empty())
        throw PackageError(Failure::Usage, "--test-film and an INPUT do not go together");
    if (!line.levels.empty())
        options.ladder = opal::package::ParseLadder(line.levels);
    if (!(line.duration > 0 && line.duration <= 24 * 3600))
        throw PackageError(Failure::Usage, "--duration is from above 0 to 86400 seconds");
    options.testFilm.durationMs = static_cast<int64_t>(line.duration * 1000);
    options.testFilm.texts = Split(line.textLanguages, ',');
    options.testFilm.languages = Split(line.audioLanguages, ',');
    options.audioBitrate = opal::package::ParseBitrate(line.audioBitrate);
    for (const std::string& text : line.subtitles) {
        const size_t colon = text.rfind(':');
        if (colon == std::string::npos) {
            throw PackageError(Failure::Usage,
                               "--subtitles '" + text + "' lacks its language; write FILE.srt:eng");
        }
        options.subtitles.push_back({text.substr(0, colon), text.substr(colon + 1)});
    }
}

int Run(CommandLine& line) {
    if (!line.dumpFile.empty())
        return opal::package::Dump(line.dumpFile, std::cout);
    opal::package::CheckBaseUrl(line.package.baseUrl);
    if (!line.manifestFolder.empty()) {
        opal::package::RewriteManifest(line.manifestFolder, line.package.baseUrl);
        std::printf("%s/%s now points to %s\n", line.manifestFolder.c_str(),
                    opal::package::kManifestName, line.package.baseUrl.c_str());
        return 0;
    }
    Complete(line);
    ProgressLine progress;
    opal::package::PackageEvents events;
    events.note = [&progress](const std::string& text) {
        progress.Break();
        std::printf("%s\n", text.c_str());
    };
    events.progress = [&progress](int64_t done, int64_t all) { progress.Show(done, all); };
    events.stopped = [] { return g_signal != 0; };
    StopOnSignals();
    try {
        const auto presentation = opal::package::Package(line.package, events);
        progress.Break();
        std::printf(
            "%s: %.1f s in %zu files. The manifest %s/%s expects the folder to be served "
            "at %s; another place: opal-package --manifest %s --base-url URL\n",
            line.package.folder.c_str(), static_cast<double>(presentation.durationMs) / 1000,
            presentation.entries.size(), line.package.folder.c_str(), opal::package::kManifestName,
            line.package.baseUrl.c_str(), line.package.folder.c_str());
    } catch (...) {
        progress.Break();
        throw;
    }
    return 0;
}

}  // namespace

int main(int argc, char** argv) {
    // What the libraries have to say of a source would tear the progress bar apart.
    av_log_set_level(AV_LOG_ERROR);
    CLI::App app("Makes a presentation folder for adaptive streaming from a video.",
                 "opal-package");
    CommandLine line;
    Declare(app, line);
    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError& error) {
        return opal::tools::ExitOfParse(app, error, static_cast<int>(Failure::Usage),
                                        static_cast<int>(Failure::InputOutput));
    }
    try {
        const int code = Run(line);
        if (std::fflush(stdout) != 0 || std::ferror(stdout) != 0 || !std::cout.flush())
            throw PackageError(Failure::InputOutput, "standard output cannot be written");
        return code;
    } catch (const PackageError& error) {
        std::fprintf(stderr, "opal-package: %s\n", error.what());
        return error.GetFailure() == Failure::Stopped ? 128 + g_signal
                                                      : static_cast<int>(error.GetFailure());
    } catch (const std::exception& error) {
        std::fprintf(stderr, "opal-package: %s\n", error.what());
        return static_cast<int>(Failure::InputOutput);
    }
}
