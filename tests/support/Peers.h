#pragma once

// The far ends a test drives the library with, on real sockets: a receiver's raw sidechannel
// client, a raw nanomsg socket, a fake sender and a raw UDP socket (programs in processes of
// their own, the GStreamer framework's time provider among them, are in Processes.h).

#include "TestHelpers.h"

#include <nanomsg/nn.h>
#include <nanomsg/pipeline.h>
#include <nanomsg/pubsub.h>

#include <arpa/inet.h>
#include <grp.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>

#include <memory>
#include <numeric>

namespace vrx::test {

/// Receives on `fd` wait at most `timeout` (0 would wait for ever, so it is 1 ms at least).
inline void setReceiveTimeout(int fd, std::chrono::milliseconds timeout)
{
    const timeval value{timeout.count() / 1000, std::max<long>(timeout.count() % 1000 * 1000, 1000)};
    setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &value, sizeof(value));
}

/// A receiver's end of the sidechannel: a plain Unix-domain stream client of an abstract address.
/// Reads wait at most `conditionDeadline`.
class SidechannelClient : NonCopyable
{
public:
    /// Connects at once, unless told to wait for connect(); see connected().
    explicit SidechannelClient(const std::string& address, bool connectNow = true)
        : m_fd(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0))
    {
        m_toSize = makeAbstractSocketAddress(address, m_to);
        setReceiveTimeout(m_fd, conditionDeadline);
        if (connectNow && !connect())
            close();
    }
    /// Connects the socket made by the constructor (no descriptor is opened here).
    bool connect() { return ::connect(m_fd, reinterpret_cast<const sockaddr*>(&m_to), m_toSize) == 0; }
    ~SidechannelClient() { close(); }
    bool connected() const { return m_fd >= 0; }
    /// The payload of the next message, read as its 4 length bytes announce it; nothing when the
    /// wait ends or the sender closes the connection first.
    std::optional<Buffer> readMessage()
    {
        SidechannelMessageSize size{};
        if (recv(m_fd, size.data(), size.size(), MSG_WAITALL) != static_cast<ssize_t>(size.size()))
            return std::nullopt;
        Buffer payload(parseSidechannelMessageSize(size));
        if (!payload.empty() && // a stream socket waits even for 0 bytes
            recv(m_fd, payload.data(), payload.size(), MSG_WAITALL) != static_cast<ssize_t>(payload.size()))
            return std::nullopt;
        return payload;
    }
    /// True when bytes wait to be read right now.
    bool hasData() const
    {
        unsigned char byte;
        return recv(m_fd, &byte, 1, MSG_PEEK | MSG_DONTWAIT) > 0;
    }
    /// True when the sender closes its end; nothing else may arrive before.
    bool waitForClose()
    {
        unsigned char byte;
        return recv(m_fd, &byte, 1, 0) == 0;
    }
    void close()
    {
        if (m_fd >= 0)
            ::close(m_fd);
        m_fd = -1;
    }

private:
    int m_fd;
    sockaddr_un m_to;
    socklen_t m_toSize;
};

/// A raw nanomsg socket of `protocol` (NN_SUB, NN_PULL or NN_PUSH): PULL binds the URI, SUB
/// (subscribed to everything) and PUSH connect to it.
class NanomsgPeer : NonCopyable
{
public:
    NanomsgPeer(int protocol, const std::string& uri) : m_fd(nn_socket(AF_SP, protocol))
    {
        nn_setsockopt(m_fd, NN_SUB, NN_SUB_SUBSCRIBE, "", 0); // refused by the other protocols
        const int sendTimeoutMs = static_cast<int>(conditionDeadline.count()); // a PUSH waits for its peer
        nn_setsockopt(m_fd, NN_SOL_SOCKET, NN_SNDTIMEO, &sendTimeoutMs, sizeof(sendTimeoutMs));
        (protocol == NN_PULL ? nn_bind : nn_connect)(m_fd, uri.c_str());
    }
    ~NanomsgPeer() { nn_close(m_fd); }
    bool send(const Buffer& packet) { return nn_send(m_fd, packet.data(), packet.size(), 0) >= 0; }
    /// The next message, or nothing when none arrives within `timeout`.
    std::optional<Buffer> receive(std::chrono::milliseconds timeout = conditionDeadline)
    {
        const int timeoutMs = static_cast<int>(timeout.count());
        nn_setsockopt(m_fd, NN_SOL_SOCKET, NN_RCVTIMEO, &timeoutMs, sizeof(timeoutMs));
        void* message = nullptr;
        const int size = nn_recv(m_fd, &message, NN_MSG, 0);
        if (size < 0)
            return std::nullopt;
        Buffer packet(static_cast<unsigned char*>(message), static_cast<unsigned char*>(message) + size);
        nn_freemsg(message);
        return packet;
    }
    /// A subscriber misses what is published before its subscription has reached the publisher,
    /// and what its pipe cannot take at once: repeats `send` until a message that `accept` takes
    /// arrives (others are skipped, whatever queued from earlier sends first) or the deadline passes.
    std::optional<Buffer> receiveWhileSending(const std::function<void()>& send,
                                              const std::function<bool(const Buffer&)>& accept)
    {
        for (const auto end = std::chrono::steady_clock::now() + conditionDeadline;
             std::chrono::steady_clock::now() < end;)
        {
            send();
            while (const std::optional<Buffer> packet = receive(200ms))
                if (accept(*packet))
                    return packet;
        }
        return std::nullopt;
    }

private:
    int m_fd;
};

/// Test code speaking a sender's wire format, for what a real sender would not send: it listens
/// on an abstract address, writes whatever bytes a test gives on the connection it accepts, and
/// pushes packets to a receiver that binds the pipeline channel its greeting names (in a sender's
/// directory of its own under `directory`), so that every packet arrives, in order.
class FakeSender : NonCopyable
{
public:
    /// Listens with room for `backlog` connections that wait (Linux takes one more).
    FakeSender(const std::string& address, const std::string& directory, int backlog = 4)
        : m_uri("ipc://" + directory + "/VrxSender-" + address + "/fake.ipc")
    {
        std::filesystem::create_directories(m_uri.substr(6, m_uri.rfind('/') - 6));
        sockaddr_un at;
        const socklen_t size = makeAbstractSocketAddress(address, at);
        if (bind(m_listener, reinterpret_cast<const sockaddr*>(&at), size) < 0 ||
            listen(m_listener, backlog) < 0)
            throw std::runtime_error("the fake sender cannot listen");
    }
    ~FakeSender()
    {
        disconnect();
        ::close(m_listener);
    }
    const std::string& uri() const { return m_uri; }
    /// The connection accepted last, for bytes no message framing would send.
    int connection() const { return m_connection; }
    /// The greeting of a pipeline sender whose main channel is this fake's (or `uri`, of
    /// `protocol`), on the monotonic clock or on a network clock served at 127.0.0.1:`port`.
    Buffer greeting(unsigned int port = 0, const std::string& uri = "",
                    NanomsgProtocol protocol = NanomsgProtocol::Pipeline) const
    {
        return produceInitialInfoPacket(
            {1, port != 0 ? "127.0.0.1" : "", static_cast<std::uint16_t>(port),
             port != 0 ? TimeSyncProtocol::GstNetClock : TimeSyncProtocol::MonotonicSystemClock, protocol,
             uri.empty() ? m_uri : uri});
    }
    /// Takes the receiver's next connection (dropping the last one); false when none comes in time.
    bool accept()
    {
        disconnect();
        pollfd listener{m_listener, POLLIN, 0};
        if (poll(&listener, 1, static_cast<int>(conditionDeadline.count())) == 1)
            m_connection = accept4(m_listener, nullptr, nullptr, SOCK_CLOEXEC);
        return m_connection >= 0;
    }
    /// One sidechannel message (4 length bytes, then `payload`), written `chunk` bytes at a time,
    /// with `betweenChunks` called between two.
    bool send(const Buffer& payload, std::size_t chunk = SIZE_MAX,
              const std::function<void()>& betweenChunks = {})
    {
        const SidechannelMessageSize size =
            produceSidechannelMessageSize(static_cast<std::uint32_t>(payload.size()));
        Buffer message(size.begin(), size.end());
        message.insert(message.end(), payload.begin(), payload.end());
        for (std::size_t offset = 0; offset < message.size(); offset += chunk)
        {
            const std::size_t length = std::min(chunk, message.size() - offset);
            if (::write(m_connection, message.data() + offset, length) != static_cast<ssize_t>(length))
                return false;
            if (betweenChunks && offset + length < message.size())
                betweenChunks();
        }
        return true;
    }
    /// Over the main channel; waits, bounded, until the receiver's socket takes the packet.
    bool push(const Buffer& packet)
    {
        if (!m_pusher)
            m_pusher = std::make_unique<NanomsgPeer>(NN_PUSH, m_uri);
        return m_pusher->send(packet);
    }
    /// Closes the connection and the main channel: the receiver sees its sender gone.
    void disconnect()
    {
        m_pusher.reset();
        if (m_connection >= 0)
            ::close(m_connection);
        m_connection = -1;
    }

private:
    const std::string m_uri;
    const int m_listener = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    int m_connection = -1;
    std::unique_ptr<NanomsgPeer> m_pusher;
};

/// Makes this process user `identity` ("UID[:GID,...]": in the groups GID,..., the first its
/// group; in UID's group when none is named) for good; true when it could.
inline bool becomeUser(const std::string& identity)
{
    std::vector<gid_t> groups;
    if (const std::size_t colon = identity.find(':'); colon != std::string::npos)
    {
        std::istringstream words(identity.substr(colon + 1));
        for (std::string group; std::getline(words, group, ',');)
            groups.push_back(static_cast<gid_t>(std::stoul(group)));
    }
    const auto user = static_cast<uid_t>(std::stoul(identity));
    return setgroups(groups.size(), groups.data()) == 0 && setgid(groups.empty() ? user : groups[0]) == 0 &&
           setuid(user) == 0;
}

/// A frame whose duration and media follow from its timestamp, so that a receiver's test can
/// check every frame it gets, whoever sent it.
inline std::uint64_t durationOf(std::uint64_t timestamp)
{
    return 10'000'000 + timestamp;
}
inline Buffer mediaOf(std::uint64_t timestamp)
{
    Buffer media(1920); // 10 ms of 48 kHz stereo S16LE
    std::iota(media.begin(), media.end(), static_cast<unsigned char>(timestamp * 7));
    return media;
}

/// A UDP socket on 127.0.0.1 at a free port.
class UdpPeer : NonCopyable
{
public:
    UdpPeer()
    {
        socklen_t length = sizeof(m_address);
        bind(m_fd, reinterpret_cast<const sockaddr*>(&m_address), length);
        getsockname(m_fd, reinterpret_cast<sockaddr*>(&m_address), &length);
    }
    ~UdpPeer() { close(m_fd); }
    unsigned int port() const { return ntohs(m_address.sin_port); }
    /// To 127.0.0.1 at `port`; with port 0 back to the sender of the last datagram received.
    void send(const Buffer& datagram, unsigned int port = 0)
    {
        sockaddr_in to = m_address;
        to.sin_port = port != 0 ? htons(static_cast<std::uint16_t>(port)) : m_lastSender.sin_port;
        sendto(m_fd, datagram.data(), datagram.size(), 0, reinterpret_cast<const sockaddr*>(&to), sizeof(to));
    }
    std::optional<Buffer> receive(std::chrono::milliseconds timeout = 5s)
    {
        Buffer datagram(2048);
        socklen_t length = sizeof(m_lastSender);
        setReceiveTimeout(m_fd, timeout);
        const ssize_t received = recvfrom(m_fd, datagram.data(), datagram.size(), 0,
                                          reinterpret_cast<sockaddr*>(&m_lastSender), &length);
        datagram.resize(static_cast<std::size_t>(std::max<ssize_t>(received, 0)));
        return received >= 0 ? std::optional(datagram) : std::nullopt;
    }

private:
    int m_fd = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    sockaddr_in m_address{AF_INET, 0, {htonl(INADDR_LOOPBACK)}, {}}, m_lastSender{};
};

/// A datagram of the network clock protocol: two 64-bit values, big-endian; and one value read back.
inline Buffer netTimeDatagram(std::uint64_t first, std::uint64_t second)
{
    Buffer datagram;
    for (const std::uint64_t value : {first, second})
        for (int shift = 56; shift >= 0; shift -= 8)
            datagram.push_back(static_cast<unsigned char>(value >> shift));
    return datagram;
}
inline std::uint64_t bigEndianAt(const Buffer& bytes, std::size_t offset)
{
    const auto begin = bytes.begin() + static_cast<std::ptrdiff_t>(offset);
    return std::accumulate(begin, begin + 8, std::uint64_t{0},
                           [](auto value, unsigned char byte) { return value << 8 | byte; });
}

} // namespace vrx::test
