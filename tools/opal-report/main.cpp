#include <fcntl.h>
#include <spawn.h>
#include <sys/wait.h>

#include <CLI/CLI.hpp>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <memory>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "command-line/CommandLine.h"
#include "opal-report/Page.h"
#include "opal-report/SessionReport.h"
#include "recording/SessionReader.h"

namespace {

using opal::recording::Session;
using opal::recording::SessionReader;
using opal::report::SessionReport;
using Reports = std::vector<const SessionReport*>;

enum ExitCode { kDone = 0, kFailed = 1, kBadArguments = 2 };

const char* const kFooter = R"(Examples:
  opal-play --record film.jsonl URL; opal-report film.jsonl --open
  opal-report one.jsonl other.jsonl -o both.html
  opal-report film.jsonl --link link.jsonl
  opal-report film.jsonl --csv rows.csv --json rows.json

Two recordings are drawn side by side on one time axis. --link takes the file
that opal-origin --link-log wrote while the session ran: the true rate of its
link, by the clock. - as a file is the standard output.

Exit codes: 0 done, 1 a file cannot be read or written or is no recording,
2 wrong arguments.)";

struct Arguments {
    std::vector<std::string> recordings;
    std::string output;
    std::string csv;
    std::string json;
    std::vector<std::string> links;
    bool open = false;
};

void Declare(CLI::App* app, Arguments* arguments) {
    app->footer(kFooter);
    app->add_option("FILE", arguments->recordings, "Recording of a session; two to compare")
        ->type_name("FILE")
        ->required()
        ->expected(1, 2);
    app->add_option("-o,--output", arguments->output, "The page; default: FILE with .html")
        ->type_name("FILE");
    app->add_option("--csv", arguments->csv, "Write the rows as CSV too")->type_name("FILE");
    app->add_option("--json", arguments->json, "Write the rows as JSON too")->type_name("FILE");
    app->add_option("--link", arguments->links, "True rate of the link, of opal-origin --link-log")
        ->type_name("FILE")
        ->allow_extra_args(false);
    app->add_flag("--open", arguments->open, "Open the page, if this is a desktop");
    opal::tools::Prepare(*app, {"--output", "--csv", "--json", "--link", "--open"});
}

bool Fail(const std::string& file, const std::string& text) {
    std::fprintf(stderr, "opal-report: %s: %s\n", file.c_str(), text.c_str());
    return false;
}

bool Read(const std::string& path, Session* session) {
    std::string error;
    if (!SessionReader::ReadFile(path, session, &error))
        return Fail(path, error);
    if (session->unreadable > 0 || session->partial) {
        std::fprintf(stderr, "opal-report: %s: %zu lines are unreadable and left out%s\n",
                     path.c_str(), session->unreadable,
                     session->partial ? "; it is too long to be read whole" : "");
    }
    return true;
}

bool Write(const std::string& path, const std::string& text) {
    if (path == "-")
        return std::fwrite(text.data(), 1, text.size(), stdout) == text.size() &&
               std::fflush(stdout) == 0;
    std::ofstream file(path, std::ios::binary);
    file << text;
    file.close();
    return file ? true : Fail(path, "cannot be written");
}

/// Hands the page to the desktop, which goes on by itself. Without a desktop nothing happens.
void Open(const std::string& page) {
    if (!std::getenv("DISPLAY") && !std::getenv("WAYLAND_DISPLAY"))
        return;
    std::string program = "xdg-open";
    std::string argument = page;
    char* arguments[] = {program.data(), argument.data(), nullptr};
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, 1, "/dev/null", O_WRONLY, 0);
    posix_spawn_file_actions_addopen(&actions, 2, "/dev/null", O_WRONLY, 0);
    pid_t child = 0;
    if (posix_spawnp(&child, program.c_str(), &actions, nullptr, arguments, environ) == 0) {
        int status = 0;
        waitpid(child, &status, 0);
    }
    posix_spawn_file_actions_destroy(&actions);
}

std::string PageFor(const std::string& recording) {
    const std::string page = std::filesystem::path(recording).replace_extension(".html").string();
    return page == recording ? page + ".html" : page;
}

int Run(Arguments arguments) {
    std::vector<std::unique_ptr<SessionReport>> owners;
    Reports reports;
    std::vector<Session> links(arguments.links.size());
    for (size_t i = 0; i < links.size(); ++i) {
        if (!Read(arguments.links[i], &links[i]))
            return kFailed;
    }
    for (const std::string& path : arguments.recordings) {
        Session session;
        if (!Read(path, &session))
            return kFailed;
        owners.push_back(std::make_unique<SessionReport>());
        owners.back()->SetHeader(session.header);
        for (const auto& record : session.records)
            owners.back()->Take(record);
        owners.back()->Finish();
        for (const Session& link : links)
            owners.back()->TakeLink(link.records);
        reports.push_back(owners.back().get());
    }
    nlohmann::json data = ToJson(reports);
    for (size_t i = 0; i < arguments.recordings.size(); ++i)
        data["sessions"][i]["file"] =
            std::filesystem::path(arguments.recordings[i]).filename().string();
    if (arguments.output.empty())
        arguments.output = PageFor(arguments.recordings[0]);
    using nlohmann::json;
    const bool written =
        Write(arguments.output, opal::report::MakePage(data)) &&
        (arguments.csv.empty() || Write(arguments.csv, ToCsv(reports))) &&
        (arguments.json.empty() ||
         Write(arguments.json, data.dump(-1, ' ', false, json::error_handler_t::replace) + "\n"));
    if (!written)
        return kFailed;
    if (arguments.output != "-") {
        const std::string page = std::filesystem::absolute(arguments.output).string();
        if (arguments.csv != "-" && arguments.json != "-")
            std::printf("%s\n", page.c_str());
        if (arguments.open)
            Open(page);
    }
    return kDone;
}

}  // namespace

int main(int argc, char** argv) {
    try {
        CLI::App app("Draws recordings of sessions: one page that needs nothing else.",
                     "opal-report");
        Arguments arguments;
        Declare(&app, &arguments);
        try {
            app.parse(argc, argv);
        } catch (const CLI::ParseError& error) {
            return opal::tools::ExitOfParse(app, error, kBadArguments, kFailed);
        }
        return Run(arguments);
    } catch (const std::exception& error) {
        std::fprintf(stderr, "opal-report: %s\n", error.what());
        return kFailed;
    }
}
