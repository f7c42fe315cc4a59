#include "voraxis/NanomsgSocket.h"

#include <nanomsg/nn.h>
#include <nanomsg/pubsub.h>

#include <cerrno>
#include <cstdint>

namespace vrx::detail {

NanomsgSocket::~NanomsgSocket()
{
    close();
}

bool NanomsgSocket::open(int protocol) noexcept
{
    m_socket = nn_socket(AF_SP, protocol);
    return m_socket >= 0;
}

bool NanomsgSocket::subscribeToEverything() noexcept
{
    return nn_setsockopt(m_socket, NN_SUB, NN_SUB_SUBSCRIBE, "", 0) >= 0;
}

bool NanomsgSocket::attach(const std::string& uri, bool bind) noexcept
{
    m_endpoint = bind ? nn_bind(m_socket, uri.c_str()) : nn_connect(m_socket, uri.c_str());
    return m_endpoint >= 0;
}

bool NanomsgSocket::setOption(int option, int value) noexcept
{
    return nn_setsockopt(m_socket, NN_SOL_SOCKET, option, &value, sizeof(value)) >= 0;
}

bool NanomsgSocket::fetchWatchFD(int option) noexcept
{
    int watchFD = -1;
    std::size_t size = sizeof(watchFD);
    if (nn_getsockopt(m_socket, NN_SOL_SOCKET, option, &watchFD, &size) < 0)
        return false;
    m_watchFD = watchFD;
    return true;
}

unsigned long NanomsgSocket::connectionCount() const noexcept
{
    if (m_socket < 0)
        return 0;
    const std::uint64_t count = nn_get_statistic(m_socket, NN_STAT_CURRENT_CONNECTIONS);
    return count == static_cast<std::uint64_t>(-1) ? 0 : static_cast<unsigned long>(count);
}

bool NanomsgSocket::close() noexcept
{
    if (m_endpoint >= 0)
        nn_shutdown(m_socket, m_endpoint);
    m_endpoint = -1;
    if (m_socket < 0)
        return true;
    // An interrupted close has not finished yet and is made again.
    int result;
    do
        result = nn_close(m_socket);
    while (result < 0 && errno == EINTR);
    m_socket = -1;
    return result >= 0;
}

} // namespace vrx::detail
