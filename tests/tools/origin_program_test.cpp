// The program: what it prints, how it ends.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "OriginClient.h"

namespace {

using opal::test::OriginClient;
namespace fs = std::filesystem;

// opal-origin in a process of its own, its two outputs in one pipe.
class Program {
  public:
    explicit Program(std::vector<std::string> arguments) {
        int ends[2];
        if (pipe2(ends, O_CLOEXEC) != 0) {
            return;
        }
        arguments.insert(arguments.begin(), ORIGIN_PROGRAM);
        std::vector<char*> argv;
        for (std::string& argument : arguments) {
            argv.push_back(argument.data());
        }
        argv.push_back(nullptr);
        m_output = ends[0];
        m_pid = fork();
        if (m_pid == 0) {
            dup2(ends[1], STDOUT_FILENO);
            dup2(ends[1], STDERR_FILENO);
            execv(argv[0], argv.data());
            _exit(127);
        }
        close(ends[1]);
    }
    ~Program() {
        if (m_pid > 0) {
            kill(m_pid, SIGKILL);
            waitpid(m_pid, nullptr, 0);
        }
        close(m_output);
    }
    Program(const Program&) = delete;
    Program& operator=(const Program&) = delete;

    // The next line, or what there is at the end or after ten seconds.
    std::string ReadLine() {
        std::string line;
        char c = 0;
        while (Read(&c) && c != '\n') {
            line.push_back(c);
        }
        return line;
    }

    void Signal(int number) const { kill(m_pid, number); }

    // The exit code; -1 if it was not a regular exit. Everything printed is read before.
    int Wait(std::string* pOutput = nullptr) {
        char c = 0;
        while (Read(&c)) {
            if (pOutput != nullptr) {
                pOutput->push_back(c);
            }
        }
        int status = 0;
        waitpid(m_pid, &status, 0);
        m_pid = -1;
        return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    }

  private:
    bool Read(char* pByte) {
        pollfd ready{m_output, POLLIN, 0};
        return poll(&ready, 1, 10000) == 1 && read(m_output, pByte, 1) == 1;
    }

    pid_t m_pid = -1;
    int m_output = -1;
};

class OriginProgramTest : public testing::Test {
  protected:
    void SetUp() override {
        m_root = fs::path(testing::TempDir()) / ("origin_program" + std::to_string(getpid()));
        fs::create_directories(m_root);
        std::ofstream(m_root / "a.mkv") << "0123456789";
    }
    void TearDown() override { fs::remove_all(m_root); }

    fs::path m_root;
};

TEST_F(OriginProgramTest, PrintsItsAddressServesLogsAndStops) {
    std::ofstream(m_root / "script.json")
        << R"({"rate": "8M", "faults": [{"url": "a.mkv", "nth": 2, "hold": true}]})";
    const std::string portFile = m_root / "port";
    Program program(
        {m_root, "--script", m_root / "script.json", "--port-file", portFile, "--latency", "1"});
    const std::string line = program.ReadLine();
    const std::string prefix = "Serving " + m_root.string() + " at http://127.0.0.1:";
    ASSERT_EQ(prefix, line.substr(0, prefix.size()));
    const auto port = static_cast<uint16_t>(std::stoul(line.substr(prefix.size())));
    EXPECT_EQ('/', line.back());

    OriginClient client(port);
    EXPECT_EQ("234", client.Get("/a.mkv", "2-4").body);
    EXPECT_NE(std::string::npos, program.ReadLine().find(" #1 GET /a.mkv 2-4 206 3 "));
    unsigned written = 0;
    std::ifstream(portFile) >> written;
    EXPECT_EQ(port, written);

    client.SendRequest("GET", "/a.mkv");  // held; a second connection shows that it has come
    OriginClient other(port);
    EXPECT_EQ(404, other.Get("/none").status);
    EXPECT_NE(std::string::npos, program.ReadLine().find("/none"));
    program.Signal(SIGUSR1);
    EXPECT_EQ("0123456789", client.Read().body);
    program.Signal(SIGTERM);
    EXPECT_EQ(0, program.Wait());
}

TEST_F(OriginProgramTest, RefusesWithTheReasonAndItsCode) {
    std::ofstream(m_root / "bad.json") << R"({"faults": [{"urk": 1}]})";
    struct Case {
        std::vector<std::string> arguments;
        int code;
        std::string text;
    };
    const Case cases[] = {
        {{"--help"}, 0, "Exit codes"},
        {{}, 2, "FOLDER"},
        {{m_root, "--speed", "1"}, 2, "--speed"},
        {{m_root, "--port", "70000"}, 2, "--port"},
        {{m_root, "--rate", "fast"}, 2, "fast"},
        {{m_root, "--rate", "1k", "--rates", "0 1k"}, 2, "at most 1"},
        {{m_root, "--rates", "0 1k, x"}, 2, " x"},
        {{m_root, "--trace", m_root / "none.json"}, 2, "none.json"},
        {{m_root, "--script", m_root / "bad.json"}, 2, "urk"},
        {{m_root / "none"}, 1, "No such file"},
        {{m_root, "--bind", "not-an-address"}, 1, "not-an-address"},
        {{m_root, "--port-file", m_root / "none/port"}, 1, "none/port"},
    };
    for (const Case& c : cases) {
        Program program(c.arguments);
        std::string output;
        EXPECT_EQ(c.code, program.Wait(&output)) << output;
        EXPECT_NE(std::string::npos, output.find(c.text)) << output;
    }
    Program quiet({m_root, "--quiet", "--rates", "0 8M, 1 1M"});
    const std::string line = quiet.ReadLine();
    ASSERT_NE(std::string::npos, line.rfind(':'));
    OriginClient client(static_cast<uint16_t>(std::stoul(line.substr(line.rfind(':') + 1))));
    EXPECT_EQ(200, client.Head("/a.mkv").status);
    quiet.Signal(SIGINT);
    std::string rest;
    EXPECT_EQ(0, quiet.Wait(&rest));
    EXPECT_EQ("", rest);
}

}  // namespace
