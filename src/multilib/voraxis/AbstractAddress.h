#pragma once

// The sidechannel's address as both ends build it. Private to the library.

#include <sys/socket.h>
#include <sys/un.h>

#include <algorithm>
#include <string>

namespace vrx::detail {

/// Room for a name in the abstract socket namespace: the path field less its leading 0 byte.
inline constexpr std::size_t maxSocketAddressLength = sizeof(sockaddr_un::sun_path) - 1;

/// A sidechannel address: the bytes of a name behind a leading 0 byte (the abstract namespace,
/// so nothing is created in the file system), cut to maxSocketAddressLength, unterminated.
class AbstractSocketAddress
{
public:
    explicit AbstractSocketAddress(const std::string& name) noexcept
    {
        const std::size_t length = std::min(name.size(), maxSocketAddressLength);
        std::copy_n(name.begin(), length, m_address.sun_path + 1);
        m_size = static_cast<socklen_t>(sizeof(m_address.sun_family) + 1 + length);
    }

    const sockaddr* get() const noexcept { return reinterpret_cast<const sockaddr*>(&m_address); }
    socklen_t size() const noexcept { return m_size; }

private:
    sockaddr_un m_address{AF_UNIX, {}};
    socklen_t m_size;
};

} // namespace vrx::detail
