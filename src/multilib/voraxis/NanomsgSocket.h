#pragma once

// The main channel's socket as both ends hold it. Not for applications: sender and receiver
// keep one as a member, so their headers need its declaration.

#include <string>

namespace vrx::detail {

/// One nanomsg SP socket with its endpoint and the descriptor that polls readable when the
/// socket can send (NN_SNDFD) or receive (NN_RCVFD); shut down and closed once. It reads as the
/// SP socket (-1 while closed), so that it goes straight into nn_send and nn_recv. Every call
/// that fails leaves nanomsg's errno for the caller to log.
class NanomsgSocket
{
public:
    NanomsgSocket() = default;
    /// Closes the socket when it is still open; an error of nn_close is not reported then.
    ~NanomsgSocket();

    // A copy would close the socket twice.
    NanomsgSocket(const NanomsgSocket&) = delete;
    NanomsgSocket& operator=(const NanomsgSocket&) = delete;

    operator int() const noexcept { return m_socket; }

    /// nn_socket(AF_SP, protocol), for NN_PUB, NN_SUB, NN_PUSH or NN_PULL.
    bool open(int protocol) noexcept;
    /// A subscriber's subscription to every message (the empty topic).
    bool subscribeToEverything() noexcept;
    /// Binds (`bind`) or connects the socket to `uri` and keeps the endpoint.
    bool attach(const std::string& uri, bool bind) noexcept;
    /// Sets an integer option at the socket level (NN_SOL_SOCKET).
    bool setOption(int option, int value) noexcept;
    /// Reads the pollable descriptor of `option` (NN_SNDFD or NN_RCVFD) into watchFD(). The
    /// descriptor is nanomsg's: it goes with the socket and is never closed here.
    bool fetchWatchFD(int option) noexcept;
    int watchFD() const noexcept { return m_watchFD; }
    /// How many connections (pipes to peers) the socket has established right now; 0 while closed.
    unsigned long connectionCount() const noexcept;
    /// Shuts the endpoint down, when there is one, and closes the socket; false when nn_close
    /// fails. The socket is forgotten either way.
    bool close() noexcept;

private:
    int m_socket = -1;
    int m_endpoint = -1;
    int m_watchFD = -1;
};

} // namespace vrx::detail
