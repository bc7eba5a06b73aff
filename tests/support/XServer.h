#pragma once

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <signal.h>
#include <sys/types.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <functional>
#include <string>

#include "support/TemporaryDirectory.h"

namespace opal::test {

/// A virtual X server whose frame buffer is a file. DISPLAY names it.
class XServer {
  public:
    explicit XServer(const char* glx) {
        const std::string command = std::string("echo $$; exec timeout 120 Xvfb ") + glx +
                                    " GLX -displayfd 1 -screen 0 1280x720x24 -nolisten tcp "
                                    "-noreset -fbdir " +
                                    m_folder.Path();
        m_output = ::popen(command.c_str(), "re");
        int display = -1;
        EXPECT_EQ(std::fscanf(m_output, "%d %d", &m_pid, &display), 2) << "no X server";
        ::setenv("DISPLAY", (":" + std::to_string(display)).c_str(), 1);
        ::unsetenv("DFBARGS");
    }
    ~XServer() {
        ::kill(m_pid, SIGTERM);
        ::pclose(m_output);
        ::unsetenv("DFBARGS");
        ::unsetenv("DISPLAY");
    }
    XServer(const XServer&) = delete;
    XServer& operator=(const XServer&) = delete;

    /// Whether the pixel is of this grey, or becomes so within ten seconds.
    bool Shows(int x, int y, int grey) const {
        for (int i = 0; i < 500; ++i) {
            const uint32_t pixel = Pixel(x, y);
            if (std::abs(static_cast<int>(pixel & 255) - grey) <= 3 &&
                std::abs(static_cast<int>(pixel >> 8 & 255) - grey) <= 3 &&
                std::abs(static_cast<int>(pixel >> 16) - grey) <= 3)
                return true;
            ::poll(nullptr, 0, 20);
        }
        return false;
    }

  private:
    /// 0xRRGGBB, from an XWD file.
    uint32_t Pixel(int x, int y) const {
        std::ifstream file(m_folder.File("Xvfb_screen0"), std::ios::binary);
        uint32_t header[25] = {};
        file.read(reinterpret_cast<char*>(header), sizeof(header));
        const auto field = [&](int n) { return static_cast<std::streamoff>(ntohl(header[n])); };
        file.seekg(field(0) + field(19) * 12 + y * field(12) + x * 4);
        uint32_t pixel = 0;
        file.read(reinterpret_cast<char*>(&pixel), sizeof(pixel));
        return file ? pixel & 0xFFFFFF : 0xFF000000;
    }

    const TemporaryDirectory m_folder;
    FILE* m_output = nullptr;
    pid_t m_pid = -1;
};

/// Runs a test in a process of its own, for a minute at most: DirectFB lasts as long as the
/// process, and ends with the server.
inline void RunInChild(const std::function<void()>& test) {
    std::fflush(stdout);
    const pid_t child = ::fork();
    if (child == 0) {
        ::alarm(60);
        test();
        std::fflush(stdout);
        ::_exit(testing::Test::HasFailure() ? 1 : 0);
    }
    int status = -1;
    EXPECT_EQ(::waitpid(child, &status, 0), child);
    EXPECT_EQ(status, 0);
}

}  // namespace opal::test
