#pragma once

#include <signal.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <fstream>
#include <string>
#include <thread>

#include "support/TemporaryDirectory.h"

namespace opal::test {

/// scripts/nginx-origin.sh over a folder. It ends with the test, whatever becomes of that.
class Nginx {
  public:
    Nginx(const std::string& folder, const std::string& rate) {
        const std::string output = m_scratch.File("output");
        int ends[2] = {-1, -1};
        if (pipe(ends) != 0)
            return;
        m_pid = fork();
        if (m_pid == 0) {
            prctl(PR_SET_PDEATHSIG, SIGTERM);
            if (dup2(ends[0], 0) == 0 && freopen(output.c_str(), "w", stdout)) {
                close(ends[0]);
                close(ends[1]);
                execl(OPAL_NGINX_ORIGIN, OPAL_NGINX_ORIGIN, folder.c_str(), rate.c_str(), nullptr);
            }
            _exit(127);
        }
        close(ends[0]);
        m_rates = ends[1];
        for (int i = 0; i < 1000 && m_url.empty(); ++i) {
            std::this_thread::sleep_for(std::chrono::milliseconds(10));
            std::ifstream in(output);
            std::string line;
            if (std::getline(in, line) && !in.eof())
                m_url = line.substr(line.find("http:"));
        }
    }
    ~Nginx() {
        if (m_pid <= 0)
            return;
        close(m_rates);
        kill(m_pid, SIGTERM);
        waitpid(m_pid, nullptr, 0);
    }
    Nginx(const Nginx&) = delete;
    Nginx& operator=(const Nginx&) = delete;

    /// Empty if nginx has not started.
    const std::string& Url() const { return m_url; }
    /// Of replies that begin from now on.
    [[nodiscard]] bool SetRate(const std::string& rate) const {
        const std::string line = rate + "\n";
        return write(m_rates, line.data(), line.size()) == static_cast<ssize_t>(line.size());
    }

  private:
    TemporaryDirectory m_scratch;
    pid_t m_pid = -1;
    int m_rates = -1;
    std::string m_url;
};

}  // namespace opal::test
