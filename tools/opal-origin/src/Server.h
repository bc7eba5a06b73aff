#pragma once

#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/steady_timer.hpp>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <thread>

#include "opal-origin/Origin.h"
#include "opal-origin/src/Connection.h"
#include "opal-origin/src/Content.h"
#include "opal-origin/src/State.h"

namespace opal::origin {

/// The listener, its connections and the thread they run on, from one Start() to the next Stop().
///
/// Threading: the constructor and the destructor from the controlling thread, Post from any, the
/// rest on the server's own thread.
///
/// Errors: the constructor throws boost::system::system_error if it cannot listen.
class Server {
  public:
    Server(const OriginOptions& options, uint16_t port, State& state, const Content& content);
    ~Server();
    Server(const Server&) = delete;
    Server& operator=(const Server&) = delete;

    uint16_t Port() const { return m_port; }
    void Post(std::function<void()> action);

    void Resume(uint64_t faultId);  ///< 0: all
    void DropConnections();
    /// Looks whether the link has something through, after any change to it.
    void PumpLink();

    // For the connections.
    const OriginOptions& Options() const { return m_options; }
    State& GetState() { return m_state; }
    const Content& GetContent() const { return m_content; }
    std::string Boundary();
    void AskLink(uint64_t connection, int64_t bytes, bool continuing);
    void OnClosed(uint64_t connection);

  private:
    void Run();
    void Accept();
    void ForEach(const std::function<void(Connection&)>& action);

    const OriginOptions m_options;
    State& m_state;
    const Content& m_content;
    boost::asio::io_context m_io;
    boost::asio::ip::tcp::acceptor m_acceptor;
    boost::asio::steady_timer m_acceptTimer;
    boost::asio::steady_timer m_linkTimer;
    State::Time m_linkTimerDue = Link::kNoTime;
    uint16_t m_port = 0;
    uint64_t m_boundarySeed;
    std::map<uint64_t, std::shared_ptr<Connection>> m_connections;
    std::thread m_thread;
};

}  // namespace opal::origin
