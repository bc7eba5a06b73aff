#include "opal-play/Wake.h"

#include <fcntl.h>
#include <poll.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <stdexcept>

namespace opal::play {
namespace {

volatile std::sig_atomic_t g_caught = 0;
volatile std::sig_atomic_t g_wakeFd = -1;

void WriteTo(int fd) {
    const char byte = 0;
    // A full pipe wakes just as well.
    if (::write(fd, &byte, 1) < 0)
        return;
}

void OnSignal(int number) {
    const int saved = errno;
    g_caught = number;
    WriteTo(g_wakeFd);
    errno = saved;
}

}  // namespace

Wake::Wake() {
    if (::pipe2(m_ends, O_NONBLOCK | O_CLOEXEC) != 0)
        throw std::runtime_error("no pipe can be made");
}

Wake::~Wake() {
    if (g_wakeFd == m_ends[1])
        g_wakeFd = -1;
    ::close(m_ends[0]);
    ::close(m_ends[1]);
}

void Wake::Signal() const {
    WriteTo(m_ends[1]);
}

bool Wake::Wait(int inputFd, int ms) const {
    pollfd fds[2] = {{m_ends[0], POLLIN, 0}, {inputFd, POLLIN, 0}};
    if (::poll(fds, 2, ms) <= 0)
        return false;
    char bytes[256];
    while (::read(m_ends[0], bytes, sizeof bytes) > 0) {
    }
    return inputFd >= 0 && fds[1].revents != 0;
}

void CatchSignals(const Wake& wake) {
    g_wakeFd = wake.SignalFd();
    struct sigaction action = {};
    action.sa_handler = &OnSignal;
    ::sigemptyset(&action.sa_mask);
    action.sa_flags = SA_RESTART;
    for (const int number : {SIGINT, SIGTERM, SIGHUP})
        ::sigaction(number, &action, nullptr);
}

int CaughtSignal() {
    return g_caught;
}

}  // namespace opal::play
