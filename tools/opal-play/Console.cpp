#include "opal-play/Console.h"

#include <fcntl.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <sstream>
#include <stdexcept>

namespace opal::play {
namespace {

size_t Width(int fd) {
    winsize size = {};
    constexpr size_t kUsual = 80;
    return ::ioctl(fd, TIOCGWINSZ, &size) == 0 && size.ws_col > 0 ? size.ws_col - 1u : kUsual;
}

void MoveStandardOutput(const std::string& file) {
    const int fd = ::open(file.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0644);
    if (fd < 0 || ::dup2(fd, STDOUT_FILENO) < 0)
        throw std::runtime_error(file + " cannot be written: " + std::strerror(errno) +
                                 "; name another file with --output");
    ::close(fd);
}

}  // namespace

Console::Console(bool quiet, bool leaveLibraryOutput, const std::string& logFile)
    : m_quiet(quiet),
      m_out(::fdopen(::fcntl(STDOUT_FILENO, F_DUPFD_CLOEXEC, 3), "w")),
      m_terminal(!quiet && ::isatty(STDOUT_FILENO)) {
    if (!m_out)
        throw std::runtime_error("standard output is closed");
    if (!leaveLibraryOutput)
        MoveStandardOutput(logFile);
    else if (quiet)
        (void)::dup2(STDERR_FILENO, STDOUT_FILENO);  // what is parsed stays clean
}

Console::~Console() {
    ClearProgress();
    std::fclose(m_out);
}

void Console::ClearProgress() {
    for (; m_progressLines > 0; --m_progressLines)
        std::fputs(m_progressLines > 1 ? "\r\033[K\033[A" : "\r\033[K", m_out);
}

size_t Console::ProgressWidth() const {
    return m_terminal ? Width(::fileno(m_out)) : std::string::npos;
}

void Console::Progress(const std::string& text) {
    if (m_quiet)
        return;
    if (m_terminal) {
        ClearProgress();
        std::istringstream lines(text);
        for (std::string line; std::getline(lines, line); ++m_progressLines)
            std::fprintf(m_out, "%s%s", m_progressLines > 0 ? "\n" : "",
                         line.substr(0, ProgressWidth()).c_str());
    } else {
        std::fprintf(m_out, "%s\n", text.c_str());
    }
    m_written = std::fflush(m_out) == 0 && m_written;
}

void Console::Line(const std::string& text) {
    if (!m_quiet)
        Print(text + "\n");
}

void Console::Print(const std::string& text) {
    ClearProgress();
    std::fputs(text.c_str(), m_out);
    m_written = std::fflush(m_out) == 0 && m_written;
}

void Console::Error(const std::string& text) {
    ClearProgress();
    std::fflush(m_out);
    std::fprintf(stderr, "opal-play: %s\n", text.c_str());
}

}  // namespace opal::play
