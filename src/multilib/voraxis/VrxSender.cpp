#include "voraxis/VrxSender.h"

#include "miscutils/Assert.h"
#include "miscutils/ErrnoText.h"
#include "miscutils/ScopeGuard.h"

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

log4cplus::Logger logger = log4cplus::Logger::getInstance(LOG4CPLUS_TEXT("Voraxis"));

// Room for an abstract socket name: the path field less its leading 0 byte.
constexpr std::size_t maxSocketAddressLength = sizeof(sockaddr_un::sun_path) - 1;

// Both wake-up pipes carry this single byte; readers drain up to this many at once.
constexpr char wakeupByte = '1';
constexpr std::size_t wakeupDrainSize = 1024;

constexpr int listenBacklog = 32;
constexpr std::size_t clientReadSize = 256;

// Puts `address` into the abstract namespace part of `socketAddress` (behind the leading 0
// byte, cut to what fits) and returns the length to pass to bind.
socklen_t setAbstractAddress(sockaddr_un& socketAddress, const std::string& address)
{
    const std::size_t length = std::min(address.size(), maxSocketAddressLength);
    std::copy_n(address.begin(), length, socketAddress.sun_path + 1);
    return static_cast<socklen_t>(sizeof(socketAddress.sun_family) + 1 + length);
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
    releaseWakeupPipes();
    removeTemporaryDirectory();
}

bool Sender::initializeSender(std::string socketAddress, std::string alternativeSocketAddress,
                              std::string timeSyncIPAddress, unsigned int timeSyncPort,
                              TimeSyncProtocol timeSyncProtocol, NanomsgProtocol nanomsgProtocol)
{
    // Advisory only: set-up carries on, and the bind uses as much of the name as fits.
    if (socketAddress.size() > maxSocketAddressLength)
        LOG4CPLUS_ERROR(logger, "Cannot set up sender since the Unix domain socket address is too long "
                                "(max allowed length: "
                                    << maxSocketAddressLength << " actual length: " << socketAddress.size()
                                    << ")");

    std::lock_guard lock(m_mutex);
    if (m_initialized)
        return true;

    LOG4CPLUS_TRACE(logger, "Setting up sender with socket address \"" << socketAddress << "\"");
    if (!alternativeSocketAddress.empty())
        LOG4CPLUS_TRACE(logger, "Alternative socket address \"" << alternativeSocketAddress << "\"");

    // A failed earlier attempt left its pipes and directory in place; a retry releases them
    // first, so that retrying until the parent directory appears does not pile them up.
    releaseWakeupPipes();
    removeTemporaryDirectory();

    if (pipe2(m_listenerWakeupPipe.data(), O_CLOEXEC) < 0)
    {
        const int error = errno;
        LOG4CPLUS_ERROR(logger, "Could not create VRX sender thread look wakeup pipe: " << ErrnoText{error});
        return false;
    }
    // Non-blocking: a publisher's sends never wait, so nobody drains the bytes of repeated
    // disables; a full pipe means that a wake-up is pending already.
    if (pipe2(m_nanomsgWakeupPipe.data(), O_CLOEXEC | O_NONBLOCK) < 0)
    {
        const int error = errno;
        LOG4CPLUS_ERROR(logger, "Could not create nanomsg wakeup pipe: " << ErrnoText{error});
        return false;
    }

    // The parent directory is the receivers' to watch; it is not created here.
    const char* parentDirectory = std::getenv("TMPDIR");
    std::string directoryTemplate =
        std::string(parentDirectory != nullptr ? parentDirectory : "/tmp/vrx") + "/VrxSender-XXXXXX";
    if (mkdtemp(directoryTemplate.data()) != nullptr)
    {
        // Receivers running under other user ids must reach the socket inside.
        chmod(directoryTemplate.c_str(), 0777);
        m_tempDirectory = std::move(directoryTemplate);
    }
    else
    {
        const int error = errno;
        m_tempDirectory.clear();
        LOG4CPLUS_ERROR(logger,
                        "Could not create temporary directory for nanomsg SP socket: " << ErrnoText{error});
        return false;
    }

    m_nanomsgIpcFilePath = m_tempDirectory + "/nanomsgChannel.ipc";
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

    m_listenerPollFDs->push_back({m_listenerWakeupPipe[0], POLLIN, 0});
    m_listenerPollFDs->push_back({m_listenerSocketFD, POLLIN, 0});

    m_initialized = true;
    m_listenerThreadRunning = true;
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
    if (write(m_listenerWakeupPipe[1], &wakeupByte, 1) < 1)
        LOG4CPLUS_ERROR(logger, "Failed to write shutdown flag to listeners");
    if (!writeNanomsgWakeup())
        LOG4CPLUS_ERROR(logger, "Failed to write wakeup flag for shutdown");

    // The listener thread takes m_mutex itself.
    lock.unlock();
    if (m_listenerThread.joinable())
        m_listenerThread.join();
    // A send that had passed its enabled check still uses the channel's descriptors until the
    // wake-up byte sends it home; they must stay open until then.
    {
        std::unique_lock sends(m_nanomsgMutex);
        m_sendsFinished.wait(sends, [this] { return m_sendsInProgress == 0; });
    }
    lock.lock();

    shutdownListener();
    shutdownNanomsgMainChannel();
    m_listenerPollFDs->clear();

    releaseWakeupPipes();
    removeTemporaryDirectory();
    m_initialized = false;

    LOG4CPLUS_TRACE(logger, "Sender shut down");
}

void Sender::releaseWakeupPipes()
{
    for (std::array<int, 2>* wakeupPipe : {&m_listenerWakeupPipe, &m_nanomsgWakeupPipe})
    {
        if ((*wakeupPipe)[0] == -1)
            continue;
        close((*wakeupPipe)[0]);
        close((*wakeupPipe)[1]);
        *wakeupPipe = {-1, -1};
    }
}

void Sender::removeTemporaryDirectory()
{
    if (!m_nanomsgUri.empty())
    {
        LOG4CPLUS_DEBUG(logger,
                        "Deleting nanomsg IPC socket file \"" << m_nanomsgIpcFilePath << "\" if it exists");
        unlink(m_nanomsgIpcFilePath.c_str());
    }
    if (!m_tempDirectory.empty())
    {
        LOG4CPLUS_DEBUG(logger, "Deleting temporary nanomsg socket directory \"" << m_tempDirectory << "\"");
        rmdir(m_tempDirectory.c_str());
    }
    m_nanomsgUri.clear();
    m_nanomsgIpcFilePath.clear();
    m_tempDirectory.clear();
}

bool Sender::areThereClientConnections() const
{
    std::lock_guard lock(m_mutex);
    return clientConnectionCount() > 0;
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

    m_listenerSocketFD = socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
    if (m_listenerSocketFD < 0)
    {
        const int error = errno;
        LOG4CPLUS_DEBUG(logger, "Could not create listener socket: " << ErrnoText{error});
        return false;
    }

    // Abstract namespace: the leading 0 byte of the path, nothing in the file system.
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    socklen_t addressLength = setAbstractAddress(address, m_socketAddress);
    if (bind(m_listenerSocketFD, reinterpret_cast<const sockaddr*>(&address), addressLength) < 0)
    {
        const int error = errno;
        LOG4CPLUS_DEBUG(logger, "Could not bind listener socket: " << ErrnoText{error});
        if (m_alternativeSocketAddress.empty())
            return false;

        addressLength = setAbstractAddress(address, m_alternativeSocketAddress);
        LOG4CPLUS_DEBUG(logger, "Binding to alternative address " << m_alternativeSocketAddress);
        if (bind(m_listenerSocketFD, reinterpret_cast<const sockaddr*>(&address), addressLength) < 0)
        {
            const int alternativeError = errno;
            LOG4CPLUS_DEBUG(logger, "Could not bind listener socket: " << ErrnoText{alternativeError});
            return false;
        }
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
            pollResult = poll(pollFDs.data(), pollFDs.size(), -1);
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
            char drain[wakeupDrainSize];
            if (read(pollFDs[0].fd, drain, sizeof(drain)) < 0)
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
            const int clientFD = accept4(pollFDs[1].fd, nullptr, nullptr, SOCK_CLOEXEC);
            if (clientFD >= 0)
            {
                LOG4CPLUS_DEBUG(logger, "New client connection: FD " << clientFD);
                // Under the lock a new sequence cannot slip in between the two packets.
                std::lock_guard lock(m_mutex);
                pollFDs.push_back({clientFD, POLLIN, 0});
                LOG4CPLUS_DEBUG(logger, "Sending InitialInfo packet with " << m_initialInfoPacket.size()
                                                                           << " bytes to connection with FD "
                                                                           << clientFD);
                sendDataOverClientConnection(clientFD, m_initialInfoPacket);
                if (!m_sequenceInfoPacket.empty())
                {
                    LOG4CPLUS_DEBUG(logger, "Sending SequenceInfo packet with "
                                                << m_sequenceInfoPacket.size()
                                                << " bytes to connection with FD " << clientFD);
                    sendDataOverClientConnection(clientFD, m_sequenceInfoPacket);
                }
            }
            else
            {
                const int error = errno;
                if (error == EAGAIN)
                    LOG4CPLUS_DEBUG(logger, "No socket to accept; socket may have gone away");
                else
                    LOG4CPLUS_ERROR(logger, "Could not accept new connection: " << ErrnoText{error});
            }
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
                shutdown(clientFD, SHUT_RDWR);
                close(clientFD);
                pollFDs.erase(pollFDs.begin() + static_cast<std::ptrdiff_t>(index));
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

void Sender::shutdownListener()
{
    std::vector<pollfd>& pollFDs = *m_listenerPollFDs;
    if (pollFDs.size() > 2)
    {
        for (auto client = pollFDs.begin() + 2; client != pollFDs.end(); ++client)
        {
            shutdown(client->fd, SHUT_RDWR);
            close(client->fd);
        }
        pollFDs.resize(2);
    }
    if (m_listenerSocketFD >= 0)
    {
        close(m_listenerSocketFD);
        m_listenerSocketFD = -1;
    }
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

    // nanomsg stops the whole process on some IPC paths that do not fit a Unix socket address
    // instead of failing; such a path is refused here as a failed attach.
    if (m_nanomsgIpcFilePath.size() >= sizeof(sockaddr_un::sun_path))
    {
        LOG4CPLUS_ERROR(logger, "Could not connect the nanomsg SP socket: " << ErrnoText{ENAMETOOLONG});
        return false;
    }

    m_nanomsgMainFD = nn_socket(AF_SP, pipeline ? NN_PUSH : NN_PUB);
    if (m_nanomsgMainFD < 0)
    {
        const int error = errno;
        LOG4CPLUS_ERROR(logger, "Could not create nanomsg SP socket: " << ErrnoText{error});
        return false;
    }

    // Pipeline receivers bind the address themselves; subscribers connect to ours.
    m_nanomsgEndpointID = pipeline ? nn_connect(m_nanomsgMainFD, m_nanomsgUri.c_str())
                                   : nn_bind(m_nanomsgMainFD, m_nanomsgUri.c_str());
    if (m_nanomsgEndpointID < 0)
    {
        const int error = errno;
        LOG4CPLUS_ERROR(logger, "Could not connect the nanomsg SP socket: " << ErrnoText{error});
        return false;
    }

    // No queueing: a packet goes out when the socket can take it now, or not at all.
    const int sendBufferSize = 1;
    if (nn_setsockopt(m_nanomsgMainFD, NN_SOL_SOCKET, NN_SNDBUF, &sendBufferSize, sizeof(sendBufferSize)) < 0)
    {
        const int error = errno;
        LOG4CPLUS_ERROR(logger, "Could not set the send buffer size: " << ErrnoText{error});
        return false;
    }

    int watchFD = -1;
    std::size_t watchFDSize = sizeof(watchFD);
    if (nn_getsockopt(m_nanomsgMainFD, NN_SOL_SOCKET, NN_SNDFD, &watchFD, &watchFDSize) < 0)
    {
        const int error = errno;
        LOG4CPLUS_ERROR(logger, "Could not retrieve the nanosmg watch FD: " << ErrnoText{error});
        nn_shutdown(m_nanomsgMainFD, m_nanomsgEndpointID);
        m_nanomsgEndpointID = -1;
        return false;
    }
    m_nanomsgWatchFD = watchFD;

    LOG4CPLUS_DEBUG(logger, "Nanomsg watch FD: " << m_nanomsgWatchFD);
    m_sendDisabled = false;
    guard.dismiss();
    return true;
}

void Sender::shutdownNanomsgMainChannel()
{
    if (m_nanomsgEndpointID >= 0)
    {
        nn_shutdown(m_nanomsgMainFD, m_nanomsgEndpointID);
        m_nanomsgEndpointID = -1;
    }
    if (m_nanomsgMainFD < 0)
        return;
    if (nn_close(m_nanomsgMainFD) < 0)
    {
        const int error = errno;
        LOG4CPLUS_ERROR(logger, "Error while closing SP socket: " << ErrnoText{error});
    }
    m_nanomsgMainFD = -1;
}

void Sender::sendDataOverNanomsg(const ByteSpan& packet)
{
    {
        // The lock covers the test only, never the wait, so that disableSend can always get in.
        std::lock_guard lock(m_nanomsgMutex);
        if (m_sendDisabled)
        {
            LOG4CPLUS_TRACE(logger, "Cannot send anything; sending is disabled");
            return;
        }
        // Counted with the test: shutdownSender disables sending before it waits for the count
        // to drop, so it either waits for this send or this send sees the switch.
        ++m_sendsInProgress;
    }
    const auto sendDone = miscUtils::makeScopeGuard([this] {
        // Under the lock, so that shutdownSender returns (and the sender may go) only once this
        // thread is done with it.
        std::lock_guard lock(m_nanomsgMutex);
        if (--m_sendsInProgress == 0)
            m_sendsFinished.notify_all();
    });
    MISCUTILS_ASSERT(m_nanomsgMainFD >= 0);
    LOG4CPLUS_TRACE(logger, "Sending data with " << packet.size() << " bytes over nanomsg SP socket");

    // The channel nearly always takes a packet at once (a publisher always does), so the send
    // is tried first and the poll is paid only when it would block.
    if (nn_send(m_nanomsgMainFD, packet.data(), packet.size(), NN_DONTWAIT) >= 0)
        return;
    if (const int error = errno; error != EAGAIN)
    {
        LOG4CPLUS_ERROR(logger, "Error while trying to send data over nanomsg: " << ErrnoText{error});
        return;
    }

    enum
    {
        Watch,
        Wakeup
    };
    pollfd pollFDs[2] = {{m_nanomsgWatchFD, POLLIN, 0}, {m_nanomsgWakeupPipe[0], POLLIN, 0}};
    for (;;)
    {
        // No time-out: only writability or a wake-up byte ends the wait.
        if (poll(pollFDs, 2, -1) < 0)
        {
            const int error = errno;
            if (error == EINTR)
                continue;
            LOG4CPLUS_ERROR(logger, "poll() error while writing data to nanomsg: " << ErrnoText{error});
            return;
        }

        if ((pollFDs[Wakeup].revents & POLLIN) != 0)
        {
            LOG4CPLUS_TRACE(logger, "Nanomsg wakeup pipe activity");
            char drain[wakeupDrainSize];
            if (read(pollFDs[Wakeup].fd, drain, sizeof(drain)) < 0)
            {
                const int error = errno;
                LOG4CPLUS_ERROR(logger,
                                "Error while receiving wakeup call over control pipe: " << ErrnoText{error});
                return;
            }
            // Woken by disableSend or shutdownSender: the packet is dropped. A byte from a
            // disable that nobody waited for is stale once sending is enabled again; the wait
            // goes on.
            std::lock_guard lock(m_nanomsgMutex);
            if (m_sendDisabled)
                return;
        }
        if ((pollFDs[Watch].revents & POLLIN) != 0)
            break;
    }

    LOG4CPLUS_TRACE(logger, "Nanomsg watch FD activity");
    if (nn_send(m_nanomsgMainFD, packet.data(), packet.size(), NN_DONTWAIT) >= 0)
        return;
    const int error = errno;
    if (error == EAGAIN)
        LOG4CPLUS_DEBUG(logger, "Could not send data over nanomsg; connection might be gone");
    else
        LOG4CPLUS_ERROR(logger, "Error while trying to send data over nanomsg: " << ErrnoText{error});
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
    if (m_nanomsgWakeupPipe[1] >= 0 && !writeNanomsgWakeup())
        LOG4CPLUS_ERROR(logger, "Failed to write wakeup flag for disable");
}

bool Sender::writeNanomsgWakeup()
{
    return write(m_nanomsgWakeupPipe[1], &wakeupByte, 1) == 1 || errno == EAGAIN;
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
