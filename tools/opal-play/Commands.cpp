#include "opal-play/Commands.h"

#include <chrono>

namespace opal::play {

Commands::Commands(Done done) : m_done(std::move(done)), m_thread([this] { Run(); }) {}

Commands::~Commands() {
    Close();
    m_thread.join();
}

void Commands::Post(Command command) {
    {
        const std::lock_guard<std::mutex> lock(m_mutex);
        if (m_closed)
            return;
        if (command.replaces && !m_waiting.empty() && m_waiting.back().replaces)
            m_waiting.pop_back();
        m_waiting.push_back(std::move(command));
    }
    m_changed.notify_all();
}

void Commands::Close() {
    {
        const std::lock_guard<std::mutex> lock(m_mutex);
        m_closed = true;
        m_waiting.clear();
    }
    m_changed.notify_all();
}

bool Commands::WaitIdle(int ms) {
    std::unique_lock<std::mutex> lock(m_mutex);
    return m_changed.wait_for(lock, std::chrono::milliseconds(ms), [this] { return !m_running; });
}

void Commands::Run() {
    std::unique_lock<std::mutex> lock(m_mutex);
    for (;;) {
        m_changed.wait(lock, [this] { return m_closed || !m_waiting.empty(); });
        if (m_closed)
            return;
        const Command command = std::move(m_waiting.front());
        m_waiting.pop_front();
        m_running = true;
        lock.unlock();
        m_done(command, command.run());
        lock.lock();
        m_running = false;
        m_changed.notify_all();
    }
}

}  // namespace opal::play
