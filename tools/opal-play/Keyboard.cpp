#include "opal-play/Keyboard.h"

#include <termios.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdlib>

namespace opal::play {
namespace {

termios g_normal;
termios g_singleKeys;
volatile std::sig_atomic_t g_changed = 0;

void Restore() {
    if (g_changed) {
        g_changed = 0;
        ::tcsetattr(STDIN_FILENO, TCSANOW, &g_normal);
    }
}

void OnFatalSignal(int number) {
    Restore();
    ::signal(number, SIG_DFL);
    ::raise(number);
}

void OnStopSignal(int) {
    const int saved = errno;
    Restore();
    ::raise(SIGSTOP);
    // Continued, perhaps in the background, where the terminal is not ours.
    if (::tcgetpgrp(STDIN_FILENO) == ::getpgrp()) {
        ::tcsetattr(STDIN_FILENO, TCSANOW, &g_singleKeys);
        g_changed = 1;
    }
    errno = saved;
}

void Catch(int number, void (*handler)(int)) {
    struct sigaction action = {};
    action.sa_handler = handler;
    ::sigemptyset(&action.sa_mask);
    action.sa_flags = SA_RESTART;
    ::sigaction(number, &action, nullptr);
}

}  // namespace

Keyboard::Keyboard() {
    if (!::isatty(STDIN_FILENO) || ::tcgetpgrp(STDIN_FILENO) != ::getpgrp() ||
        ::tcgetattr(STDIN_FILENO, &g_normal) != 0)
        return;
    g_singleKeys = g_normal;
    g_singleKeys.c_lflag &= ~static_cast<tcflag_t>(ICANON | ECHO);
    g_singleKeys.c_cc[VMIN] = 0;
    g_singleKeys.c_cc[VTIME] = 0;
    for (const int number : {SIGABRT, SIGSEGV, SIGBUS, SIGFPE, SIGILL, SIGQUIT})
        Catch(number, &OnFatalSignal);
    Catch(SIGTSTP, &OnStopSignal);
    std::atexit(&Restore);
    g_changed = 1;
    m_active = ::tcsetattr(STDIN_FILENO, TCSANOW, &g_singleKeys) == 0;
}

Keyboard::~Keyboard() {
    Restore();
}

int Keyboard::Fd() const {
    return m_active ? STDIN_FILENO : -1;
}

std::vector<KeyPress> Keyboard::Read() {
    std::vector<KeyPress> presses;
    char bytes[64];
    const ssize_t count = m_active ? ::read(STDIN_FILENO, bytes, sizeof bytes) : 0;
    if (count <= 0)
        m_active = m_active && count < 0 && errno == EINTR;  // the terminal has gone
    for (ssize_t i = 0; i < count; ++i) {
        KeyPress press;
        if (m_decoder.Feed(bytes[i], press.key, press.character))
            presses.push_back(press);
    }
    return presses;
}

}  // namespace opal::play
