#include <pthread.h>
#include <signal.h>

#include <CLI/CLI.hpp>
#include <cerrno>
#include <cstdio>
#include <fstream>
#include <iterator>
#include <string>

#include "command-line/CommandLine.h"
#include "opal-origin/Origin.h"
#include "opal-origin/Script.h"
#include "opal-origin/src/LinkLog.h"

namespace {

using opal::origin::LinkLog;
using opal::origin::Origin;
using opal::origin::OriginOptions;
using opal::origin::RateScript;
using opal::origin::RequestRecord;
using opal::origin::Script;

enum ExitCode { kStopped = 0, kCannotServe = 1, kBadArguments = 2 };

const char* const kFooter = R"(Examples:
  opal-origin presentation
  opal-origin presentation --rates "0 6000k, 20 1000k, 60 8000k" --latency 20
  opal-origin presentation --trace trace1.json --port 8080 --bind 0.0.0.0
  opal-origin presentation --script faults.json

Output: the first line on the standard output names the address:
  Serving presentation at http://127.0.0.1:PORT/
Behind it comes one line a request, when its reply has ended:
  seconds #connection method target ranges status body-bytes duration ok|cut

Rates: in bits per second (800, 6000k, 2.5M, unlimited; 0 cuts the link); they
count heads and bodies. All connections share the one link. The time of --rates
and --trace starts with the first request.

Scripts: a script file is JSON: "rate", "rates" or "trace", "latency_ms", and
"faults", of which the first that matches a request strikes it:
  {"faults": [{"url": "video*.mkv", "method": "GET", "nth": 3, "status": 503},
              {"url": "audio*", "covers": 4096, "stall_at": 1000,
               "stall_ms": 5000}]}
Which requests: url, method, range_start, covers, nth or skip, times. Which
reply: status, body, redirect, ignore_range, extra_bytes, headers, drop_headers,
delay_ms, hold. Where it breaks: stall_at (stall_ms), reset_at, close_at,
close_after (a byte of the body, or "before-head").

Signals: SIGUSR1 lets go what is held or stalled.

Files: symbolic links in the folder are not followed.

Exit codes: 0 stopped by SIGINT or SIGTERM, 1 the folder or the port cannot be
served, 2 a wrong option, script or trace.)";

struct Arguments {
    OriginOptions options;
    std::string rate;
    std::string rates;
    std::string traceFile;
    std::string scriptFile;
    std::string portFile;
    std::string linkLog;
    int64_t latencyMs = -1;
    bool quiet = false;
};

void Declare(CLI::App* pApp, Arguments* pArguments) {
    pApp->footer(kFooter);
    pApp->add_option("FOLDER", pArguments->options.folder, "The folder to serve")
        ->type_name("FOLDER")
        ->required();
    pApp->add_option("--port", pArguments->options.port, "TCP port; 0, the default: a free one");
    pApp->add_option("--bind", pArguments->options.address, "Address to listen on")
        ->type_name("ADDRESS")
        ->capture_default_str();
    pApp->add_option("--port-file", pArguments->portFile, "Write the port into this file")
        ->type_name("FILE");
    auto* pRates = pApp->add_option_group("Link", "One of these sets the rate");
    pRates->add_option("--rate", pArguments->rate, "Constant rate, e.g. 6000k")->type_name("RATE");
    pRates
        ->add_option("--rates", pArguments->rates,
                     "In place of it: rates over time, \"0 6000k, 20 1000k\"")
        ->type_name("RATES");
    pRates
        ->add_option("--trace", pArguments->traceFile,
                     "In place of it: JSON bandwidth trace, looping")
        ->type_name("FILE");
    pRates->require_option(0, 1);
    pApp->add_option("--latency", pArguments->latencyMs, "Milliseconds before each reply")
        ->check(CLI::Range(0, 3600000));
    pApp->add_option("--link-log", pArguments->linkLog,
                     "Write the link's rate over time, for opal-report --link")
        ->type_name("FILE");
    pApp->add_option("--script", pArguments->scriptFile, "JSON script of faults and rates")
        ->type_name("FILE");
    pApp->add_flag("--quiet", pArguments->quiet, "No access log");
    opal::tools::Prepare(*pApp, {"--port", "--bind", "--rate", "--rates", "--latency", "--quiet"});
}

int Fail(ExitCode code, const std::string& text) {
    std::fprintf(stderr, "opal-origin: %s\n", text.c_str());
    return code;
}

bool ReadFile(const std::string& path, std::string* pText, std::string* pError) {
    std::ifstream file(path, std::ios::binary);
    pText->assign(std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>());
    if (!file.good() && !file.eof())
        *pError = "cannot be read";
    return pError->empty();
}

// What options and files say about the link and the faults; options go before the script.
bool MakeScript(const Arguments& arguments, Script* pScript, std::string* pError) {
    std::string error;
    std::string text;
    if (!arguments.scriptFile.empty() && (!ReadFile(arguments.scriptFile, &text, &error) ||
                                          !Script::FromJson(text, pScript, &error))) {
        *pError = arguments.scriptFile + ": " + error;
        return false;
    }
    if (!arguments.rate.empty()) {
        int64_t rate = 0;
        if (!opal::origin::ParseRate(arguments.rate, &rate)) {
            *pError = "--rate: '" + arguments.rate + "' is not a rate such as 6000k";
            return false;
        }
        pScript->rates = RateScript::Constant(rate);
    } else if (!arguments.rates.empty()) {
        if (!RateScript::FromText(arguments.rates, &pScript->rates, &error)) {
            *pError = "--rates: " + error;
            return false;
        }
    } else if (!arguments.traceFile.empty()) {
        if (!ReadFile(arguments.traceFile, &text, &error) ||
            !RateScript::FromTrace(text, &pScript->rates, &error)) {
            *pError = arguments.traceFile + ": " + error;
            return false;
        }
    }
    pScript->hasRates = true;  // without any rate the script is empty, and that is no limit
    if (arguments.latencyMs >= 0)
        pScript->latencyMs = arguments.latencyMs;
    return true;
}

// A file beside it is renamed to it, so that who waits for the file finds the whole number in it.
bool WritePortFile(const std::string& path, uint16_t port) {
    const std::string unfinished = path + ".new";
    {
        std::ofstream file(unfinished);
        file << port << "\n";
        file.close();
        if (!file)
            return false;
    }
    return std::rename(unfinished.c_str(), path.c_str()) == 0;
}

void PrintRecord(const RequestRecord& record) {
    std::printf("%s\n", FormatRecord(record).c_str());
    std::fflush(stdout);
}

/// Waits for a signal, and tells the log meanwhile what the link does.
int NextSignal(const sigset_t& signals, const Origin& origin, LinkLog* pLog) {
    const timespec pollTime{0, 100'000'000};
    int received = -1;
    while (received < 0 && (received = sigtimedwait(&signals, nullptr, &pollTime)) < 0) {
        if (errno != EAGAIN && errno != EINTR)
            return -1;
        pLog->Follow(origin.RateScriptTime());
    }
    pLog->Follow(origin.RateScriptTime());
    return received;
}

int Serve(const Arguments& arguments, const Script& script) {
    sigset_t signals;
    sigemptyset(&signals);
    sigaddset(&signals, SIGINT);
    sigaddset(&signals, SIGTERM);
    sigaddset(&signals, SIGUSR1);
    pthread_sigmask(SIG_BLOCK, &signals, nullptr);  // inherited by the server's thread
    signal(SIGPIPE, SIG_IGN);                       // the log's reader may go away

    Origin origin(arguments.options);
    script.ApplyTo(&origin);
    LinkLog linkLog(script.rates);
    if (!arguments.linkLog.empty() && !linkLog.Open(arguments.linkLog))
        return Fail(kCannotServe, arguments.linkLog + ": cannot be written");
    std::string error;
    if (!origin.Start(&error))
        return Fail(kCannotServe, error);
    // Who finds the port, in the file or in the first line, finds everything in place; and no
    // request is logged above that line.
    flockfile(stdout);
    if (!arguments.quiet)
        origin.SetObserver(PrintRecord);
    const bool portFileWritten =
        arguments.portFile.empty() || WritePortFile(arguments.portFile, origin.Port());
    bool told = true;
    if (portFileWritten) {
        std::printf("Serving %s at %s\n", arguments.options.folder.c_str(),
                    origin.Url("/").c_str());
        told = std::fflush(stdout) == 0;
    }
    funlockfile(stdout);
    if (!portFileWritten)
        return Fail(kCannotServe, arguments.portFile + ": cannot be written");
    if (!told)
        return Fail(kCannotServe, "standard output cannot be written");
    int received = 0;
    do {
        received = arguments.linkLog.empty() ? sigwaitinfo(&signals, nullptr)
                                             : NextSignal(signals, origin, &linkLog);
        if (received == SIGUSR1)
            origin.Resume(0);
    } while (received == SIGUSR1 || (received < 0 && errno == EINTR));
    origin.Stop();
    return kStopped;
}

}  // namespace

int main(int argc, char** argv) {
    try {
        CLI::App app("Serves a presentation folder over HTTP, through a link of scripted rate.",
                     "opal-origin");
        Arguments arguments;
        Declare(&app, &arguments);
        try {
            app.parse(argc, argv);
        } catch (const CLI::ParseError& error) {
            return opal::tools::ExitOfParse(app, error, kBadArguments, kCannotServe);
        }
        Script script;
        std::string error;
        if (!MakeScript(arguments, &script, &error))
            return Fail(kBadArguments, error);
        return Serve(arguments, script);
    } catch (const std::exception& error) {
        return Fail(kCannotServe, error.what());
    }
}
