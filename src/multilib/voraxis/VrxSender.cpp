#include "voraxis/VrxSender.h"

#include "miscutils/Assert.h"
#include "miscutils/ErrnoText.h"
#include "miscutils/ScopeGuard.h"
#include "voraxis/PeerAccess.h"
#include "voraxis/SenderRecord.h"

#include <log4cplus/logger.h>
#include <log4cplus/loggingmacros.h>

#include <nanomsg/nn.h>
#include <nanomsg/pipeline.h>
#include <nanomsg/pubsub.h>

#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>

namespace vrx {

namespace {

using miscUtils::detail::ErrnoText;
using namespace std::chrono_literals;

log4cplus::Logger logger = log4cplus::Logger::getInstance(LOG4CPLUS_TEXT("Voraxis"));

constexpr char nanomsgIpcFileName[] = "nanomsgChannel.ipc";
// A stream packet's type, a reserved byte and its sequence number come first.
constexpr std::size_t sequenceNrEnd = 4;
constexpr int listenBacklog = 32;
// Receivers connected at once; further ones are closed at once, so that connections cannot
// exhaust the sender's descriptors or make every event walk an ever longer poll set.
constexpr std::size_t maxClientConnections = 256;
constexpr std::size_t clientReadSize = 256;
// How long the listener leaves its socket alone after running out of descriptors.
constexpr auto acceptPause = 100ms;

// Accepting fails this way while the process (or the system) has no descriptor or memory to
// spare; the pending connection stays and the listening socket keeps polling readable.
bool isOutOfResources(int error)
{
    return error == EMFILE || error == ENFILE || error == ENOBUFS || error == ENOMEM;
}

} // namespace

Sender::Sender() : m_listenerPollFDs(std::make_unique<std::vector<pollfd>>())
{}

Sender::~Sender()
{
    shutdownSender();
    // A failed set-up leaves its listening socket, pipes and directory in place; they go with
    // the sender.
    std::lock_guard lock(m_mutex);
    if (m_listenerSocketFD >= 0)
        shutdownListener();
    m_listenerWakeupPipe.close();
    m_nanomsgWakeupPipe.close();
    removeTemporaryDirectory();
}

bool Sender::initializeSender(std::string socketAddress, std::string alternativeSocketAddress,
                              std::string timeSyncIPAddress, unsigned int timeSyncPort,
                              TimeSyncProtocol timeSyncProtocol, NanomsgProtocol nanomsgProtocol)
{
    // Advisory only: set-up carries on, and the bind uses as much of the name as fits.
    if (socketAddress.size() > MaxSocketAddressLength)
        LOG4CPLUS_ERROR(logger, "Cannot set up sender since the Unix domain socket address is too long "
                                "(max allowed length: "
                                    << MaxSocketAddressLength << " actual length: " << socketAddress.size()
                                    << ")");

    std::lock_guard lock(m_mutex);
    if (m_initialized)
        return true;

    LOG4CPLUS_TRACE(logger, "Setting up sender with socket address \"" << socketAddress << "\"");
    if (!alternativeSocketAddress.empty())
        LOG4CPLUS_TRACE(logger, "Alternative socket address \"" << alternativeSocketAddress << "\"");

    // A failed earlier attempt left its directory in place; a retry removes it first, so that
    // retrying until the parent directory appears does not pile them up. Opening a pipe again
    // closes the old one.
    removeTemporaryDirectory();

    if (!m_listenerWakeupPipe.open())
    {
        const int error = errno;
        LOG4CPLUS_ERROR(logger, "Could not create VRX sender thread look wakeup pipe: " << ErrnoText{error});
        return false;
    }
    if (!m_nanomsgWakeupPipe.open())
    {
        const int error = errno;
        LOG4CPLUS_ERROR(logger, "Could not create nanomsg wakeup pipe: " << ErrnoText{error});
        return false;
    }

    m_accessPolicy = m_chosenAccessPolicy.value_or(AccessPolicy::fromEnvironment());
    if (!makeTemporaryDirectory())
        return false;
    m_nanomsgIpcFilePath = m_tempDirectory + "/" + nanomsgIpcFileName;
    m_nanomsgUri = "ipc://" + m_nanomsgIpcFilePath;

    m_socketAddress = std::move(socketAddress);
    m_alternativeSocketAddress = std::move(alternativeSocketAddress);
    m_timeSyncIPAddress = std::move(timeSyncIPAddress);
    m_timeSyncPort = timeSyncPort;
    m_timeSyncProtocol = timeSyncProtocol;
    m_nanomsgProtocol = nanomsgProtocol;

    LOG4CPLUS_DEBUG(logger, "Nanomsg URI: \"" << m_nanomsgUri << "\"");

    prepareInitialInfoPacket();

    if (!setupListener())
        return false;
    if (!setupNanomsgMainChannel())
        return false;

    m_listenerPollFDs->push_back({m_listenerWakeupPipe.readFD(), POLLIN, 0});
    m_listenerPollFDs->push_back({m_listenerSocketFD, POLLIN, 0});
    m_acceptFailures = m_refusedForRoom = 0;
    m_refusedUsers.clear();

    m_initialized = true;
    m_listenerThreadRunning = true;
    updateRecord();
    m_listenerThread = std::thread(&Sender::listenerThreadLoop, this);

    LOG4CPLUS_TRACE(logger, "Sender initialized");
    return true;
}

void Sender::shutdownSender()
{
    std::unique_lock lock(m_mutex);
    if (!m_initialized)
        return;

    m_sendDisabled = true;
    m_listenerThreadRunning = false;

    // Wake the listener thread and a send waiting for the main channel, so that both leave
    // their poll promptly.
    if (!m_listenerWakeupPipe.notify())
        LOG4CPLUS_ERROR(logger, "Failed to write shutdown flag to listeners");
    if (!m_nanomsgWakeupPipe.notify())
        LOG4CPLUS_ERROR(logger, "Failed to write wakeup flag for shutdown");

    // The listener thread takes m_mutex itself.
    lock.unlock();
    if (m_listenerThread.joinable())
        m_listenerThread.join();
    waitUntilNoSendUsesTheChannel();
    lock.lock();

    shutdownListener();
    shutdownNanomsgMainChannel();
    m_listenerPollFDs->clear();

    m_listenerWakeupPipe.close();
    m_nanomsgWakeupPipe.close();
    removeTemporaryDirectory();
    m_initialized = false;

    LOG4CPLUS_TRACE(logger, "Sender shut down");
}

void Sender::setAccessPolicy(const AccessPolicy& policy)
{
    std::lock_guard lock(m_mutex);
    m_chosenAccessPolicy = policy;
}

bool Sender::makeTemporaryDirectory()
{
    // The parent is the receivers' to watch; it is not created here. What is made in it is
    // reached through descriptors from now on, so that no path can be swapped underneath.
    const std::string parent = getSenderParentDirectory();
    std::string refusal;
    m_parentDirectoryFD = detail::openSendersParent(parent, refusal);
    if (!refusal.empty())
    {
        LOG4CPLUS_ERROR(logger, "Cannot make a sender's directory in \"" << parent << "\": " << refusal);
        return false;
    }
    std::string name;
    if (m_parentDirectoryFD >= 0)
        m_tempDirectoryFD = detail::makeSenderDirectory(m_parentDirectoryFD, name);
    if (m_tempDirectoryFD < 0)
    {
        const int error = errno;
        LOG4CPLUS_ERROR(logger,
                        "Could not create temporary directory for nanomsg SP socket: " << ErrnoText{error});
        return false;
    }
    m_tempDirectory = parent + "/" + name;
    return true;
}

void Sender::removeTemporaryDirectory()
{
    detail::removeSenderRecord(m_tempDirectoryFD);
    if (!m_nanomsgUri.empty())
    {
        LOG4CPLUS_DEBUG(logger,
                        "Deleting nanomsg IPC socket file \"" << m_nanomsgIpcFilePath << "\" if it exists");
        unlinkat(m_tempDirectoryFD, nanomsgIpcFileName, 0);
    }
    if (!m_tempDirectory.empty())
    {
        LOG4CPLUS_DEBUG(logger, "Deleting temporary nanomsg socket directory \"" << m_tempDirectory << "\"");
        unlinkat(m_parentDirectoryFD, m_tempDirectory.substr(m_tempDirectory.rfind('/') + 1).c_str(),
                 AT_REMOVEDIR);
    }
    m_nanomsgUri.clear();
    m_nanomsgIpcFilePath.clear();
    m_tempDirectory.clear();
    m_tempDirectoryFD.reset();
    m_parentDirectoryFD.reset();
}

bool Sender::areThereClientConnections() const
{
    std::lock_guard lock(m_mutex);
    return clientConnectionCount() > 0;
}

std::string Sender::getBoundSocketAddress() const
{
    std::lock_guard lock(m_mutex);
    return m_initialized ? m_boundSocketAddress : "";
}

void Sender::updateRecord()
{
    m_recordedFormat.assign(m_sequenceInfoPacket.begin() + std::min(m_sequenceInfoPacket.size(), sequenceNrEnd),
                            m_sequenceInfoPacket.end());
    if (!detail::writeSenderRecord(m_tempDirectoryFD, m_boundSocketAddress, m_initialInfoPacket,
                                   m_sequenceInfoPacket, clientConnectionCount()) &&
        !m_recordFailed)
    {
        const int error = errno;
        m_recordFailed = true;
        LOG4CPLUS_WARN(logger, "Could not write the record that tells this sender runs: " << ErrnoText{error});
    }
}

bool Sender::areThereMainChannelConnections() const
{
    // The socket is opened and closed under the lock.
    std::lock_guard lock(m_mutex);
    return m_nanomsgMainFD.connectionCount() > 0;
}

std::size_t Sender::clientConnectionCount() const
{
    // Entries 0 and 1 are the wake-up pipe and the listening socket.
    return m_listenerPollFDs->size() > 2 ? m_listenerPollFDs->size() - 2 : 0;
}

// ---- Sidechannel listener ------------------------------------------------------------------

bool Sender::setupListener()
{
    MISCUTILS_ASSERT(m_listenerSocketFD < 0);
    auto guard = miscUtils::makeScopeGuard([this] { shutdownListener(); });

    m_listenerSocketFD.reset(socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
    if (m_listenerSocketFD < 0)
    {
        const int error = errno;
        LOG4CPLUS_DEBUG(logger, "Could not create listener socket: " << ErrnoText{error});
        return false;
    }

    sockaddr_un address;
    m_boundSocketAddress = m_socketAddress.substr(0, MaxSocketAddressLength);
    if (bind(m_listenerSocketFD, reinterpret_cast<const sockaddr*>(&address),
             makeAbstractSocketAddress(m_socketAddress, address)) < 0)
    {
        const int error = errno;
        LOG4CPLUS_DEBUG(logger, "Could not bind listener socket: " << ErrnoText{error});
        if (m_alternativeSocketAddress.empty())
            return false;

        LOG4CPLUS_DEBUG(logger, "Binding to alternative address " << m_alternativeSocketAddress);
        if (bind(m_listenerSocketFD, reinterpret_cast<const sockaddr*>(&address),
                 makeAbstractSocketAddress(m_alternativeSocketAddress, address)) < 0)
        {
            const int alternativeError = errno;
            LOG4CPLUS_DEBUG(logger, "Could not bind listener socket: " << ErrnoText{alternativeError});
            return false;
        }
        m_boundSocketAddress = m_alternativeSocketAddress.substr(0, MaxSocketAddressLength);
    }

    if (listen(m_listenerSocketFD, listenBacklog) < 0)
    {
        const int error = errno;
        LOG4CPLUS_ERROR(logger,
                        "Could not set socket to listen for incoming connections: " << ErrnoText{error});
        return false;
    }

    guard.dismiss();
    LOG4CPLUS_TRACE(logger, "Listener set up");
    return true;
}

void Sender::listenerThreadLoop()
{
    // Only this thread changes the poll set while it runs, so it polls it without the lock.
    std::vector<pollfd>& pollFDs = *m_listenerPollFDs;
    const auto stop = [this] {
        std::lock_guard lock(m_mutex);
        m_listenerThreadRunning = false;
    };

    while (true)
    {
        {
            std::lock_guard lock(m_mutex);
            if (!m_listenerThreadRunning)
                return;
        }

        int pollResult;
        do
            pollResult = poll(pollFDs.data(), pollFDs.size(), acceptPauseLeftMs());
        while (pollResult < 0 && errno == EINTR);
        if (pollResult < 0)
        {
            const int error = errno;
            LOG4CPLUS_ERROR(logger, "Could not poll for activity: " << ErrnoText{error});
            stop();
            return;
        }

        // Checked before the listening socket: a pending connection is not accepted in the
        // pass that ends the loop.
        if ((pollFDs[0].revents & POLLIN) != 0)
        {
            LOG4CPLUS_TRACE(logger, "Listener thread loop wakeup activity");
            if (!m_listenerWakeupPipe.drain())
            {
                const int error = errno;
                LOG4CPLUS_ERROR(logger,
                                "Error while receiving wakeup call over control pipe: " << ErrnoText{error});
            }
            stop();
            return;
        }

        if ((pollFDs[1].revents & POLLIN) != 0)
        {
            LOG4CPLUS_TRACE(logger, "Listener thread socket activity");
            // The connection stays blocking; sends to it are made non-blocking one by one.
            const int clientFD = accept4(m_listenerSocketFD, nullptr, nullptr, SOCK_CLOEXEC);
            const int error = errno;
            if (clientFD >= 0)
                greetClientConnection(clientFD);
            else if (error == EAGAIN)
                LOG4CPLUS_DEBUG(logger, "No socket to accept; socket may have gone away");
            else if (isOutOfResources(error))
                pauseAccepting(error);
            else
                LOG4CPLUS_ERROR(logger, "Could not accept new connection: " << ErrnoText{error});
        }

        // Receivers send nothing: reading only serves to notice that one has gone.
        std::lock_guard lock(m_mutex);
        for (std::size_t index = 2; index < pollFDs.size();)
        {
            if ((pollFDs[index].revents & POLLIN) == 0)
            {
                ++index;
                continue;
            }
            const int clientFD = pollFDs[index].fd;
            char discarded[clientReadSize];
            const ssize_t received = recv(clientFD, discarded, sizeof(discarded), 0);
            if (received == 0)
            {
                closeClientConnection(index);
                updateRecord();
                LOG4CPLUS_DEBUG(logger, "Client connection with FD " << clientFD << " got closed; "
                                                                     << clientConnectionCount()
                                                                     << " connection(s) remain");
                continue;
            }
            if (received < 0)
            {
                const int error = errno;
                LOG4CPLUS_ERROR(
                    logger, "Error trying to receive bytes from client connection FD: " << ErrnoText{error});
            }
            ++index;
        }
    }
}

void Sender::greetClientConnection(int fd)
{
    if (m_acceptFailures > 0)
    {
        LOG4CPLUS_INFO(logger, "Accepting new connections again; "
                                   << m_acceptFailures << " attempt(s) failed for want of resources");
        m_acceptFailures = 0;
    }
    // Only this thread changes the poll set, so it counts without the lock.
    if (clientConnectionCount() >= maxClientConnections)
    {
        if (m_refusedForRoom++ == 0)
            LOG4CPLUS_WARN(logger, "Closing the connections of further receivers while "
                                       << maxClientConnections << " are connected");
        close(fd);
        return;
    }
    if (m_refusedForRoom > 0)
    {
        LOG4CPLUS_INFO(logger, "Room for receivers again; " << m_refusedForRoom
                                                            << " connection(s) were closed for want of it");
        m_refusedForRoom = 0;
    }
    const std::optional<detail::PeerCredentials> peer = detail::peerCredentials(fd);
    if (!peer || !detail::allows(m_accessPolicy, *peer))
    {
        const int error = errno;
        // Said once for each user, so that a peer that keeps trying cannot flood the log.
        if (!peer)
            LOG4CPLUS_ERROR(logger,
                            "Refusing a receiver whose credentials are unknown: " << ErrnoText{error});
        else if (std::ranges::count(m_refusedUsers, peer->uid) == 0 && m_refusedUsers.size() < 64)
        {
            m_refusedUsers.push_back(peer->uid);
            LOG4CPLUS_WARN(logger, "Refusing a receiver: " << detail::describe(*peer)
                                                           << " is not allowed by the access policy \""
                                                           << m_accessPolicy.toString() << "\"");
        }
        close(fd);
        return;
    }
    LOG4CPLUS_DEBUG(logger, "New client connection: FD " << fd);
    // Under the lock a new sequence cannot slip in between the two packets.
    std::lock_guard lock(m_mutex);
    m_listenerPollFDs->push_back({fd, POLLIN, 0});
    updateRecord();
    LOG4CPLUS_DEBUG(logger, "Sending InitialInfo packet with " << m_initialInfoPacket.size()
                                                               << " bytes to connection with FD " << fd);
    sendDataOverClientConnection(fd, m_initialInfoPacket);
    if (!m_sequenceInfoPacket.empty())
    {
        LOG4CPLUS_DEBUG(logger, "Sending SequenceInfo packet with " << m_sequenceInfoPacket.size()
                                                                    << " bytes to connection with FD " << fd);
        sendDataOverClientConnection(fd, m_sequenceInfoPacket);
    }
}

void Sender::pauseAccepting(int error)
{
    // The pending connection would keep the listening socket readable, and the loop spinning
    // on it: the listener leaves the socket out of its poll for a while instead, and says so
    // once until an accept succeeds again. Connections wait in the backlog meanwhile.
    if (m_acceptFailures++ == 0)
        LOG4CPLUS_ERROR(logger, "Could not accept new connection: " << ErrnoText{error});
    (*m_listenerPollFDs)[1].events = 0;
    m_acceptResumesAt = std::chrono::steady_clock::now() + acceptPause;
}

int Sender::acceptPauseLeftMs()
{
    pollfd& listener = (*m_listenerPollFDs)[1];
    if (listener.events != 0)
        return -1;
    const auto left =
        std::chrono::ceil<std::chrono::milliseconds>(m_acceptResumesAt - std::chrono::steady_clock::now());
    if (left.count() > 0)
        return static_cast<int>(left.count());
    listener.events = POLLIN;
    return 0;
}

void Sender::closeClientConnection(std::size_t index)
{
    std::vector<pollfd>& pollFDs = *m_listenerPollFDs;
    shutdown(pollFDs[index].fd, SHUT_RDWR);
    close(pollFDs[index].fd);
    pollFDs.erase(pollFDs.begin() + static_cast<std::ptrdiff_t>(index));
}

void Sender::shutdownListener()
{
    while (clientConnectionCount() > 0)
        closeClientConnection(m_listenerPollFDs->size() - 1);
    m_listenerSocketFD.reset();
    LOG4CPLUS_TRACE(logger, "Listener shut down");
}

void Sender::sendDataOverClientConnection(int fd, const ByteSpan& data)
{
    LOG4CPLUS_TRACE(logger,
                    "Sending message with " << data.size() << " bytes over client connection with FD " << fd);

    // Never wait for a slow receiver (the caller holds m_mutex), and never let a receiver that
    // has just gone end the producer through SIGPIPE.
    const SidechannelMessageSize messageSize =
        produceSidechannelMessageSize(static_cast<std::uint32_t>(data.size()));
    if (send(fd, messageSize.data(), messageSize.size(), MSG_DONTWAIT | MSG_NOSIGNAL) < 0)
    {
        const int error = errno;
        LOG4CPLUS_ERROR(logger, "Could not send message size to client connection with FD "
                                    << fd << ": " << ErrnoText{error});
        return;
    }
    if (send(fd, data.data(), data.size(), MSG_DONTWAIT | MSG_NOSIGNAL) < 0)
    {
        const int error = errno;
        LOG4CPLUS_ERROR(logger, "Could not send message payload to client connection with FD "
                                    << fd << ": " << ErrnoText{error});
    }
}

void Sender::sendDataOverAllClientConnections(const ByteSpan& data)
{
    std::lock_guard lock(m_mutex);
    for (const pollfd& entry : *m_listenerPollFDs)
        sendDataOverClientConnection(entry.fd, data);
}

// ---- Nanomsg main channel ------------------------------------------------------------------

bool Sender::setupNanomsgMainChannel()
{
    MISCUTILS_ASSERT(m_nanomsgMainFD < 0);
    MISCUTILS_ASSERT(m_nanomsgProtocol == NanomsgProtocol::Pipeline ||
                     m_nanomsgProtocol == NanomsgProtocol::PubSub);
    const bool pipeline = m_nanomsgProtocol == NanomsgProtocol::Pipeline;
    auto guard = miscUtils::makeScopeGuard([this] { shutdownNanomsgMainChannel(); });

    if (!m_nanomsgMainFD.open(pipeline ? NN_PUSH : NN_PUB))
    {
        const int error = errno;
        LOG4CPLUS_ERROR(logger, "Could not create nanomsg SP socket: " << ErrnoText{error});
        return false;
    }

    // Pipeline receivers bind the address themselves; subscribers connect to ours. Through the
    // open directory, so that the socket is where the greeting says whatever happens to paths,
    // and however long the path is.
    const std::string uri =
        "ipc:///proc/self/fd/" + std::to_string(m_tempDirectoryFD) + "/" + nanomsgIpcFileName;
    if (!m_nanomsgMainFD.attach(uri, !pipeline))
    {
        const int error = errno;
        LOG4CPLUS_ERROR(logger, "Could not connect the nanomsg SP socket: " << ErrnoText{error});
        return false;
    }
    // The socket first, then its directory: nobody outside the policy gets in meanwhile.
    if ((!pipeline && !detail::openUpSocket(m_tempDirectoryFD, nanomsgIpcFileName, m_accessPolicy)) ||
        !detail::openUpSenderDirectory(m_tempDirectoryFD, m_accessPolicy, m_nanomsgProtocol))
    {
        const int error = errno;
        LOG4CPLUS_ERROR(logger, "Could not give the main channel's files the modes of the access policy \""
                                    << m_accessPolicy.toString() << "\": " << ErrnoText{error});
        return false;
    }

    // No queueing: a packet goes out when the socket can take it now, or not at all.
    if (!m_nanomsgMainFD.setOption(NN_SNDBUF, 1))
    {
        const int error = errno;
        LOG4CPLUS_ERROR(logger, "Could not set the send buffer size: " << ErrnoText{error});
        return false;
    }

    if (!m_nanomsgMainFD.fetchWatchFD(NN_SNDFD))
    {
        const int error = errno;
        LOG4CPLUS_ERROR(logger, "Could not retrieve the nanosmg watch FD: " << ErrnoText{error});
        return false;
    }

    LOG4CPLUS_DEBUG(logger, "Nanomsg watch FD: " << m_nanomsgMainFD.watchFD());
    m_sendDisabled = false;
    guard.dismiss();
    return true;
}

void Sender::shutdownNanomsgMainChannel()
{
    if (!m_nanomsgMainFD.close())
    {
        const int error = errno;
        LOG4CPLUS_ERROR(logger, "Error while closing SP socket: " << ErrnoText{error});
    }
}

void Sender::sendDataOverNanomsg(const ByteSpan& packet)
{
    if (!enterSend())
        return;
    const auto done = miscUtils::makeScopeGuard([this] { leaveSend(); });
    MISCUTILS_ASSERT(m_nanomsgMainFD >= 0);
    LOG4CPLUS_TRACE(logger, "Sending data with " << packet.size() << " bytes over nanomsg SP socket");

    // The channel nearly always takes a packet at once (a publisher always does), so the send
    // is tried first and the wait is paid only when it would block.
    if (nn_send(m_nanomsgMainFD, packet.data(), packet.size(), NN_DONTWAIT) >= 0)
        return;
    if (const int error = errno; error != EAGAIN)
    {
        LOG4CPLUS_ERROR(logger, "Error while trying to send data over nanomsg: " << ErrnoText{error});
        return;
    }
    if (!waitForChannel())
        return;

    LOG4CPLUS_TRACE(logger, "Nanomsg watch FD activity");
    if (nn_send(m_nanomsgMainFD, packet.data(), packet.size(), NN_DONTWAIT) >= 0)
        return;
    const int error = errno;
    if (error == EAGAIN)
        LOG4CPLUS_DEBUG(logger, "Could not send data over nanomsg; connection might be gone");
    else
        LOG4CPLUS_ERROR(logger, "Error while trying to send data over nanomsg: " << ErrnoText{error});
}

// ---- Send switch ---------------------------------------------------------------------------
//
// Sending is switched off by disableSend(true) and by shutdownSender, on by disableSend(false)
// and by a successful set-up. A send passes the switch under m_nanomsgMutex and counts itself in
// until it is done with the channel. While it waits for the channel, a switch-off wakes it with
// a byte on m_nanomsgWakeupPipe; shutdownSender then waits until no send is counted before it
// closes the channel, so that no send ever uses a closed (or reused) descriptor.

bool Sender::enterSend()
{
    // The lock covers the test only, never the wait, so that disableSend can always get in.
    std::lock_guard lock(m_nanomsgMutex);
    if (m_sendDisabled)
    {
        LOG4CPLUS_TRACE(logger, "Cannot send anything; sending is disabled");
        return false;
    }
    ++m_sendsInProgress;
    return true;
}

void Sender::leaveSend()
{
    // Under the lock, so that shutdownSender returns (and the sender may go) only once this
    // thread is done with it.
    std::lock_guard lock(m_nanomsgMutex);
    if (--m_sendsInProgress == 0)
        m_sendsFinished.notify_all();
}

void Sender::waitUntilNoSendUsesTheChannel()
{
    std::unique_lock lock(m_nanomsgMutex);
    m_sendsFinished.wait(lock, [this] { return m_sendsInProgress == 0; });
}

bool Sender::waitForChannel()
{
    enum
    {
        Watch,
        Wakeup
    };
    pollfd pollFDs[2] = {{m_nanomsgMainFD.watchFD(), POLLIN, 0}, {m_nanomsgWakeupPipe.readFD(), POLLIN, 0}};
    for (;;)
    {
        // No time-out: only writability or a wake-up byte ends the wait.
        if (poll(pollFDs, 2, -1) < 0)
        {
            const int error = errno;
            if (error == EINTR)
                continue;
            LOG4CPLUS_ERROR(logger, "poll() error while writing data to nanomsg: " << ErrnoText{error});
            return false;
        }

        if ((pollFDs[Wakeup].revents & POLLIN) != 0)
        {
            LOG4CPLUS_TRACE(logger, "Nanomsg wakeup pipe activity");
            if (!m_nanomsgWakeupPipe.drain())
            {
                const int error = errno;
                LOG4CPLUS_ERROR(logger,
                                "Error while receiving wakeup call over control pipe: " << ErrnoText{error});
                return false;
            }
            // Switched off: the packet is dropped. A byte from a switch-off that nobody waited
            // for is stale once sending is on again; the wait goes on.
            std::lock_guard lock(m_nanomsgMutex);
            if (m_sendDisabled)
                return false;
        }
        if ((pollFDs[Watch].revents & POLLIN) != 0)
            return true;
    }
}

void Sender::disableSend(bool disable)
{
    {
        std::lock_guard lock(m_nanomsgMutex);
        if (m_sendDisabled == disable)
            return;
        m_sendDisabled = disable;
        LOG4CPLUS_TRACE(logger, "Send operations are now " << (disable ? "disabled" : "enabled"));
    }
    if (!disable)
        return;
    // The wake-up pipe is created and closed under m_mutex, so it is written under m_mutex too
    // (after m_nanomsgMutex was released): a concurrent initialise or shut-down can then never
    // leave this write with a closed, or reused, descriptor. Nobody holds m_mutex while waiting
    // for the main channel, so this never waits for a blocked send.
    std::lock_guard lock(m_mutex);
    if (m_nanomsgWakeupPipe.isOpen() && !m_nanomsgWakeupPipe.notify())
        LOG4CPLUS_ERROR(logger, "Failed to write wakeup flag for disable");
}

// ---- Media data, payloader selection and sequences -----------------------------------------

void Sender::prepareInitialInfoPacket()
{
    InitialInfo initialInfo;
    initialInfo.version = 1;
    initialInfo.timeSyncIPAddress = m_timeSyncIPAddress;
    // The field is 16 bits wide; larger ports wrap.
    initialInfo.timeSyncPort = static_cast<std::uint16_t>(m_timeSyncPort);
    initialInfo.timeSyncProtocol = m_timeSyncProtocol;
    initialInfo.nanomsgProtocol = m_nanomsgProtocol;
    initialInfo.nanomsgUri = m_nanomsgUri;
    m_initialInfoPacket = produceInitialInfoPacket(initialInfo);
}

void Sender::setCurrentPayloader(Payloader& payloader)
{
    std::lock_guard lock(m_mutex);
    LOG4CPLUS_DEBUG(logger, "Set payloader with FourCC \"" << fourccToString(payloader.getFourcc()) << "\"");
    m_payloader = &payloader;
}

void Sender::startNewSequence()
{
    std::unique_lock lock(m_mutex);
    if (!m_listenerThreadRunning)
    {
        LOG4CPLUS_DEBUG(logger, "Not starting new sequence since the listener thread is not running");
        return;
    }
    MISCUTILS_ASSERT(m_payloader != nullptr);

    // 0 never names a started sequence.
    ++m_sequenceNr;
    if (m_sequenceNr == 0)
        m_sequenceNr = 1;
    LOG4CPLUS_DEBUG(logger, "Starting new sequence with nr " << m_sequenceNr);

    produceSequenceInfoPacket(m_sequenceInfoPacket, m_payloader->getFourcc(), m_payloader->getCodecHeader(),
                              m_sequenceNr);
    // The record tells the format: a new sequence in the same one leaves it as it is.
    if (!std::ranges::equal(ByteSpan(m_sequenceInfoPacket).subspan(sequenceNrEnd), m_recordedFormat))
        updateRecord();

    if (clientConnectionCount() == 0)
    {
        // Kept for the greeting of receivers that connect later.
        LOG4CPLUS_DEBUG(logger, "There are no client connections; no need to send SequenceInfo packet now");
        return;
    }

    LOG4CPLUS_DEBUG(logger, "Sending out new SequenceInfo packet to client connections");
    // A copy, so that the send can run without the lock while the member may be rebuilt.
    const Buffer sequenceInfoPacket = m_sequenceInfoPacket;
    lock.unlock();
    sendDataOverNanomsg(sequenceInfoPacket);
}

void Sender::sendMediaData(miscUtils::TimeValue timestamp, miscUtils::TimeValue duration,
                           const ByteSpan& mediaData)
{
    {
        std::lock_guard lock(m_mutex);
        if (!m_listenerThreadRunning)
        {
            LOG4CPLUS_TRACE(logger, "Cannot send media data: Listener thread is not running");
            return;
        }
        MISCUTILS_ASSERT(m_payloader != nullptr);
        m_payloader->produceFramePacket(m_framePacket, m_sequenceNr, timestamp, duration, mediaData);
        LOG4CPLUS_TRACE(logger, "Payloader wrapped media data with "
                                    << mediaData.size() << " byte into packet with " << m_framePacket.size()
                                    << " byte");
    }
    // Only the producer thread touches m_framePacket, so it is sent without the lock.
    sendDataOverNanomsg(m_framePacket);
}

} // namespace vrx
