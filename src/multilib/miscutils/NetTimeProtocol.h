#pragma once

// The network clock protocol shared by SyncedNetClock and NetTimeProvider; private to the library.
//
// One 16-byte UDP datagram each way, two unsigned 64-bit nanosecond values, big-endian. The
// client sends its own time and all-ones; the server echoes the first 8 bytes unchanged and
// puts its time into the second 8. There is no handshake, version or sequence number: replies
// are matched to requests by the echoed value.

#include <netdb.h>
#include <sys/socket.h>

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <optional>
#include <string>

namespace miscUtils::detail {

constexpr std::size_t NetTimePacketSize = 16;
/// What a client puts where the server's time goes.
constexpr std::uint64_t NetTimeRequestMarker = ~std::uint64_t{0};

inline void writeBigEndian64(unsigned char* bytes, std::uint64_t value)
{
    for (int byteIndex = 7; byteIndex >= 0; --byteIndex, value >>= 8)
        bytes[byteIndex] = static_cast<unsigned char>(value);
}

inline std::uint64_t readBigEndian64(const unsigned char* bytes)
{
    std::uint64_t value = 0;
    for (int byteIndex = 0; byteIndex < 8; ++byteIndex)
        value = value << 8 | bytes[byteIndex];
    return value;
}

struct SocketAddress
{
    sockaddr_storage storage{};
    socklen_t length = 0;
    int family = AF_UNSPEC;
};

/// A numeric IPv4 or IPv6 address with a port; no name look-ups, so this never blocks. An
/// empty address means every local IPv4 address (for servers).
inline std::optional<SocketAddress> resolveNumericAddress(const std::string& ipAddress, unsigned int port)
{
    if (port > 65535)
        return std::nullopt;
    addrinfo hints{};
    hints.ai_family = ipAddress.empty() ? AF_INET : AF_UNSPEC;
    hints.ai_socktype = SOCK_DGRAM;
    hints.ai_flags = AI_NUMERICHOST | AI_NUMERICSERV | (ipAddress.empty() ? AI_PASSIVE : 0);
    addrinfo* results = nullptr;
    const std::string service = std::to_string(port);
    if (getaddrinfo(ipAddress.empty() ? nullptr : ipAddress.c_str(), service.c_str(), &hints, &results) != 0)
        return std::nullopt;
    SocketAddress address;
    address.length = results->ai_addrlen;
    address.family = results->ai_family;
    std::memcpy(&address.storage, results->ai_addr, results->ai_addrlen);
    freeaddrinfo(results);
    return address;
}

/// "192.0.2.1:123" or "[2001:db8::1]:123", for log messages.
inline std::string describeEndpoint(const std::string& ipAddress, unsigned int port)
{
    const bool ipv6 = ipAddress.find(':') != std::string::npos;
    return (ipv6 ? "[" + ipAddress + "]" : ipAddress) + ":" + std::to_string(port);
}

} // namespace miscUtils::detail
