#pragma once

// Helpers for the network clock suites: resource counts, waiting, plain UDP sockets.

#include <miscutils/MiscUtils.h>

#include "TestHelpers.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <optional>
#include <thread>
#include <vector>

namespace vrx::test {

using namespace std::chrono_literals;

/// Signed difference between a clock reading and the truth, the truth read right before and
/// right after it. Readings that were interrupted (a wide truth window) are taken again.
inline std::int64_t readingError(const std::function<miscUtils::TimeValue()>& reading,
                                 const std::function<miscUtils::TimeValue()>& truth)
{
    for (int attempt = 0;; ++attempt)
    {
        const miscUtils::TimeValue before = truth();
        const miscUtils::TimeValue value = reading();
        const miscUtils::TimeValue after = truth();
        if (after - before <= 20'000 || attempt == 100)
            return static_cast<std::int64_t>(value - (before + (after - before) / 2));
    }
}

/// A UDP socket bound to 127.0.0.1 on a free port.
class UdpSocket
{
public:
    UdpSocket()
    {
        m_fd = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        bind(m_fd, reinterpret_cast<const sockaddr*>(&address), sizeof(address));
        socklen_t length = sizeof(address);
        getsockname(m_fd, reinterpret_cast<sockaddr*>(&address), &length);
        m_port = ntohs(address.sin_port);
    }
    ~UdpSocket() { close(m_fd); }

    UdpSocket(const UdpSocket&) = delete;
    UdpSocket& operator=(const UdpSocket&) = delete;

    int fd() const { return m_fd; }
    unsigned int port() const { return m_port; }

    void sendTo(unsigned int port, const std::vector<unsigned char>& datagram) const
    {
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        address.sin_port = htons(static_cast<std::uint16_t>(port));
        sendto(m_fd, datagram.data(), datagram.size(), 0, reinterpret_cast<const sockaddr*>(&address),
               sizeof(address));
    }

    struct Datagram
    {
        std::vector<unsigned char> bytes;
        sockaddr_in from;
    };

    /// The next datagram, or nothing within `timeout`.
    std::optional<Datagram> receive(std::chrono::milliseconds timeout) const
    {
        pollfd descriptor{m_fd, POLLIN, 0};
        if (poll(&descriptor, 1, static_cast<int>(timeout.count())) != 1)
            return std::nullopt;
        Datagram datagram{std::vector<unsigned char>(2048), {}};
        socklen_t length = sizeof(datagram.from);
        const ssize_t received = recvfrom(m_fd, datagram.bytes.data(), datagram.bytes.size(), 0,
                                          reinterpret_cast<sockaddr*>(&datagram.from), &length);
        if (received < 0)
            return std::nullopt;
        datagram.bytes.resize(static_cast<std::size_t>(received));
        return datagram;
    }

    void reply(const Datagram& request, const std::vector<unsigned char>& datagram) const
    {
        sendto(m_fd, datagram.data(), datagram.size(), 0, reinterpret_cast<const sockaddr*>(&request.from),
               sizeof(request.from));
    }

private:
    int m_fd = -1;
    unsigned int m_port = 0;
};

inline std::vector<unsigned char> bigEndianPair(std::uint64_t first, std::uint64_t second)
{
    std::vector<unsigned char> bytes(16);
    for (int index = 0; index < 8; ++index)
    {
        bytes[static_cast<std::size_t>(index)] = static_cast<unsigned char>(first >> (56 - 8 * index));
        bytes[static_cast<std::size_t>(8 + index)] = static_cast<unsigned char>(second >> (56 - 8 * index));
    }
    return bytes;
}

inline std::uint64_t readBigEndian(const std::vector<unsigned char>& bytes, std::size_t offset)
{
    std::uint64_t value = 0;
    for (std::size_t index = 0; index < 8; ++index)
        value = value << 8 | bytes[offset + index];
    return value;
}

} // namespace vrx::test
