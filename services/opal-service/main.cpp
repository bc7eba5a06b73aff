#include <pthread.h>
#include <signal.h>

#include <CLI/CLI.hpp>
#include <cstdio>
#include <fstream>
#include <iterator>
#include <string>

#include "command-line/CommandLine.h"
#include "opal-service/Simulator.h"

namespace {

using opal::service::Failure;
using opal::service::Received;
using opal::service::Simulator;
using opal::service::SimulatorSettings;

enum ExitCode { kStopped = 0, kCannotServe = 1, kBadArguments = 2 };

const char* const kFooter = R"(Examples:
  opal-service --manifest film/presentation.smil --endpoint-file WNCEndPoint.cfg
  opal-service --ticket one=a.smil --ticket two=b.smil --fail saveEvent=503:2
  opal-service --manifest a.smil --certificate cert.pem --key key.pem --json

Output: the first line on the standard output names the address; behind it comes
one line a call that was received, as text or, with --json, as a JSON object.

Failures: --fail OPERATION=KIND[:TIMES]. Operations: openTicket,
getStreamingConfiguration, getPulseConfiguration, getLogServerSettings,
saveEvent, resumePlayBack, renewSession, logUpload, or * for any. Kinds: an HTTP
status, fault, garbage, html, empty, empty-body, namespace, stall, close, run-out
(of the session), and as words of the service's no-record, echo, refuse-NUMBER.

Exit codes: 0 stopped by SIGINT or SIGTERM, 1 a file or the port cannot be used,
2 a wrong option.)";

struct Arguments {
    SimulatorSettings settings;
    std::string manifestFile;
    std::vector<std::string> tickets;
    std::vector<std::string> failures;
    std::string levels = "123";
    std::string portFile;
    std::string endpointFile;
    bool json = false;
};

void Declare(CLI::App& app, Arguments& arguments) {
    SimulatorSettings& settings = arguments.settings;
    app.footer(kFooter);
    app.add_option("--manifest", arguments.manifestFile, "SMIL file that any ticket stands for")
        ->type_name("FILE");
    app.add_option("--ticket", arguments.tickets, "SMIL file of this ticket")
        ->type_name("TICKET=FILE");
    app.add_option("--port", settings.port, "TCP port; 0, the default: a free one");
    app.add_option("--bind", settings.address, "Address to listen on")->capture_default_str();
    app.add_option("--port-file", arguments.portFile, "Write the port into this file")
        ->type_name("FILE");
    app.add_option("--endpoint-file", arguments.endpointFile,
                   "Write what a player's WNCEndPoint.cfg has to say into this file")
        ->type_name("FILE");
    auto* certificate = app.add_option("--certificate", settings.certificate, "PEM file: serve TLS")
                            ->type_name("FILE");
    app.add_option("--key", settings.key, "PEM file of the certificate's key")
        ->type_name("FILE")
        ->needs(certificate);
    certificate->needs("--key");
    app.add_option("--asset", settings.assetId, "Asset of the ticket")->capture_default_str();
    app.add_option("--audio-asset", settings.audioAssetId, "Asset of the audio track to prefer");
    app.add_option("--subtitle-asset", settings.subtitleAssetId,
                   "Asset of the subtitle track to prefer");
    app.add_option("--pulse", settings.pulseSeconds, "Seconds between play events")
        ->capture_default_str();
    app.add_option("--log-period", settings.logPeriodMinutes, "Minutes between log uploads")
        ->capture_default_str();
    app.add_option("--log-size", settings.logSize, "Bytes of a log upload")->capture_default_str();
    app.add_option("--log-levels", arguments.levels, "Levels of log events, as 13")
        ->capture_default_str();
    app.add_option("--bandwidth-mode", settings.bandwidthMode, "How the first level is found")
        ->type_name("LowestLevel|BandwidthProbe|BandwidthHint")
        ->capture_default_str();
    app.add_option("--bandwidth-hint", settings.bandwidthHint, "Bits per second");
    app.add_option("--resume", settings.resumeMs, "Resume point of a ticket not played yet, ms");
    app.add_option("--fail", arguments.failures, "What goes wrong, OPERATION=KIND[:TIMES]")
        ->type_name("FAILURE");
    app.add_flag("--json", arguments.json, "One JSON object a call");
    opal::tools::Prepare(app, {"--manifest", "--ticket", "--port", "--endpoint-file", "--fail",
                               "--pulse", "--resume", "--json"});
}

std::string ReadFile(const std::string& path) {
    std::ifstream file(path, std::ios::binary);
    if (!file)
        throw std::runtime_error(path + ": cannot be read");
    return std::string(std::istreambuf_iterator<char>(file), {});
}

void Complete(Arguments& arguments) {
    SimulatorSettings& settings = arguments.settings;
    if (!arguments.manifestFile.empty())
        settings.manifest = ReadFile(arguments.manifestFile);
    for (const std::string& ticket : arguments.tickets) {
        const size_t equals = ticket.find('=');
        if (equals == std::string::npos)
            throw std::invalid_argument("--ticket '" + ticket + "': write TICKET=FILE");
        settings.manifests[ticket.substr(0, equals)] = ReadFile(ticket.substr(equals + 1));
    }
    for (const std::string& failure : arguments.failures)
        settings.failures.push_back(Failure::FromText(failure));
    for (size_t level = 0; level < 3; ++level)
        settings.logLevels[level] =
            arguments.levels.find(static_cast<char>('1' + level)) != std::string::npos;
}

/// A file beside it is renamed to it, so that who waits for the file finds all of it there.
void WriteFile(const std::string& path, const std::string& text) {
    if (path.empty())
        return;
    std::ofstream file(path + ".new");
    file << text;
    file.close();
    if (!file || std::rename((path + ".new").c_str(), path.c_str()) != 0)
        throw std::runtime_error(path + ": cannot be written");
}

int Serve(const Arguments& arguments) {
    sigset_t signals;
    sigemptyset(&signals);
    sigaddset(&signals, SIGINT);
    sigaddset(&signals, SIGTERM);
    pthread_sigmask(SIG_BLOCK, &signals, nullptr);  // inherited by the server's threads
    Simulator simulator(arguments.settings);
    simulator.SetObserver([&](const Received& call) {
        std::printf("%s\n", (arguments.json ? ToJson(call) : ToText(call)).c_str());
        std::fflush(stdout);
    });
    std::string error;
    flockfile(stdout);  // no call is told of above the first line
    const bool started = simulator.Start(&error);
    if (started) {
        const std::string scheme = arguments.settings.certificate.empty() ? "http" : "https";
        std::printf("Serving tickets at %s://%s:%u/\n", scheme.c_str(),
                    arguments.settings.address.c_str(), static_cast<unsigned>(simulator.Port()));
        if (std::fflush(stdout) != 0)
            error = "standard output cannot be written";
    }
    funlockfile(stdout);
    if (!error.empty())
        throw std::runtime_error(error);
    WriteFile(arguments.endpointFile, simulator.EndpointFile());
    WriteFile(arguments.portFile, std::to_string(simulator.Port()) + "\n");
    int received = 0;
    sigwait(&signals, &received);
    simulator.Stop();
    return kStopped;
}

}  // namespace

int main(int argc, char** argv) {
    try {
        CLI::App app("Simulates the services that a start from a ticket speaks with.",
                     "opal-service");
        Arguments arguments;
        Declare(app, arguments);
        try {
            app.parse(argc, argv);
            Complete(arguments);
        } catch (const CLI::ParseError& error) {
            return opal::tools::ExitOfParse(app, error, kBadArguments, kCannotServe);
        } catch (const std::invalid_argument& error) {
            std::fprintf(stderr, "opal-service: %s\n", error.what());
            return kBadArguments;
        }
        return Serve(arguments);
    } catch (const std::exception& error) {
        std::fprintf(stderr, "opal-service: %s\n", error.what());
        return kCannotServe;
    }
}
