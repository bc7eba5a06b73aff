#include "opal-origin/src/Server.h"

#include <array>
#include <boost/asio/post.hpp>
#include <cstdio>
#include <exception>
#include <random>
#include <utility>
#include <vector>

namespace opal::origin {
namespace {

namespace asio = boost::asio;
using boost::system::error_code;

constexpr std::chrono::milliseconds kAcceptRetry{50};

uint64_t RandomSeed() {
    std::random_device device;
    return (static_cast<uint64_t>(device()) << 32) | device();
}

/// "localhost" is the one name that needs no resolver.
asio::ip::address AddressOf(const std::string& text) {
    return text == "localhost" ? asio::ip::address(asio::ip::address_v4::loopback())
                               : asio::ip::make_address(text);
}

}  // namespace

Server::Server(const OriginOptions& options, uint16_t port, State& state, const Content& content)
    : m_options(options),
      m_state(state),
      m_content(content),
      m_acceptor(m_io, asio::ip::tcp::endpoint(AddressOf(options.address), port)),
      m_acceptTimer(m_io),
      m_linkTimer(m_io),
      m_port(m_acceptor.local_endpoint().port()),
      m_boundarySeed(RandomSeed()) {
    Accept();
    m_thread = std::thread([this] { Run(); });
}

Server::~Server() {
    m_io.stop();
    m_thread.join();
    DropConnections();
}

void Server::Run() {
    while (!m_io.stopped()) {
        try {
            m_io.run();
        } catch (const std::exception& error) {
            std::fprintf(stderr, "opal-origin: %s\n", error.what());
        }
    }
}

void Server::Post(std::function<void()> action) {
    asio::post(m_io, std::move(action));
}

void Server::Accept() {
    m_acceptor.async_accept([this](error_code error, asio::ip::tcp::socket socket) {
        if (error == asio::error::operation_aborted)
            return;
        if (error) {  // no descriptors left, most likely: one may come free
            m_acceptTimer.expires_after(kAcceptRetry);
            m_acceptTimer.async_wait([this](error_code waitError) {
                if (!waitError)
                    Accept();
            });
            return;
        }
        const uint64_t id = ++m_state.connectionsAccepted;
        ++m_state.connectionsOpen;
        const auto connection = std::make_shared<Connection>(*this, std::move(socket), id);
        m_connections.emplace(id, connection);
        connection->Start();
        Accept();
    });
}

void Server::OnClosed(uint64_t connection) {
    if (m_connections.erase(connection) > 0)
        --m_state.connectionsOpen;
    m_state.Drop(connection);
    PumpLink();
}

std::string Server::Boundary() {
    std::array<char, 32> text{};
    m_boundarySeed = m_boundarySeed * 6364136223846793005U + 1442695040888963407U;
    std::snprintf(text.data(), text.size(), "opal_%016llx",
                  static_cast<unsigned long long>(m_boundarySeed));
    return text.data();
}

void Server::ForEach(const std::function<void(Connection&)>& action) {
    std::vector<std::shared_ptr<Connection>> connections;
    for (const auto& item : m_connections)
        connections.push_back(item.second);
    for (const auto& connection : connections)
        action(*connection);
}

void Server::Resume(uint64_t faultId) {
    ForEach([faultId](Connection& connection) { connection.Resume(faultId); });
}

void Server::DropConnections() {
    ForEach([](Connection& connection) { connection.Abort(); });
}

void Server::AskLink(uint64_t connection, int64_t bytes, bool continuing) {
    m_state.Ask(connection, bytes, continuing);
    PumpLink();
}

void Server::PumpLink() {
    uint64_t id = 0;
    while (m_state.Take(&id)) {
        const auto found = m_connections.find(id);
        if (found != m_connections.end())
            found->second->OnGranted();
    }
    const State::Time due = m_state.Due();
    if (due == m_linkTimerDue)
        return;
    m_linkTimerDue = due;
    if (due == Link::kNoTime) {
        m_linkTimer.cancel();
        return;
    }
    m_linkTimer.expires_at(std::chrono::steady_clock::time_point(
        std::chrono::duration_cast<std::chrono::steady_clock::duration>(due)));
    m_linkTimer.async_wait([this](error_code error) {
        if (!error) {
            m_linkTimerDue = Link::kNoTime;
            PumpLink();
        }
    });
}

}  // namespace opal::origin
