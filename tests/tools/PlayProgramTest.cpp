// The program, on a small film of its own over a loopback origin: what it prints, how it ends.
#include <fcntl.h>
#include <gmock/gmock.h>
#include <pty.h>
#include <signal.h>
#include <sys/wait.h>
#include <termios.h>
#include <unistd.h>
#include <utmp.h>

#include <chrono>
#include <filesystem>
#include <fstream>
#include <nlohmann/json.hpp>
#include <sstream>
#include <thread>

#include "opal-origin/Origin.h"
#include "opal-package/Packager.h"
#include "support/TemporaryDirectory.h"

namespace opal::test {
namespace {

using testing::HasSubstr;
using testing::StartsWith;

std::string ReadAll(const std::string& file) {
    std::ostringstream text;
    text << std::ifstream(file, std::ios::binary).rdbuf();
    return text.str();
}

class PlayProgramTest : public testing::Test {
  protected:
    static constexpr int64_t kFilmMs = 6000;

    struct Result {
        int exitCode = -1;
        std::string out;
        std::string err;
        nlohmann::json Json() const { return nlohmann::json::parse(out); }
    };

    static void SetUpTestSuite() {
        s_folder = std::make_unique<TemporaryDirectory>();
        origin::OriginOptions served;
        served.folder = s_folder->File("film");
        std::filesystem::create_directory(served.folder);
        s_origin = std::make_unique<origin::Origin>(served);
        std::string error;
        ASSERT_TRUE(s_origin->Start(&error)) << error;
        package::PackageOptions film;
        film.testFilm.durationMs = kFilmMs;
        film.testFilm.width = 320;
        film.testFilm.height = 180;
        film.testFilm.languages = {"eng"};
        film.ladder = package::ParseLadder("100k:160x90,300k:320x180");
        film.preset = "ultrafast";
        film.folder = served.folder;
        film.baseUrl = s_origin->Url("");
        package::Package(film);
    }
    static void TearDownTestSuite() {
        s_origin.reset();
        s_folder.reset();
    }
    void TearDown() override { s_origin->ClearFaults(); }

    static std::string Url() { return s_origin->Url("presentation.smil"); }

    static pid_t Execute(std::vector<std::string> words) {
        words.insert(words.begin(), OPAL_PLAY_PROGRAM);
        std::vector<char*> argv;
        for (std::string& word : words)
            argv.push_back(word.data());
        argv.push_back(nullptr);
        execv(argv[0], argv.data());
        _exit(127);
    }
    /// Without a terminal, standard output and error in files.
    static pid_t Start(const std::vector<std::string>& words) {
        const std::string out = s_folder->File("out");
        const std::string err = s_folder->File("err");
        const pid_t pid = fork();
        if (pid != 0)
            return pid;
        constexpr int kFlags = O_WRONLY | O_CREAT | O_TRUNC;
        dup2(open("/dev/null", O_RDONLY), STDIN_FILENO);
        dup2(open(out.c_str(), kFlags, 0600), STDOUT_FILENO);
        dup2(open(err.c_str(), kFlags, 0600), STDERR_FILENO);
        return Execute(words);
    }
    static Result Await(pid_t pid) {
        int status = 0;
        waitpid(pid, &status, 0);
        Result result;
        result.exitCode = WIFEXITED(status) ? WEXITSTATUS(status) : -WTERMSIG(status);
        result.out = ReadAll(s_folder->File("out"));
        result.err = ReadAll(s_folder->File("err"));
        return result;
    }
    static Result Run(std::vector<std::string> words) {
        words.insert(words.begin(), {"--headless", "--time-limit", "60"});
        return Await(Start(words));
    }

    static std::unique_ptr<TemporaryDirectory> s_folder;
    static std::unique_ptr<origin::Origin> s_origin;
};

std::unique_ptr<TemporaryDirectory> PlayProgramTest::s_folder;
std::unique_ptr<origin::Origin> PlayProgramTest::s_origin;

TEST_F(PlayProgramTest, PlaysToTheEndAndTellsHowItWas) {
    const std::string pictures = s_folder->File("pictures");
    const Result result = Run({"--json", "--snapshots", pictures, "--snapshot-at", "1,3.5", "--log",
                               s_folder->File("log"), Url()});
    ASSERT_EQ(0, result.exitCode) << result.err << result.out;
    const nlohmann::json json = result.Json();  // nothing else is printed
    EXPECT_EQ("end of stream", json["outcome"]);
    EXPECT_EQ(kFilmMs, json["durationMs"]);
    EXPECT_GT(json["framesShown"], kFilmMs / 40 / 2);
    EXPECT_GE(json["audioPlayedMs"], kFilmMs / 2);
    EXPECT_EQ(2u * kFilmMs / 2000, json["clusters"]);
    EXPECT_GT(json["clusterBytes"], 10000);
    EXPECT_GT(json["startupMs"], 0);
    EXPECT_GE(json["realMs"], kFilmMs);
    EXPECT_EQ("", result.err);
    for (const char* name : {"/at-1s.png", "/at-3.5s.png"})
        EXPECT_THAT(ReadAll(pictures + name), StartsWith("\x89PNG")) << name;
    EXPECT_THAT(ReadAll(s_folder->File("log")), HasSubstr("KMT Version: "));
}

TEST_F(PlayProgramTest, SteeredByTheCommandLine) {
    const Result result = Run({"--start", "1", "--at", "0.5:seek=2", "--at", "1:rate=-4x", "--at",
                               "5.5:pause", "--at", "6:quit", "--pass-through", Url()});
    EXPECT_EQ(0, result.exitCode) << result.err;
    EXPECT_THAT(result.out, HasSubstr("first picture after "));
    EXPECT_THAT(result.out, HasSubstr("back at the start"));  // by the trick rate
    EXPECT_THAT(result.out, HasSubstr("quit at "));
    EXPECT_EQ("", result.err);
}

TEST_F(PlayProgramTest, PullsTheSameBlocksThatThePackagerWrote) {
    const std::string file = s_folder->File("blocks");
    const Result result = Run({"--pull", "--blocks", file, "--json", "--pass-through", Url()});
    ASSERT_EQ(0, result.exitCode) << result.err;
    EXPECT_EQ(kFilmMs / 40, result.Json()["pulledVideoBlocks"]);
    EXPECT_GT(result.Json()["framesShown"], 0);
    const std::string blocks = ReadAll(file);
    EXPECT_THAT(blocks, StartsWith("video 0 40 "));
    EXPECT_THAT(blocks, HasSubstr("\naudio "));
}

TEST_F(PlayProgramTest, ErrorsNameTheUrlAndWhatToDo) {
    const std::string missing = s_origin->Url("nothing.smil");
    Result result = Run({missing});
    EXPECT_EQ(1, result.exitCode);
    EXPECT_EQ("opal-play: " + missing + ": the server refuses (status 4xx); check the URL (-12)\n",
              result.err);
    result = Run({"--strict", "--frames", "1", Url()});
    EXPECT_EQ(3, result.exitCode);
    EXPECT_THAT(result.err, HasSubstr("the end of the stream was not reached"));
    result = Run({"--snapshots", "/proc/nothing", Url()});
    EXPECT_EQ(1, result.exitCode);
    EXPECT_THAT(result.err, HasSubstr("folder /proc/nothing cannot be made"));
    EXPECT_EQ(2, Run({"--fly", Url()}).exitCode);
}

TEST_F(PlayProgramTest, ASignalEndsItEvenWhileTheServerIsSilent) {
    const uint64_t hold = s_origin->Hold("*.smil");
    const pid_t pid = Start({"--headless", Url()});
    ASSERT_TRUE(s_origin->WaitForHeld(hold, 1, 20000));
    const auto before = std::chrono::steady_clock::now();
    kill(pid, SIGINT);
    EXPECT_EQ(4, Await(pid).exitCode);
    EXPECT_LT(std::chrono::steady_clock::now() - before, std::chrono::seconds(10));
}

TEST_F(PlayProgramTest, KeysOnATerminalWhichIsLeftAsItWas) {
    int terminal = -1;
    int programsEnd = -1;
    ASSERT_EQ(0, openpty(&terminal, &programsEnd, nullptr, nullptr, nullptr));
    const pid_t pid = fork();
    if (pid == 0) {
        login_tty(programsEnd);
        Execute({"--headless", "--pass-through", "--time-limit", "60", Url()});
    }
    std::string seen;
    const auto await = [&](const std::string& text) {
        char bytes[4096];
        while (seen.find(text) == std::string::npos) {
            const ssize_t count = read(terminal, bytes, sizeof bytes);
            if (count <= 0)
                return false;
            seen.append(bytes, static_cast<size_t>(count));
        }
        seen.clear();
        return true;
    };
    const auto press = [&](const std::string& keys) {
        EXPECT_EQ(static_cast<ssize_t>(keys.size()), write(terminal, keys.data(), keys.size()));
    };
    EXPECT_TRUE(await("playing "));
    termios mode = {};
    ASSERT_EQ(0, tcgetattr(terminal, &mode));
    EXPECT_EQ(0u, mode.c_lflag & static_cast<tcflag_t>(ICANON | ECHO));
    press(" ");
    EXPECT_TRUE(await("paused "));
    press(" ");
    EXPECT_TRUE(await("playing "));
    press("\x1b[C");
    EXPECT_TRUE(await("buffering 0:06.0"));  // ten seconds on, at most the end
    press("q");
    EXPECT_TRUE(await("quit at "));
    int status = 0;
    waitpid(pid, &status, 0);
    EXPECT_EQ(0, WEXITSTATUS(status));
    EXPECT_EQ(0, tcgetattr(programsEnd, &mode));
    EXPECT_NE(0u, mode.c_lflag & static_cast<tcflag_t>(ICANON));
    EXPECT_NE(0u, mode.c_lflag & static_cast<tcflag_t>(ECHO));
    close(terminal);
    close(programsEnd);
}

}  // namespace
}  // namespace opal::test
