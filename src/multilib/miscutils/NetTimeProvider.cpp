#include "miscutils/NetTimeProvider.h"

#include "miscutils/NetTimeProtocol.h"
#include "miscutils/ScopeGuard.h"
#include "miscutils/ErrnoText.h"

#include <log4cplus/logger.h>
#include <log4cplus/loggingmacros.h>

#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cmath>
#include <optional>

namespace miscUtils {

namespace {

log4cplus::Logger logger = log4cplus::Logger::getInstance(LOG4CPLUS_TEXT("Voraxis"));

using detail::ErrnoText;

// Requests answered per wake-up before the stop event is looked at again.
constexpr int RequestsPerWakeup = 64;

unsigned int boundPort(int socketFD)
{
    sockaddr_storage address{};
    socklen_t length = sizeof(address);
    if (getsockname(socketFD, reinterpret_cast<sockaddr*>(&address), &length) < 0)
        return 0;
    if (address.ss_family == AF_INET6)
        return ntohs(reinterpret_cast<const sockaddr_in6*>(&address)->sin6_port);
    return ntohs(reinterpret_cast<const sockaddr_in*>(&address)->sin_port);
}

} // namespace

NetTimeProvider::NetTimeProvider() = default;

NetTimeProvider::~NetTimeProvider()
{
    stop();
}

bool NetTimeProvider::start(const std::string& ipAddress, unsigned int port)
{
    std::lock_guard lock(m_controlMutex);
    stopServing();
    const std::string endpoint = detail::describeEndpoint(ipAddress, port);
    const std::optional<detail::SocketAddress> address = detail::resolveNumericAddress(ipAddress, port);
    if (!address)
    {
        LOG4CPLUS_ERROR(logger, "Invalid network time provider address " << endpoint);
        return false;
    }
    auto cleanUp = makeScopeGuard([this] {
        m_socketFD.reset();
        m_wakeup.close();
    });
    m_socketFD.reset(socket(address->family, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    if (m_socketFD < 0)
    {
        LOG4CPLUS_ERROR(logger, "Cannot create the network time provider socket: " << ErrnoText{errno});
        return false;
    }
    if (bind(m_socketFD, reinterpret_cast<const sockaddr*>(&address->storage), address->length) < 0)
    {
        LOG4CPLUS_ERROR(logger,
                        "Cannot bind the network time provider to " << endpoint << ": " << ErrnoText{errno});
        return false;
    }
    if (!m_wakeup.open())
    {
        LOG4CPLUS_ERROR(logger,
                        "Cannot create the wake-up pipe of the network time provider: " << ErrnoText{errno});
        return false;
    }
    m_thread = std::thread([this] { serve(); });
    cleanUp.dismiss();
    m_port = boundPort(m_socketFD);
    LOG4CPLUS_DEBUG(logger, "Network time provider serving on "
                                << detail::describeEndpoint(ipAddress, m_port.load()));
    return true;
}

void NetTimeProvider::stop()
{
    std::lock_guard lock(m_controlMutex);
    stopServing();
}

void NetTimeProvider::stopServing()
{
    if (!m_thread.joinable())
        return;
    m_wakeup.notify();
    m_thread.join();
    m_socketFD.reset();
    m_wakeup.close();
    m_port = 0;
}

unsigned int NetTimeProvider::getPort() const
{
    return m_port.load();
}

TimeValue NetTimeProvider::getTime() const
{
    std::lock_guard lock(m_timeMutex);
    const TimeValue now = getMonotonicSysclockTime();
    return now + static_cast<TimeValue>(m_offset + driftSinceRateChange(now));
}

std::int64_t NetTimeProvider::driftSinceRateChange(TimeValue now) const
{
    const double sinceRateChange = static_cast<double>(static_cast<std::int64_t>(now - m_rateChangeTime));
    return std::llround(sinceRateChange * (m_rate - 1.0));
}

void NetTimeProvider::setOffset(std::int64_t offset)
{
    std::lock_guard lock(m_timeMutex);
    m_offset = offset;
}

void NetTimeProvider::setRate(double rate)
{
    std::lock_guard lock(m_timeMutex);
    const TimeValue now = getMonotonicSysclockTime();
    m_offset += driftSinceRateChange(now);
    m_rate = rate;
    m_rateChangeTime = now;
}

void NetTimeProvider::serve()
{
    std::array<pollfd, 2> fds{pollfd{m_wakeup.readFD(), POLLIN, 0}, pollfd{m_socketFD, POLLIN, 0}};
    for (;;)
    {
        const int ready = poll(fds.data(), fds.size(), -1);
        if (ready < 0 && errno == EINTR)
            continue;
        if (ready < 0)
        {
            LOG4CPLUS_ERROR(logger, "Network time provider cannot wait for requests: " << ErrnoText{errno});
            return;
        }
        if (fds[0].revents != 0)
            return;
        if (fds[1].revents != 0)
            answerRequests();
    }
}

/// Answers each request of at least 16 bytes from its first 16: the client's value echoed
/// byte for byte, then the served time. Shorter datagrams are dropped.
void NetTimeProvider::answerRequests()
{
    for (int count = 0; count < RequestsPerWakeup; ++count)
    {
        std::array<unsigned char, detail::NetTimePacketSize> packet{};
        sockaddr_storage client{};
        socklen_t clientLength = sizeof(client);
        const ssize_t received = recvfrom(m_socketFD, packet.data(), packet.size(), MSG_DONTWAIT,
                                          reinterpret_cast<sockaddr*>(&client), &clientLength);
        if (received < 0)
        {
            if (errno != EAGAIN && errno != EWOULDBLOCK && errno != EINTR)
                LOG4CPLUS_ERROR(logger,
                                "Network time provider cannot receive a request: " << ErrnoText{errno});
            return;
        }
        if (static_cast<std::size_t>(received) < packet.size())
            continue;
        detail::writeBigEndian64(packet.data() + 8, getTime());
        if (sendto(m_socketFD, packet.data(), packet.size(), MSG_DONTWAIT | MSG_NOSIGNAL,
                   reinterpret_cast<const sockaddr*>(&client), clientLength) < 0)
            LOG4CPLUS_ERROR(logger, "Network time provider cannot answer a request: " << ErrnoText{errno});
    }
}

} // namespace miscUtils
