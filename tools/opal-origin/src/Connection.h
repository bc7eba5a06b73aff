#pragma once

#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/steady_timer.hpp>
#include <boost/beast/core/flat_buffer.hpp>
#include <boost/beast/http/empty_body.hpp>
#include <boost/beast/http/parser.hpp>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "opal-origin/Fault.h"
#include "opal-origin/src/Reply.h"

namespace opal::origin {

class Server;

/// One client's connection: reads requests and sends replies, one after the other, as the fault
/// that strikes each one says.
///
/// Threading: the server's thread only. Nothing blocks.
///
/// Ownership and lifetime: the server's table holds it, and so does each pending operation.
/// Leaving the table is the end: pending operations find the socket closed.
class Connection : public std::enable_shared_from_this<Connection> {
  public:
    Connection(Server& server, boost::asio::ip::tcp::socket socket, uint64_t id);

    void Start();
    /// The link has let the chunk through that was asked for.
    void OnGranted();
    /// Goes on if the rule (0: any) holds it.
    void Resume(uint64_t faultId);
    /// Resets the connection and leaves the server's table.
    void Abort();

  private:
    using Error = boost::system::error_code;
    using Parser = boost::beast::http::request_parser<boost::beast::http::empty_body>;

    void ReadRequest();
    void OnRead(const Error& error);
    void Answer(const RequestInfo& request, const std::string& target,
                const std::string& rangeText);
    void Advance();
    void Stall();
    bool SendChunk(int64_t position);
    int64_t BytesToNextEvent(int64_t position) const;
    void OnWritten(const Error& error, int64_t position);
    void Finish(bool complete);
    void CloseGently();
    void Discard();
    void ResetOnceDelivered(int checksLeft);
    void WatchForClose();
    void After(int64_t milliseconds, std::function<void()> action);

    Server& m_server;
    boost::asio::ip::tcp::socket m_socket;
    boost::asio::steady_timer m_timer;
    const uint64_t m_id;
    boost::beast::flat_buffer m_buffer;
    std::optional<Parser> m_parser;
    std::vector<char> m_chunk;
    bool m_closed = false;
    bool m_watching = false;

    // The request being answered.
    bool m_answering = false;
    uint64_t m_request = 0;
    Fault m_fault;
    uint64_t m_faultId = 0;
    Reply m_reply;
    int64_t m_position = kBeforeHead;  // bytes of body sent, once the head is
    bool m_stallOver = false;
    bool m_stalled = false;
    bool m_continuing = false;
};

}  // namespace opal::origin
