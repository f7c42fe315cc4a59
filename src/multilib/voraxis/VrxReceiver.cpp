#include "voraxis/VrxReceiver.h"

#include "miscutils/Assert.h"
#include "miscutils/ErrnoText.h"
#include "miscutils/ScopeGuard.h"
#include "voraxis/LittleEndian.h"

#include <log4cplus/logger.h>
#include <log4cplus/loggingmacros.h>

#include <nanomsg/nn.h>
#include <nanomsg/pipeline.h>
#include <nanomsg/pubsub.h>

#include <dirent.h>
#include <fcntl.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/inotify.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <string_view>

namespace vrx {

namespace {

using miscUtils::detail::ErrnoText;
using namespace std::chrono_literals;

log4cplus::Logger logger = log4cplus::Logger::getInstance(LOG4CPLUS_TEXT("Voraxis"));

constexpr std::size_t maxSocketAddressLength = sizeof(sockaddr_un::sun_path) - 1;
constexpr std::size_t readingLengthPrefix = static_cast<std::size_t>(-1);
// The sidechannel reader grows its buffer by at most this much per read, so that a length
// prefix alone never makes it allocate more than the peer actually sends.
constexpr std::size_t sidechannelReadChunk = 64 * 1024;

constexpr char wakeupByte = '1';
constexpr std::size_t wakeupDrainSize = 1024;

constexpr auto retryDelay = 400ms;
constexpr auto quickRetryDelay = 2ms;
constexpr auto quickRetryPeriod = 100ms;
constexpr int inputPollSliceMs = 50;

constexpr unsigned int timeSyncPollIntervalMs = 100;
constexpr unsigned long long timeSyncMaxRoundTripNs = 175000000;

constexpr std::string_view senderDirectoryPrefix = "VrxSender-";
constexpr int fsMonitorPollMs = 5000;
// One event header and room for a name.
constexpr std::size_t inotifyBufferSize = sizeof(inotify_event) + 256;

// The directory in which senders create theirs; read at each use, as a sender does.
std::string senderParentDirectory()
{
    const char* directory = std::getenv("TMPDIR");
    return directory != nullptr ? directory : "/tmp/vrx";
}

} // namespace

const char* toString(Receiver::State state)
{
    switch (state)
    {
    case Receiver::State::Idle: return "idle";
    case Receiver::State::Connecting: return "connecting";
    case Receiver::State::Running: return "running";
    }
    return "unknown";
}

const char* toString(Receiver::StreamClockType clockType)
{
    switch (clockType)
    {
    case Receiver::StreamClockType::Undetermined: return "undetermined";
    case Receiver::StreamClockType::NoClock: return "no clock";
    case Receiver::StreamClockType::MonotonicSystemClock: return "monotonic system clock";
    case Receiver::StreamClockType::SyncedNetClock: return "synced net clock";
    }
    return "unknown";
}

// ---- Object and thread loop ----------------------------------------------------------------

Receiver::Receiver() = default;

Receiver::~Receiver()
{
    shutdownReceiver();
}

void Receiver::addDepayloader(Depayloader& depayloader)
{
    m_depayloaderList.addDepayloader(depayloader);
}

void Receiver::setReceiverIsReadyCallback(ReceiverIsReadyCallback callback)
{
    m_receiverIsReadyCallback = std::move(callback);
}

void Receiver::setStateChangedCallback(StateChangedCallback callback)
{
    m_stateChangedCallback = std::move(callback);
}

void Receiver::setConnectionAttemptFailedCallback(ConnectionAttemptFailedCallback callback)
{
    m_connectionAttemptFailedCallback = std::move(callback);
}

void Receiver::setMediaDataCallback(MediaDataCallback callback)
{
    m_mediaDataCallback = std::move(callback);
}

void Receiver::setNewSequenceCallback(NewSequenceCallback callback)
{
    m_newSequenceCallback = std::move(callback);
}

Receiver::State Receiver::getState() const
{
    std::lock_guard lock(m_mutex);
    return m_state;
}

bool Receiver::initializeReceiver(std::string socketAddress)
{
    if (getState() != State::Idle)
        return true;
    // A loop that ended by itself, after a connect step failed for good, leaves its threads to
    // be joined; assigning new ones over them would end the process.
    if (m_thread.joinable() || m_fsMonitorThread.joinable())
        stopThreads();

    if (pipe2(m_wakeupPipe.data(), O_CLOEXEC) < 0)
    {
        const int error = errno;
        LOG4CPLUS_ERROR(logger,
                        "Could not create VRX receiver thread look wakeup pipe: " << ErrnoText{error});
        return false;
    }
    LOG4CPLUS_TRACE(logger, "Setting up receiver with socket address \"" << socketAddress << "\"");

    m_socketAddress = std::move(socketAddress);
    m_connectingState = ConnectingState::ConnectingSidechannel;
    {
        std::lock_guard lock(m_mutex);
        m_receiverIsReadyReported = false;
        m_state = State::Connecting;
        m_threadRunning = true;
    }
    if (m_stateChangedCallback)
        m_stateChangedCallback(State::Connecting);

    startThread();
    startFsMonitorThread();
    LOG4CPLUS_DEBUG(logger, "Receiver initialized");
    return true;
}

void Receiver::shutdownReceiver()
{
    stopThreads();
    LOG4CPLUS_DEBUG(logger, "Receiver shut down");
}

void Receiver::stopThreads()
{
    {
        std::lock_guard lock(m_mutex);
        m_threadRunning = false;
    }
    stopFsMonitorThread();
    stopThread();
}

void Receiver::startThread()
{
    m_thread = std::thread(&Receiver::threadLoop, this);
}

void Receiver::stopThread()
{
    {
        std::lock_guard lock(m_mutex);
        m_threadRunning = false;
        m_conditionVariable.notify_one();
        // Wakes the receiver thread out of its wait for the greeting or for input.
        if (m_wakeupPipe[1] >= 0 && write(m_wakeupPipe[1], &wakeupByte, 1) != 1)
            LOG4CPLUS_ERROR(logger, "Failed to write stop flag");
    }
    if (m_thread.joinable())
        m_thread.join();
}

void Receiver::threadLoop()
{
    LOG4CPLUS_DEBUG(logger, "Receiver thread started");
    while (iterate())
    {}
    setReceiverToIdle();
    // After the Idle state change, so that the application sees Idle first.
    if (m_connectionAttemptFailed)
    {
        LOG4CPLUS_DEBUG(logger, "Connection attempt failed; reporting this if a callback is set");
        if (m_connectionAttemptFailedCallback)
            m_connectionAttemptFailedCallback();
        m_connectionAttemptFailed = false;
    }
    LOG4CPLUS_DEBUG(logger, "Receiver thread stopped");
}

bool Receiver::iterate()
{
    {
        std::lock_guard lock(m_mutex);
        if (!m_threadRunning)
            return false;
    }
    switch (m_state)
    {
    case State::Connecting: return handleConnectingState();
    case State::Running:
        if (listenForInput())
            return true;
        LOG4CPLUS_DEBUG(
            logger, "Connection gone because of shutdown or because of an error; attempting to reconnect");
        disconnectNanomsgMainChannel();
        disconnectSidechannel();
        {
            std::lock_guard lock(m_mutex);
            resetConnectionStates();
        }
        m_syncedNetClock.stopSynchronization();
        m_connectingState = ConnectingState::ConnectingSidechannel;
        setState(State::Connecting, false);
        return true;
    case State::Idle: break;
    }
    return true;
}

void Receiver::setState(State state, bool force)
{
    {
        std::lock_guard lock(m_mutex);
        if (!force && m_state == state)
            return;
        m_state = state;
    }
    if (m_stateChangedCallback)
        m_stateChangedCallback(state);
}

void Receiver::setReceiverToIdle()
{
    // Before taking m_mutex: stopping waits for the clock's thread, which may be reporting
    // readiness under m_mutex.
    m_syncedNetClock.stopSynchronization();
    {
        std::lock_guard lock(m_mutex);
        if (m_state == State::Idle)
            return;
        if (m_wakeupPipe[0] != -1)
        {
            close(m_wakeupPipe[0]);
            close(m_wakeupPipe[1]);
            m_wakeupPipe = {-1, -1};
        }
        disconnectNanomsgMainChannel();
        disconnectSidechannel();
        resetConnectionStates();
        m_state = State::Idle;
    }
    if (m_stateChangedCallback)
        m_stateChangedCallback(State::Idle);
}

void Receiver::resetConnectionStates()
{
    m_initialInfo = InitialInfo{};
    m_currentSequenceNr = 0;
    m_receiverIsReadyReported = false;
    m_announcedDepayloader = nullptr;
    m_connectingState = ConnectingState::ConnectingSidechannel;
    m_depayloaderList.reset();
}

// ---- Connecting: sidechannel and greeting --------------------------------------------------

bool Receiver::handleConnectingState()
{
    MISCUTILS_ASSERT(m_state == State::Connecting);
    switch (m_connectingState)
    {
    case ConnectingState::NotConnecting:
    case ConnectingState::Connected: MISCUTILS_ASSERT(false); break;
    case ConnectingState::ConnectingSidechannel:
        switch (connectSidechannel())
        {
        case ConnectionRetval::Success:
            LOG4CPLUS_DEBUG(logger, "Sidechannel to VRX sender established");
            m_senderAppeared = false; // whatever appeared meanwhile, this is the sender
            m_connectingState = ConnectingState::WaitingForInitialInfo;
            return true;
        case ConnectionRetval::Retry: waitBeforeRetry(); return true;
        case ConnectionRetval::Failed: m_connectionAttemptFailed = true; return false;
        }
        break;
    case ConnectingState::WaitingForInitialInfo:
        switch (listenForInitialInfo())
        {
        case InitialInfoRetval::Success:
            m_connectingState = ConnectingState::ConnectingNanomsgMainChannel;
            return true;
        case InitialInfoRetval::NotYet: return true;
        case InitialInfoRetval::Aborted: LOG4CPLUS_DEBUG(logger, "Aborting connection attempt"); return false;
        case InitialInfoRetval::Error:
            LOG4CPLUS_ERROR(logger, "Could not get initial info; restarting connection attempt");
            disconnectSidechannel();
            m_connectingState = ConnectingState::ConnectingSidechannel;
            return true;
        }
        break;
    case ConnectingState::ConnectingNanomsgMainChannel:
        switch (connectNanomsgMainChannel())
        {
        case ConnectionRetval::Success:
            LOG4CPLUS_DEBUG(logger, "Nanomsg channel to VRX sender established; switching to Running state");
            setState(State::Running, false);
            m_connectingState = ConnectingState::Connected;
            return true;
        case ConnectionRetval::Retry:
            LOG4CPLUS_TRACE(logger, "Could not connect to VRX sender nanomsg SP socket; retrying in "
                                        << std::chrono::milliseconds(retryDelay).count() << " ms");
            std::this_thread::sleep_for(retryDelay);
            return true;
        case ConnectionRetval::Failed: m_connectionAttemptFailed = true; return false;
        }
        break;
    }
    return true;
}

void Receiver::waitBeforeRetry()
{
    // A sender that appeared since the last wait (or before the receiver started) is retried
    // quickly: it creates its directory a moment before it listens. Taking the flag here,
    // rather than clearing it, loses no sign of a sender that came between attempt and wait.
    const auto now = std::chrono::steady_clock::now();
    if (m_senderAppeared.exchange(false))
        m_quickRetriesUntil = now + quickRetryPeriod;
    const auto delay = now < m_quickRetriesUntil ? quickRetryDelay : retryDelay;
    LOG4CPLUS_TRACE(logger, "Could not connect to VRX sender; retrying in "
                                << std::chrono::milliseconds(delay).count() << " ms");
    std::unique_lock lock(m_mutex);
    m_conditionVariable.wait_until(lock, now + delay,
                                   [this] { return m_senderAppeared || !m_threadRunning; });
}

Receiver::ConnectionRetval Receiver::connectSidechannel()
{
    auto guard = miscUtils::makeScopeGuard([this] { disconnectSidechannel(); });
    if (m_sideChannelSocketFD < 0)
    {
        m_sideChannelSocketFD = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
        if (m_sideChannelSocketFD < 0)
        {
            const int error = errno;
            LOG4CPLUS_ERROR(logger, "Could not create sidechannel socket: " << ErrnoText{error});
            return ConnectionRetval::Failed;
        }
        LOG4CPLUS_TRACE(logger, "Sidechannel socket established");
    }
    LOG4CPLUS_TRACE(logger, "Attempting to connect sidechannel");

    // Abstract namespace: a leading 0 byte, then the name without a terminator.
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    const std::size_t length = std::min(m_socketAddress.size(), maxSocketAddressLength);
    std::copy_n(m_socketAddress.begin(), length, address.sun_path + 1);
    const auto addressLength = static_cast<socklen_t>(sizeof(address.sun_family) + 1 + length);
    if (connect(m_sideChannelSocketFD, reinterpret_cast<const sockaddr*>(&address), addressLength) == 0)
    {
        LOG4CPLUS_DEBUG(logger, "Sidechannel connected with FD " << m_sideChannelSocketFD);
        guard.dismiss();
        return ConnectionRetval::Success;
    }
    const int error = errno;
    if (error == ENOENT || error == ECONNREFUSED)
    {
        // No sender listens yet: the unconnected socket is kept for the next attempt.
        guard.dismiss();
        return ConnectionRetval::Retry;
    }
    LOG4CPLUS_ERROR(logger, "Could not connect to sender: " << ErrnoText{error});
    return ConnectionRetval::Retry;
}

void Receiver::disconnectSidechannel()
{
    if (m_sideChannelSocketFD >= 0)
    {
        LOG4CPLUS_DEBUG(logger, "Closing sidechannel with FD " << m_sideChannelSocketFD);
        shutdown(m_sideChannelSocketFD, SHUT_RDWR);
        close(m_sideChannelSocketFD);
        m_sideChannelSocketFD = -1;
    }
    m_sidechannelMessageSize = readingLengthPrefix;
    m_sidechannelBytesRead = 0;
}

bool Receiver::readSomeFromSidechannel(unsigned char* buffer, std::size_t count, std::size_t& bytesRead)
{
    const ssize_t result = read(m_sideChannelSocketFD, buffer, count);
    if (result > 0)
    {
        bytesRead = static_cast<std::size_t>(result);
        return true;
    }
    if (result == 0)
    {
        LOG4CPLUS_DEBUG(logger, "VRX sidechannel socket got closed");
        return false;
    }
    const int error = errno;
    LOG4CPLUS_ERROR(logger, "Could not read data from VRX sidechannel socket: " << ErrnoText{error});
    return false;
}

Receiver::SidechannelReadRetval Receiver::readSidechannelMessage()
{
    constexpr std::size_t prefixSize = sizeof(std::uint32_t);
    std::size_t bytesRead = 0;
    if (m_sidechannelMessageSize == readingLengthPrefix)
    {
        if (m_sidechannelMessage.size() < prefixSize)
        {
            m_sidechannelMessage.resize(prefixSize);
            m_sidechannelBytesRead = 0;
        }
        if (!readSomeFromSidechannel(m_sidechannelMessage.data() + m_sidechannelBytesRead,
                                     prefixSize - m_sidechannelBytesRead, bytesRead))
            return SidechannelReadRetval::Error;
        m_sidechannelBytesRead += bytesRead;
        if (m_sidechannelBytesRead == prefixSize)
        {
            m_sidechannelMessageSize = detail::readLittleEndian<std::uint32_t>(m_sidechannelMessage.data());
            m_sidechannelMessage.clear();
            m_sidechannelBytesRead = 0;
        }
        // The payload follows in later calls, so that one call never reads past one message.
        return SidechannelReadRetval::Incomplete;
    }

    const std::size_t wanted =
        std::min(m_sidechannelMessageSize - m_sidechannelBytesRead, sidechannelReadChunk);
    m_sidechannelMessage.resize(std::max(m_sidechannelMessage.size(), m_sidechannelBytesRead + wanted));
    if (!readSomeFromSidechannel(m_sidechannelMessage.data() + m_sidechannelBytesRead, wanted, bytesRead))
        return SidechannelReadRetval::Error;
    m_sidechannelBytesRead += bytesRead;
    if (m_sidechannelBytesRead < m_sidechannelMessageSize)
        return SidechannelReadRetval::Incomplete;
    m_sidechannelMessage.resize(m_sidechannelMessageSize);
    m_sidechannelBytesRead = 0;
    m_sidechannelMessageSize = readingLengthPrefix;
    return SidechannelReadRetval::MessageComplete;
}

Receiver::InitialInfoRetval Receiver::listenForInitialInfo()
{
    MISCUTILS_ASSERT(m_sideChannelSocketFD >= 0);
    pollfd pollFDs[2] = {{m_wakeupPipe[0], POLLIN, 0}, {m_sideChannelSocketFD, POLLIN, 0}};
    LOG4CPLUS_DEBUG(logger, "Waiting for initial info");
    while (poll(pollFDs, 2, -1) < 0)
    {
        const int error = errno;
        if (error == EINTR)
            continue;
        LOG4CPLUS_ERROR(logger,
                        "Could not poll for side channel activity to get initial info: " << ErrnoText{error});
        return InitialInfoRetval::Error;
    }

    // A stop wins over data that is already waiting.
    if ((pollFDs[0].revents & POLLIN) != 0)
    {
        LOG4CPLUS_DEBUG(logger, "Loop wakeup activity; aborting wait for initial info");
        char drain[wakeupDrainSize];
        if (read(m_wakeupPipe[0], drain, sizeof(drain)) < 0)
        {
            const int error = errno;
            LOG4CPLUS_ERROR(logger,
                            "Error while receiving wakeup call over control pipe: " << ErrnoText{error});
        }
        return InitialInfoRetval::Aborted;
    }
    if ((pollFDs[1].revents & POLLIN) == 0)
        return InitialInfoRetval::NotYet;

    LOG4CPLUS_DEBUG(logger, "Sidechannel activity; reading initial info");
    switch (readSidechannelMessage())
    {
    case SidechannelReadRetval::Incomplete: return InitialInfoRetval::NotYet;
    case SidechannelReadRetval::Error: return InitialInfoRetval::Error;
    case SidechannelReadRetval::MessageComplete: break;
    }

    LOG4CPLUS_DEBUG(logger,
                    "Got initial info message with " << m_sidechannelMessage.size() << " bytes; parsing");
    // The first message of a connection is the greeting; a malformed one stops the process.
    InitialInfo initialInfo = parseInitialInfoPacket(m_sidechannelMessage);
    {
        std::lock_guard lock(m_mutex);
        m_initialInfo = std::move(initialInfo);
    }
    LOG4CPLUS_DEBUG(logger, "VRX initial info:"
                                << "  VRX version: " << m_initialInfo.version
                                << "  time sync IP address: " << m_initialInfo.timeSyncIPAddress
                                << "  time sync port: " << m_initialInfo.timeSyncPort
                                << "  time sync protocol: " << toString(m_initialInfo.timeSyncProtocol)
                                << "  nanomsg protocol: " << toString(m_initialInfo.nanomsgProtocol)
                                << "  nanomsg URI: " << m_initialInfo.nanomsgUri);
    startTimeSynchronization();
    return InitialInfoRetval::Success;
}

// ---- Main channel --------------------------------------------------------------------------

Receiver::ConnectionRetval Receiver::connectNanomsgMainChannel()
{
    MISCUTILS_ASSERT(m_nanomsgMainFD < 0);
    auto guard = miscUtils::makeScopeGuard([this] { disconnectNanomsgMainChannel(); });

    const NanomsgProtocol protocol = m_initialInfo.nanomsgProtocol;
    if (protocol != NanomsgProtocol::Pipeline && protocol != NanomsgProtocol::PubSub)
        MISCUTILS_ASSERT(false);
    const std::string& uri = m_initialInfo.nanomsgUri;
    constexpr std::string_view ipcScheme = "ipc://";
    const bool ipc = uri.starts_with(ipcScheme);
    // nanomsg stops the whole process on some IPC paths that do not fit a Unix socket address
    // instead of failing; a sender that announces one is refused like a failed connect.
    if (ipc && uri.size() - ipcScheme.size() >= sizeof(sockaddr_un::sun_path))
    {
        LOG4CPLUS_ERROR(logger, "Could not connect the nanomsg SP socket: " << ErrnoText{ENAMETOOLONG});
        return ConnectionRetval::Failed;
    }

    m_nanomsgMainFD = nn_socket(AF_SP, protocol == NanomsgProtocol::PubSub ? NN_SUB : NN_PULL);
    if (m_nanomsgMainFD < 0)
    {
        const int error = errno;
        LOG4CPLUS_ERROR(logger, "Could not create nanomsg SP socket: " << ErrnoText{error});
        return ConnectionRetval::Failed;
    }

    if (protocol == NanomsgProtocol::PubSub)
    {
        // The empty topic matches every message.
        if (nn_setsockopt(m_nanomsgMainFD, NN_SUB, NN_SUB_SUBSCRIBE, "", 0) < 0)
        {
            const int error = errno;
            LOG4CPLUS_ERROR(logger, "Could not set SP socket subscription: " << ErrnoText{error});
            return ConnectionRetval::Failed;
        }
        m_nanomsgEndpointID = nn_connect(m_nanomsgMainFD, uri.c_str());
        if (m_nanomsgEndpointID < 0)
        {
            const int error = errno;
            LOG4CPLUS_ERROR(logger, "Could not connect the nanomsg SP socket: " << ErrnoText{error});
            return ConnectionRetval::Failed;
        }
    }
    else
    {
        // Pipeline: the receiver binds, so only one receiver can hold the address.
        m_nanomsgEndpointID = nn_bind(m_nanomsgMainFD, uri.c_str());
        if (m_nanomsgEndpointID < 0)
        {
            const int error = errno;
            LOG4CPLUS_ERROR(logger, "Could not connect the nanomsg SP socket: " << ErrnoText{error});
            return ConnectionRetval::Failed;
        }
        if (ipc)
        {
            // A sender running under another user id must be able to connect.
            LOG4CPLUS_INFO(logger, "Changing the permissions of socket " << uri << " to 622");
            chmod(uri.c_str() + ipcScheme.size(), 0622);
        }
    }

    // Hold as little as possible ahead of the reader, and take messages of any size.
    const int receiveBufferSize = 1;
    const int unlimitedSize = -1;
    nn_setsockopt(m_nanomsgMainFD, NN_SOL_SOCKET, NN_RCVBUF, &receiveBufferSize, sizeof(receiveBufferSize));
    nn_setsockopt(m_nanomsgMainFD, NN_SOL_SOCKET, NN_RCVMAXSIZE, &unlimitedSize, sizeof(unlimitedSize));

    int watchFD = -1;
    std::size_t watchFDSize = sizeof(watchFD);
    if (nn_getsockopt(m_nanomsgMainFD, NN_SOL_SOCKET, NN_RCVFD, &watchFD, &watchFDSize) < 0)
    {
        const int error = errno;
        LOG4CPLUS_ERROR(logger, "Could not retrieve the nanosmg watch FD: " << ErrnoText{error});
        nn_shutdown(m_nanomsgMainFD, m_nanomsgEndpointID);
        m_nanomsgEndpointID = -1;
        return ConnectionRetval::Failed;
    }
    m_nanomsgWatchFD = watchFD;
    LOG4CPLUS_DEBUG(logger, "Nanomsg watch FD: " << m_nanomsgWatchFD);
    guard.dismiss();
    return ConnectionRetval::Success;
}

void Receiver::disconnectNanomsgMainChannel()
{
    if (m_nanomsgEndpointID >= 0)
    {
        nn_shutdown(m_nanomsgMainFD, m_nanomsgEndpointID);
        m_nanomsgEndpointID = -1;
    }
    if (m_nanomsgMainFD >= 0)
    {
        if (nn_close(m_nanomsgMainFD) < 0)
        {
            const int error = errno;
            LOG4CPLUS_ERROR(logger, "Error while closing SP socket: " << ErrnoText{error});
        }
        m_nanomsgMainFD = -1;
    }
}

// ---- Running: input ------------------------------------------------------------------------

bool Receiver::listenForInput()
{
    enum
    {
        Wakeup,
        Nanomsg,
        Sidechannel
    };
    LOG4CPLUS_TRACE(logger, "Listening for input");
    pollfd pollFDs[3] = {
        {m_wakeupPipe[0], POLLIN, 0}, {m_nanomsgWatchFD, POLLIN, 0}, {m_sideChannelSocketFD, POLLIN, 0}};
    for (;;)
    {
        const int ready = poll(pollFDs, 3, inputPollSliceMs);
        if (ready > 0)
            break;
        if (ready < 0)
        {
            const int error = errno;
            if (error == EINTR)
                continue;
            LOG4CPLUS_ERROR(
                logger, "Could not poll for side channel activity to get initial info: " << ErrnoText{error});
            return false;
        }
        // Packets the sender sent before it went away are still delivered; a quiet main
        // channel after the sidechannel closed means the sender is gone.
        if (m_connectingState == ConnectingState::ConnectingSidechannel)
        {
            LOG4CPLUS_DEBUG(logger, "Sidechannel has been disconnected and no nanomsg activity is present - "
                                    "shutting down receiver");
            return false;
        }
    }

    if ((pollFDs[Wakeup].revents & POLLIN) != 0)
    {
        LOG4CPLUS_TRACE(logger, "Loop wakup activity; aborting wait for input");
        char drain[wakeupDrainSize];
        if (read(pollFDs[Wakeup].fd, drain, sizeof(drain)) < 0)
        {
            const int error = errno;
            LOG4CPLUS_ERROR(logger,
                            "Error while receiving wakeup call over control pipe: " << ErrnoText{error});
            return false;
        }
        std::lock_guard lock(m_mutex);
        m_threadRunning = false;
        return true;
    }

    if ((pollFDs[Nanomsg].revents & POLLIN) != 0)
    {
        LOG4CPLUS_TRACE(logger, "Nanomsg activity");
        void* message = nullptr;
        const int size = nn_recv(m_nanomsgMainFD, &message, NN_MSG, NN_DONTWAIT);
        if (size < 0)
        {
            const int error = errno;
            LOG4CPLUS_ERROR(logger,
                            "Error while trying to receive data through nanomsg: " << ErrnoText{error});
            return false;
        }
        // Freed on every way out, also when a callback throws.
        const auto freeMessage = miscUtils::makeScopeGuard([message] { nn_freemsg(message); });
        const ByteSpan packet(static_cast<const unsigned char*>(message), static_cast<std::size_t>(size));
        if (!shouldPacketBeKept(packet))
        {
            LOG4CPLUS_TRACE(logger, "Dropping received nanomsg VRX packet with " << size << " byte(s)");
            return !missedSequenceInfo(packet);
        }
        // On the data channel a missing depayloader costs only the stream.
        switch (m_depayloaderList.consumePacket(packet))
        {
        case DepayloaderList::ConsumePacketRetcode::NoMatchingDepayloader:
            LOG4CPLUS_WARN(
                logger, "Could not select an VRX depayloader for this stream; its packets will be skipped");
            return true;
        case DepayloaderList::ConsumePacketRetcode::NoDepayloaderSelected:
            LOG4CPLUS_WARN(logger, "Dropping received nanomsg VRX Frame packet because no matching VRX "
                                   "depayloader was previously found");
            return true;
        case DepayloaderList::ConsumePacketRetcode::Error:
            LOG4CPLUS_ERROR(logger, "Error while consuming VRX packet");
            return false;
        case DepayloaderList::ConsumePacketRetcode::Ok: break;
        }
        const PacketType packetType = m_depayloaderList.getCurrentPacketType();
        LOG4CPLUS_TRACE(logger, "Received nanomsg VRX packet with "
                                    << size << " byte(s); type: " << toString(packetType));
        if (packetType == PacketType::SequenceInfo && !handleSequenceInfoPacket())
            return false;
        if (packetType == PacketType::Frame)
            handleFramePacket();
    }

    if ((pollFDs[Sidechannel].revents & POLLIN) != 0)
    {
        LOG4CPLUS_TRACE(logger, "Sidechannel activity");
        MISCUTILS_ASSERT(m_connectingState != ConnectingState::WaitingForInitialInfo);
        switch (readSidechannelMessage())
        {
        case SidechannelReadRetval::Incomplete: return true;
        case SidechannelReadRetval::Error:
            // Not an error yet: the main channel is drained until it goes quiet.
            disconnectSidechannel();
            m_connectingState = ConnectingState::ConnectingSidechannel;
            return true;
        case SidechannelReadRetval::MessageComplete: break;
        }
        const ByteSpan packet(m_sidechannelMessage);
        if (!shouldPacketBeKept(packet))
        {
            LOG4CPLUS_DEBUG(logger,
                            "Dropping received sidechannel VRX packet with " << packet.size() << " bytes");
            return true;
        }
        // On the control channel a missing depayloader ends the connection.
        const DepayloaderList::ConsumePacketRetcode result = m_depayloaderList.consumePacket(packet);
        const PacketType packetType = m_depayloaderList.getCurrentPacketType();
        LOG4CPLUS_TRACE(logger, "Received sidechannel VRX packet with "
                                    << packet.size() << " byte(s); type: " << toString(packetType));
        switch (result)
        {
        case DepayloaderList::ConsumePacketRetcode::NoMatchingDepayloader:
            LOG4CPLUS_ERROR(logger, "Got a SequenceInfo packet, but no matching payloader was found");
            return false;
        case DepayloaderList::ConsumePacketRetcode::NoDepayloaderSelected:
            LOG4CPLUS_ERROR(logger, "Got a Frame packet, but no payloader is present");
            return false;
        case DepayloaderList::ConsumePacketRetcode::Error:
            LOG4CPLUS_ERROR(logger, "Error while consuming VRX packet");
            return false;
        case DepayloaderList::ConsumePacketRetcode::Ok: break;
        }
        if (packetType == PacketType::SequenceInfo)
            return handleSequenceInfoPacket();
        if (packetType == PacketType::Frame)
        {
            LOG4CPLUS_ERROR(logger,
                            "Got a Frame packet over the sidechannel; this is not supposed to happen!");
            handleFramePacket();
        }
    }
    return true;
}

bool Receiver::shouldPacketBeKept(const ByteSpan& packet)
{
    const std::uint16_t sequenceNr = parsePacketSequenceNr(packet);
    const PacketType packetType = parsePacketType(packet);
    if (isSequenceNrTooOld(sequenceNr))
    {
        LOG4CPLUS_DEBUG(logger, "dropping VRX packet because it is too old (current sequence nr: "
                                    << m_currentSequenceNr << " packet sequence nr: " << sequenceNr << ")");
        return false;
    }
    if (sequenceNr == m_currentSequenceNr)
    {
        if (packetType != PacketType::SequenceInfo)
            return true;
        LOG4CPLUS_DEBUG(logger, "dropping VRX SequenceInfo packet because it is redundant (both have the "
                                "sequence number "
                                    << m_currentSequenceNr << ")");
        return false;
    }
    if (packetType == PacketType::Frame)
    {
        LOG4CPLUS_DEBUG(logger, "dropping VRX Frame packet because its sequence number does not match the "
                                "current one (current sequence nr: "
                                    << m_currentSequenceNr << " packet sequence nr: " << sequenceNr << ")");
        return false;
    }
    if (packetType == PacketType::SequenceInfo)
    {
        LOG4CPLUS_DEBUG(logger,
                        "setting sequence nr " << sequenceNr << " of SequenceInfo packet as new current one");
        m_currentSequenceNr = sequenceNr;
    }
    return true;
}

bool Receiver::missedSequenceInfo(const ByteSpan& droppedPacket) const
{
    // A frame of a newer sequence than the current one: its SequenceInfo was published while
    // this receiver could not take it (not subscribed yet, or its pipe full), and no other
    // announcement of it will come. A new connection is greeted with the current one.
    const std::uint16_t sequenceNr = parsePacketSequenceNr(droppedPacket);
    if (parsePacketType(droppedPacket) != PacketType::Frame || sequenceNr == m_currentSequenceNr ||
        isSequenceNrTooOld(sequenceNr))
        return false;
    LOG4CPLUS_WARN(logger, "Missed the SequenceInfo packet of sequence nr "
                               << sequenceNr << "; reconnecting to be greeted with it");
    return true;
}

bool Receiver::isSequenceNrTooOld(unsigned short sequenceNr) const
{
    // Late packets from just before the sender's counter wrapped. There is no allowance the
    // other way round: after a wrap from a high number, new small numbers count as too old.
    if (sequenceNr >= 0xFFF0 && m_currentSequenceNr <= 14)
        return true;
    return sequenceNr < m_currentSequenceNr;
}

bool Receiver::handleSequenceInfoPacket()
{
    Depayloader* depayloader = m_depayloaderList.getCurrentDepayloader();
    if (depayloader == nullptr)
    {
        LOG4CPLUS_ERROR(logger, "No suitable VRX depayloader available; check that the PCM depayloader was "
                                "added to the depayloader list");
        return false;
    }
    if (m_newSequenceCallback)
        m_newSequenceCallback(*depayloader);
    {
        // From now on the clock's thread may report readiness too: never before the
        // application has heard of the sequence.
        std::lock_guard lock(m_mutex);
        m_announcedDepayloader = depayloader;
    }
    reportReceiverIsReady(ReadinessReporter::ReceiverThread);
    return true;
}

void Receiver::handleFramePacket()
{
    if (!m_mediaDataCallback)
        return;
    const Buffer& mediaData = m_depayloaderList.getCurrentFrameMediaData();
    LOG4CPLUS_TRACE(logger, "Calling media data callback; media data size: " << mediaData.size() << " byte");
    m_mediaDataCallback(m_depayloaderList.getCurrentFrameTimestamp(),
                        m_depayloaderList.getCurrentFrameDuration(), mediaData);
}

// ---- Stream clock and readiness ------------------------------------------------------------

void Receiver::startTimeSynchronization()
{
    // A clock left over from an earlier connection never runs on.
    m_syncedNetClock.stopSynchronization();
    if (m_initialInfo.timeSyncProtocol == TimeSyncProtocol::MonotonicSystemClock)
    {
        LOG4CPLUS_DEBUG(logger,
                        "VRX time sync protocol is MonotonicSystemClock; no need to sync clocks, since "
                        "sender and receiver use the same monotonic system clock");
        return;
    }
    if (m_initialInfo.timeSyncPort == 0)
    {
        LOG4CPLUS_DEBUG(logger, "VRX time sync port is zero; not starting time synchronization");
        return;
    }
    LOG4CPLUS_DEBUG(logger, "VRX time sync port is nonzero; starting time synchronization");
    m_syncedNetClock.startSynchronization(m_initialInfo.timeSyncIPAddress, m_initialInfo.timeSyncPort,
                                          timeSyncPollIntervalMs, timeSyncMaxRoundTripNs,
                                          [this] { onClockSyncStateChange(); });
}

Receiver::StreamClockType Receiver::getStreamClockType() const
{
    std::lock_guard lock(m_mutex);
    return streamClockType();
}

Receiver::StreamClockType Receiver::streamClockType() const
{
    if (m_state != State::Running)
    {
        LOG4CPLUS_ERROR(
            logger, "Cannot query synced net clock availability unless the receiver is in the Running state");
        return StreamClockType::Undetermined;
    }
    if (m_initialInfo.timeSyncProtocol == TimeSyncProtocol::MonotonicSystemClock)
        return StreamClockType::MonotonicSystemClock;
    return m_initialInfo.timeSyncPort != 0 ? StreamClockType::SyncedNetClock : StreamClockType::NoClock;
}

miscUtils::TimeValue Receiver::getCurrentStreamTime() const
{
    std::lock_guard lock(m_mutex);
    if (m_initialInfo.timeSyncProtocol == TimeSyncProtocol::MonotonicSystemClock)
        return miscUtils::getMonotonicSysclockTime();
    return m_syncedNetClock.getSynchronizedTime();
}

void Receiver::reportReceiverIsReady(ReadinessReporter reporter)
{
    Depayloader* depayloader = nullptr;
    StreamClockType clockType = StreamClockType::Undetermined;
    {
        // Under the lock: the receiver thread and the clock's thread both report, and the
        // claim must be made once.
        std::lock_guard lock(m_mutex);
        // The clock may report before the main channel is connected; readiness then follows
        // from the first SequenceInfo.
        if (reporter == ReadinessReporter::Clock && m_state != State::Running)
            return;
        MISCUTILS_ASSERT(m_state == State::Running);
        if (m_receiverIsReadyReported)
            return;
        depayloader = m_announcedDepayloader;
        if (depayloader == nullptr)
        {
            LOG4CPLUS_DEBUG(logger, "VRX payloader not available yet; cannot report stream as ready");
            return;
        }
        clockType = streamClockType();
        switch (clockType)
        {
        case StreamClockType::NoClock:
        case StreamClockType::MonotonicSystemClock: break;
        case StreamClockType::SyncedNetClock:
            // Not yet: the clock's notification reports once it has synchronised.
            if (!m_syncedNetClock.isSynchronized())
                return;
            break;
        case StreamClockType::Undetermined: MISCUTILS_ASSERT(false);
        }
        m_receiverIsReadyReported = true;
    }
    if (m_receiverIsReadyCallback)
        m_receiverIsReadyCallback(*depayloader, clockType);
}

void Receiver::onClockSyncStateChange()
{
    reportReceiverIsReady(ReadinessReporter::Clock);
}

// ---- Directory monitor ---------------------------------------------------------------------

void Receiver::startFsMonitorThread()
{
    LOG4CPLUS_DEBUG(logger, "void vrx::Receiver::startFsMonitorThread()");
    // The watch comes before the scan, so that a sender appearing meanwhile is not missed.
    m_inotifyFD = inotify_init1(IN_CLOEXEC);
    const std::string directory = senderParentDirectory();
    m_inotifyWatchDescriptor = inotify_add_watch(m_inotifyFD, directory.c_str(), IN_CREATE | IN_EXCL_UNLINK);
    if (m_inotifyWatchDescriptor < 0)
    {
        const int error = errno;
        LOG4CPLUS_WARN(logger, "Cannot watch " << directory << " for senders appearing: " << ErrnoText{error}
                                               << "; a sender there is found by retries only");
    }

    if (DIR* listing = opendir(directory.c_str()))
    {
        LOG4CPLUS_DEBUG(logger, "Opened " << directory);
        while (const dirent* entry = readdir(listing))
        {
            struct stat status
            {};
            if (std::string_view(entry->d_name).starts_with(senderDirectoryPrefix) &&
                fstatat(dirfd(listing), entry->d_name, &status, 0) == 0 && S_ISDIR(status.st_mode))
            {
                LOG4CPLUS_DEBUG(logger, "Sender " << entry->d_name << " already created");
                m_senderAppeared = true;
                m_conditionVariable.notify_one();
                break;
            }
        }
        closedir(listing);
    }

    m_fsMonitorWakeupFD = eventfd(0, EFD_CLOEXEC);
    m_fsMonitorThread = std::thread(&Receiver::fsMonitorThreadLoop, this);
}

void Receiver::fsMonitorThreadLoop()
{
    LOG4CPLUS_DEBUG(logger, "void vrx::Receiver::fsMonitorThreadLoop()");
    pollfd pollFDs[2] = {{m_inotifyFD, POLLIN, 0}, {m_fsMonitorWakeupFD, POLLIN, 0}};
    for (;;)
    {
        const int ready = poll(pollFDs, 2, fsMonitorPollMs);
        {
            std::lock_guard lock(m_mutex);
            if (!m_threadRunning)
                return;
        }
        // Only a stop writes the wake-up event.
        if (ready <= 0 || pollFDs[1].revents != 0 || pollFDs[0].revents == 0)
            continue;

        // Only the first event of a read counts; a sender's directory comes with one event.
        alignas(inotify_event) unsigned char buffer[inotifyBufferSize] = {};
        const ssize_t bytesRead = read(m_inotifyFD, buffer, sizeof(buffer));
        if (bytesRead < static_cast<ssize_t>(sizeof(inotify_event)))
            continue;
        const auto* event = reinterpret_cast<const inotify_event*>(buffer);
        if (event->len == 0 || (event->mask & IN_CREATE) == 0)
            continue;
        const std::size_t nameRoom = static_cast<std::size_t>(bytesRead) - sizeof(inotify_event);
        const std::string_view name(event->name,
                                    strnlen(event->name, std::min<std::size_t>(event->len, nameRoom)));
        if (name.find(senderDirectoryPrefix) == std::string_view::npos)
            continue;
        LOG4CPLUS_DEBUG(logger, "Sender " << name << " initializing, signaling condition variable");
        m_senderAppeared = true;
        m_conditionVariable.notify_one();
    }
}

void Receiver::stopFsMonitorThread()
{
    LOG4CPLUS_DEBUG(logger, "void vrx::Receiver::stopFsMonitorThread()");
    if (m_fsMonitorWakeupFD >= 0)
    {
        const std::uint64_t one = 1;
        if (write(m_fsMonitorWakeupFD, &one, sizeof(one)) != sizeof(one))
            LOG4CPLUS_ERROR(logger, "Failed to write stop flag");
    }
    if (m_fsMonitorThread.joinable())
        m_fsMonitorThread.join();
    // Closed once, and forgotten, so that a second stop never closes a reused number.
    if (m_inotifyFD >= 0)
    {
        inotify_rm_watch(m_inotifyFD, m_inotifyWatchDescriptor);
        close(m_inotifyFD);
    }
    if (m_fsMonitorWakeupFD >= 0)
        close(m_fsMonitorWakeupFD);
    m_inotifyFD = m_inotifyWatchDescriptor = m_fsMonitorWakeupFD = -1;
}

} // namespace vrx
