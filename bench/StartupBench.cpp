// From a process's start to its first picture: opal-play without a window, and other players on a
// level of the same presentation from the same origin.
//
//   bench_startup OPAL_PLAY MANIFEST_URL LEVEL_URL
//
// opal-play's time ends with the line in which it tells of the first picture: what comes behind is
// the end of a session, for which the television is given a second and a half. mpv's ends with the
// line in which it opens its output, ffmpeg's with its end. Wall time, in turn. A peer that is not
// installed is left out. Exit code: 0; 2 if a player fails.

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstring>
#include <stdexcept>

#include "bench/Figures.h"

namespace {

using Clock = std::chrono::steady_clock;

constexpr int kRuns = 9;
constexpr std::chrono::seconds kLongest{20};

struct Player {
    std::string name;
    std::vector<std::string> command;
    std::string sign;  ///< of the first picture, in what it prints; empty: its end
    std::vector<double> times = {};
    bool installed = true;
};

double MsSince(Clock::time_point start) {
    return std::chrono::duration<double, std::milli>(Clock::now() - start).count();
}

/// A running player with a pipe from its standard output and error.
class Process {
  public:
    explicit Process(const std::vector<std::string>& command) {
        int ends[2];
        if (pipe2(ends, O_CLOEXEC) != 0)
            throw std::runtime_error("no pipe");
        m_output = ends[0];
        posix_spawn_file_actions_t actions;
        posix_spawn_file_actions_init(&actions);
        posix_spawn_file_actions_addopen(&actions, 0, "/dev/null", O_RDONLY, 0);
        posix_spawn_file_actions_adddup2(&actions, ends[1], 1);
        posix_spawn_file_actions_adddup2(&actions, ends[1], 2);
        std::vector<char*> arguments;
        for (const std::string& argument : command)
            arguments.push_back(const_cast<char*>(argument.c_str()));
        arguments.push_back(nullptr);
        m_error = posix_spawnp(&m_pid, arguments[0], &actions, nullptr, arguments.data(), environ);
        posix_spawn_file_actions_destroy(&actions);
        close(ends[1]);
    }
    ~Process() {
        if (m_error == 0) {
            kill(m_pid, SIGKILL);
            (void)Wait();
        }
        close(m_output);
    }
    Process(const Process&) = delete;
    Process& operator=(const Process&) = delete;

    bool IsThere() const { return m_error == 0; }
    /// Appends what it prints; false when it has ended or `end` has come.
    bool Read(std::string& text, Clock::time_point end) {
        const auto left =
            std::chrono::duration_cast<std::chrono::milliseconds>(end - Clock::now()).count();
        pollfd ready{m_output, POLLIN, 0};
        if (left <= 0 || poll(&ready, 1, static_cast<int>(left)) <= 0)
            return false;
        char bytes[4096];
        const ssize_t count = read(m_output, bytes, sizeof(bytes));
        if (count > 0)
            text.append(bytes, static_cast<size_t>(count));
        return count > 0;
    }
    int Wait() {
        int status = -1;
        while (waitpid(m_pid, &status, 0) < 0 && errno == EINTR) {
        }
        m_error = ECHILD;
        return status;
    }

  private:
    pid_t m_pid = -1;
    int m_output = -1;
    int m_error = 0;
};

/// Milliseconds to the first picture.
double Run(Player& player) {
    const auto start = Clock::now();
    Process process(player.command);
    player.installed = process.IsThere();
    if (!player.installed)
        return 0;
    std::string text;
    double time = 0;
    while (process.Read(text, start + kLongest)) {
        if (time == 0 && !player.sign.empty() && text.find(player.sign) != std::string::npos)
            time = MsSince(start);
    }
    if (MsSince(start) > kLongest.count() * 1000.0)
        throw std::runtime_error(player.name + " shows nothing:\n" + text);
    const int status = process.Wait();
    if (player.sign.empty())
        time = MsSince(start);
    if (status != 0 || time == 0)
        throw std::runtime_error(player.name + " fails:\n" + text);
    return time;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc != 4) {
        std::fprintf(stderr, "usage: bench_startup OPAL_PLAY MANIFEST_URL LEVEL_URL\n");
        return 2;
    }
    const std::string manifest = argv[2], level = argv[3];
    std::vector<Player> players = {
        {"opal-play",
         {argv[1], "--headless", "--silent", "--frames", "1", manifest},
         "first picture after"},
        {"mpv",
         {"mpv", "--no-config", "--vo=null", "--ao=null", "--frames=1", level},
         "VO: [null]"},
        {"ffmpeg",
         {"ffmpeg", "-nostdin", "-loglevel", "error", "-i", level, "-frames:v", "1", "-f", "null",
          "-"},
         ""}};
    try {
        for (int i = -1; i < kRuns; ++i) {  // the first round warms up
            for (Player& player : players) {
                const double time = player.installed ? Run(player) : 0;
                if (i >= 0)
                    player.times.push_back(time);
            }
        }
    } catch (const std::exception& error) {
        std::fprintf(stderr, "bench_startup: %s\n", error.what());
        return 2;
    }
    const double ours = opal::bench::Median(players[0].times);
    for (size_t i = 1; i < players.size(); ++i) {
        if (players[i].installed)
            opal::bench::Print({"start to first picture", ours, players[i].name,
                                opal::bench::Median(players[i].times)});
        else
            std::printf("%-34s %s is not installed\n", "start to first picture",
                        players[i].name.c_str());
    }
    return 0;
}
