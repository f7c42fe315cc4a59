#include "voraxis/VrxReceiver.h"

#include "miscutils/Assert.h"
#include "miscutils/ErrnoText.h"
#include "miscutils/ScopeGuard.h"
#include "voraxis/LittleEndian.h"
#include "voraxis/PeerAccess.h"

#include <log4cplus/logger.h>
#include <log4cplus/loggingmacros.h>

#include <nanomsg/nn.h>
#include <nanomsg/pipeline.h>
#include <nanomsg/pubsub.h>

#include <dirent.h>
#include <poll.h>
#include <sys/inotify.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <limits>
#include <string_view>

namespace vrx {

namespace {

using miscUtils::detail::ErrnoText;
using namespace std::chrono_literals;

log4cplus::Logger logger = log4cplus::Logger::getInstance(LOG4CPLUS_TEXT("Voraxis"));

constexpr std::size_t readingLengthPrefix = static_cast<std::size_t>(-1);
// The sidechannel reader grows its buffer by at most this much per read, so that a length
// prefix alone never makes it allocate more than the peer actually sends.
constexpr std::size_t sidechannelReadChunk = 4 * 1024;
// The longest sidechannel message taken, and the buffer kept from one connection to the next.
constexpr std::size_t maxSidechannelMessageSize = 64 * 1024;
constexpr std::size_t keptSidechannelCapacity = 4 * 1024;

constexpr auto retryDelay = 400ms;
constexpr auto quickRetryDelay = 2ms;
constexpr auto quickRetryPeriod = 100ms;
// After a failed attempt that is not the first in a row, the delay starts here and doubles up
// to retryDelay.
constexpr auto firstBackOff = 10ms;
constexpr int inputPollSliceMs = 50;

constexpr std::string_view senderDirectoryPrefix = "VrxSender-";
constexpr int fsMonitorPollMs = 5000;
// One event header and room for a name.
constexpr std::size_t inotifyBufferSize = sizeof(inotify_event) + 256;

int toPollTimeout(std::chrono::steady_clock::duration duration)
{
    return static_cast<int>(
        std::max<std::int64_t>(std::chrono::ceil<std::chrono::milliseconds>(duration).count(), 0));
}

// Logs the error of a failed connection at ERROR, where it happens, unless the attempts before
// failed the same way (see logConnectionFailure).
#define LOG_CONNECTION_FAILURE(text)                                                                         \
    logConnectionFailure((text), __FILE__, __LINE__, LOG4CPLUS_MACRO_FUNCTION())

bool isPowerOfTen(unsigned long number)
{
    while (number >= 10 && number % 10 == 0)
        number /= 10;
    return number == 1;
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

void Receiver::setAccessPolicy(const AccessPolicy& policy)
{
    m_chosenAccessPolicy = policy;
}

void Receiver::setLargestMessageSize(std::size_t bytes)
{
    m_largestMessageSize = std::min<std::size_t>(bytes, std::numeric_limits<int>::max());
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

    if (!m_wakeupPipe.open())
    {
        const int error = errno;
        LOG4CPLUS_ERROR(logger,
                        "Could not create VRX receiver thread look wakeup pipe: " << ErrnoText{error});
        return false;
    }
    LOG4CPLUS_TRACE(logger, "Setting up receiver with socket address \"" << socketAddress << "\"");

    m_socketAddress = std::move(socketAddress);
    m_accessPolicy = m_chosenAccessPolicy.value_or(AccessPolicy::fromEnvironment());
    m_receiverIsReadyReported = false;
    m_connectingState = ConnectingState::ConnectingSidechannel;
    m_failedAttempts = 0;
    m_nextAttemptAt = {};
    {
        std::lock_guard lock(m_mutex);
        m_state = State::Connecting;
        m_threadRunning = true;
        m_pendingEvents = 0;
    }
    // Whatever throws from here on (the callback, or a thread that cannot be started) leaves
    // the receiver Idle with nothing open.
    auto abandon = miscUtils::makeScopeGuard([this] { abandonInitialization(); });
    if (m_stateChangedCallback)
        m_stateChangedCallback(State::Connecting);

    startThread();
    startFsMonitorThread();
    abandon.dismiss();
    LOG4CPLUS_DEBUG(logger, "Receiver initialized");
    return true;
}

void Receiver::abandonInitialization()
{
    // A receiver thread that started goes Idle by itself as it ends; otherwise nothing runs
    // that could.
    stopThreads();
    std::lock_guard lock(m_mutex);
    m_wakeupPipe.close();
    m_state = State::Idle;
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
    bool woken = true;
    {
        std::lock_guard lock(m_mutex);
        m_threadRunning = false;
        // Wakes the receiver thread out of whatever it waits in.
        if (m_wakeupPipe.isOpen())
            woken = m_wakeupPipe.notify();
    }
    if (!woken)
        LOG4CPLUS_ERROR(logger, "Failed to write stop flag");
    if (m_thread.joinable())
        m_thread.join();
}

void Receiver::threadLoop()
{
    LOG4CPLUS_DEBUG(logger, "Receiver thread started");
    while (iterate())
    {}
    setReceiverToIdle();
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
        restartConnection();
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
    // Stopping waits for the clock's thread, whose notification takes m_mutex: never under it.
    m_syncedNetClock.stopSynchronization();
    disconnectNanomsgMainChannel();
    disconnectSidechannel();
    resetConnectionStates();
    endFailureRun();
    if (m_stateChangedCallback)
        m_stateChangedCallback(State::Idle);
    // After the Idle state change, so that the application sees Idle first.
    if (m_connectionAttemptFailed)
    {
        LOG4CPLUS_DEBUG(logger, "Connection attempt failed; reporting this if a callback is set");
        if (m_connectionAttemptFailedCallback)
            m_connectionAttemptFailedCallback();
        m_connectionAttemptFailed = false;
    }
    // Published last: once getState() reads Idle, this thread calls no callback any more and the
    // application may set new ones.
    std::lock_guard lock(m_mutex);
    m_wakeupPipe.close();
    m_state = State::Idle;
}

void Receiver::resetConnectionStates()
{
    {
        std::lock_guard lock(m_mutex);
        m_initialInfo = InitialInfo{};
        m_pendingEvents &= ~ClockStateChanged;
    }
    m_currentSequenceNr = 0;
    m_receiverIsReadyReported = false;
    m_sequenceDepayloader = nullptr;
    m_connectingState = ConnectingState::ConnectingSidechannel;
    // The depayloaders are the application's code: never called under the lock.
    m_depayloaderList.reset();
}

void Receiver::postEvent(Event event)
{
    // The byte stays in the pipe until the receiver thread drains it, after which it takes the
    // event: a notification can never fall between its test and its wait.
    std::lock_guard lock(m_mutex);
    m_pendingEvents |= event;
    if (m_wakeupPipe.isOpen())
        m_wakeupPipe.notify();
}

bool Receiver::takeEvent(Event event)
{
    std::lock_guard lock(m_mutex);
    const bool pending = (m_pendingEvents & event) != 0;
    m_pendingEvents &= ~event;
    return pending;
}

bool Receiver::isStopRequested() const
{
    std::lock_guard lock(m_mutex);
    return !m_threadRunning;
}

bool Receiver::waitForWakeup(std::chrono::milliseconds timeout)
{
    pollfd wakeup{m_wakeupPipe.readFD(), POLLIN, 0};
    // Interrupted, the wait ends early; the caller's next pass comes a little sooner.
    if (poll(&wakeup, 1, static_cast<int>(timeout.count())) <= 0)
        return false;
    m_wakeupPipe.drain();
    return true;
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
        if (waitForNextAttempt())
            return true;
        switch (connectSidechannel())
        {
        case ConnectionRetval::Success:
            LOG4CPLUS_DEBUG(logger, "Sidechannel to VRX sender established");
            takeEvent(SenderAppeared); // whatever appeared meanwhile, this is the sender
            if (!isSenderAllowed())
                restartConnection();
            else
                m_connectingState = ConnectingState::WaitingForInitialInfo;
            return true;
        case ConnectionRetval::Retry: scheduleRetry(); return true;
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
            LOG_CONNECTION_FAILURE("Could not get initial info; restarting connection attempt");
            restartConnection();
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
            // A main channel this receiver cannot use: the sender may come back with another, so
            // the whole connection is tried again.
            restartConnection();
            LOG4CPLUS_TRACE(logger, "Could not connect to VRX sender nanomsg SP socket; retrying in "
                                        << toPollTimeout(m_nextAttemptAt - std::chrono::steady_clock::now())
                                        << " ms");
            return true;
        case ConnectionRetval::Failed: m_connectionAttemptFailed = true; return false;
        }
        break;
    }
    return true;
}

void Receiver::scheduleRetry()
{
    // A sender that appeared since the last attempt (or before the receiver started) is retried
    // quickly: it creates its directory a moment before it listens.
    const auto now = std::chrono::steady_clock::now();
    if (takeEvent(SenderAppeared))
        m_quickRetriesUntil = now + quickRetryPeriod;
    const auto delay = now < m_quickRetriesUntil ? quickRetryDelay : retryDelay;
    LOG4CPLUS_TRACE(logger, "Could not connect to VRX sender; retrying in "
                                << std::chrono::milliseconds(delay).count() << " ms");
    m_nextAttemptAt = now + delay;
}

bool Receiver::waitForNextAttempt()
{
    const auto now = std::chrono::steady_clock::now();
    if (now >= m_nextAttemptAt)
        return false;
    // A stop ends the wait (the loop then ends at its next pass), and so does a sender that
    // appears: it may be the one that works, and is tried at once.
    if (waitForWakeup(std::chrono::milliseconds(toPollTimeout(m_nextAttemptAt - now))) &&
        takeEvent(SenderAppeared))
    {
        LOG4CPLUS_TRACE(logger, "A sender appeared; retrying at once");
        m_nextAttemptAt = std::chrono::steady_clock::now();
        m_quickRetriesUntil = m_nextAttemptAt + quickRetryPeriod;
    }
    return true;
}

Receiver::ConnectionRetval Receiver::connectSidechannel()
{
    auto guard = miscUtils::makeScopeGuard([this] { disconnectSidechannel(); });
    if (m_sideChannelSocketFD < 0)
    {
        // Non-blocking: a listener that does not accept (its backlog full) must not hold the
        // receiver thread where a stop cannot reach it. Such a connect fails with EAGAIN and is
        // retried like any other.
        m_sideChannelSocketFD.reset(socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
        if (m_sideChannelSocketFD < 0)
        {
            const int error = errno;
            LOG4CPLUS_ERROR(logger, "Could not create sidechannel socket: " << ErrnoText{error});
            return ConnectionRetval::Failed;
        }
        LOG4CPLUS_TRACE(logger, "Sidechannel socket established");
    }
    LOG4CPLUS_TRACE(logger, "Attempting to connect sidechannel");

    sockaddr_un address;
    if (connect(m_sideChannelSocketFD, reinterpret_cast<const sockaddr*>(&address),
                makeAbstractSocketAddress(m_socketAddress, address)) == 0)
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
    LOG_CONNECTION_FAILURE("Could not connect to sender: " + toString(ErrnoText{error}));
    return ConnectionRetval::Retry;
}

bool Receiver::isSenderAllowed()
{
    const std::optional<detail::PeerCredentials> sender = detail::peerCredentials(m_sideChannelSocketFD);
    if (sender && detail::allows(m_accessPolicy, *sender))
    {
        m_senderUid = sender->uid;
        return true;
    }
    const int error = errno;
    LOG_CONNECTION_FAILURE(
        sender ? "Refusing the sender at \"" + m_socketAddress + "\": " + detail::describe(*sender) +
                     " is not allowed by the access policy \"" + m_accessPolicy.toString() + "\""
               : "Refusing a sender whose credentials are unknown: " + toString(ErrnoText{error}));
    return false;
}

void Receiver::disconnectSidechannel()
{
    if (m_sideChannelSocketFD >= 0)
    {
        LOG4CPLUS_DEBUG(logger, "Closing sidechannel with FD " << m_sideChannelSocketFD);
        shutdown(m_sideChannelSocketFD, SHUT_RDWR);
        m_sideChannelSocketFD.reset();
    }
    m_sidechannelMessageSize = readingLengthPrefix;
    m_sidechannelBytesRead = 0;
    // What a large message made the buffer grow to goes with the connection.
    if (m_sidechannelMessage.capacity() > keptSidechannelCapacity)
        Buffer().swap(m_sidechannelMessage);
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
    // The socket does not block: nothing there right now is no error.
    if (error == EAGAIN || error == EINTR)
    {
        bytesRead = 0;
        return true;
    }
    LOG_CONNECTION_FAILURE("Could not read data from VRX sidechannel socket: " + toString(ErrnoText{error}));
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
            // A greeting or a SequenceInfo is tens of bytes: a peer's length is not trusted further.
            if (m_sidechannelMessageSize > maxSidechannelMessageSize)
            {
                LOG_CONNECTION_FAILURE("Refusing a sidechannel message of " +
                                       std::to_string(m_sidechannelMessageSize) + " bytes; at most " +
                                       std::to_string(maxSidechannelMessageSize) + " are taken");
                return SidechannelReadRetval::Error;
            }
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
    pollfd pollFDs[2] = {{m_wakeupPipe.readFD(), POLLIN, 0}, {m_sideChannelSocketFD, POLLIN, 0}};
    LOG4CPLUS_DEBUG(logger, "Waiting for initial info");
    for (;;)
    {
        if (poll(pollFDs, 2, -1) < 0)
        {
            const int error = errno;
            if (error == EINTR)
                continue;
            LOG_CONNECTION_FAILURE("Could not poll for side channel activity to get initial info: " +
                                   toString(ErrnoText{error}));
            return InitialInfoRetval::Error;
        }
        if ((pollFDs[0].revents & POLLIN) == 0)
            break;
        if (!m_wakeupPipe.drain())
        {
            const int error = errno;
            LOG4CPLUS_ERROR(logger,
                            "Error while receiving wakeup call over control pipe: " << ErrnoText{error});
        }
        // A stop wins over data that is already waiting; an event is for later.
        if (isStopRequested())
        {
            LOG4CPLUS_DEBUG(logger, "Loop wakeup activity; aborting wait for initial info");
            return InitialInfoRetval::Aborted;
        }
        if ((pollFDs[1].revents & POLLIN) != 0)
            break;
    }
    // A hang-up or an error without data would be reported again at once: the connection is
    // lost rather than waited on.
    if ((pollFDs[1].revents & POLLIN) == 0)
        return pollFDs[1].revents == 0 ? InitialInfoRetval::NotYet : InitialInfoRetval::Error;

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

// ---- Failed attempts -----------------------------------------------------------------------
//
// A connection that fails before it is healthy (before a sequence was taken) is a failed
// attempt. The first in a row is retried at once, each further one after twice the delay of
// the one before, from 10 ms up to the 400 ms retry delay, so that a peer that fails the same
// way again and again costs a few attempts a second. An error that repeats is logged once; its
// run's length is logged when the run ends, and at every power of ten while it lasts.

void Receiver::restartConnection()
{
    m_syncedNetClock.stopSynchronization();
    disconnectNanomsgMainChannel();
    disconnectSidechannel();
    resetConnectionStates();

    auto delay = std::chrono::steady_clock::duration::zero();
    if (m_failedAttempts > 0)
        delay = std::min<std::chrono::steady_clock::duration>(
            firstBackOff * (1u << std::min(m_failedAttempts - 1, 16u)), retryDelay);
    ++m_failedAttempts;
    m_nextAttemptAt = std::chrono::steady_clock::now() + delay;
    LOG4CPLUS_TRACE(logger, "Connection attempt " << m_failedAttempts << " in a row failed; next in "
                                                  << toPollTimeout(delay) << " ms");
}

void Receiver::logConnectionFailure(const std::string& text, const char* file, int line, const char* function)
{
    if (text == m_repeatedFailure)
    {
        if (isPowerOfTen(++m_failureRepeats))
            LOG4CPLUS_WARN(logger,
                           "The last connection error has come " << m_failureRepeats << " times in a row");
        return;
    }
    endFailureRun();
    m_repeatedFailure = text;
    m_failureRepeats = 1;
    // Recorded at the caller's place, as if the caller had logged it.
    if (logger.isEnabledFor(log4cplus::ERROR_LOG_LEVEL))
        logger.forcedLog(log4cplus::ERROR_LOG_LEVEL, text, file, line, function);
}

void Receiver::connectionIsHealthy()
{
    m_failedAttempts = 0;
    endFailureRun();
}

void Receiver::endFailureRun()
{
    if (m_failureRepeats > 1)
        LOG4CPLUS_WARN(logger, "The last connection error came " << m_failureRepeats << " times in a row");
    m_repeatedFailure.clear();
    m_failureRepeats = 0;
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
    // What a greeting names is bound or connected only when it is a socket of the sender's in
    // the sender's directory (where nanomsg would unlink a file, bind a directory or listen on
    // a network): anything else is refused, as a failed attempt.
    std::string refusal;
    std::optional<detail::MainChannelPlace> place =
        detail::checkMainChannelUri(uri, protocol, m_accessPolicy, m_senderUid, refusal);
    if (!place)
    {
        LOG_CONNECTION_FAILURE("Refusing the main channel \"" + uri + "\" of the greeting: " + refusal);
        return ConnectionRetval::Retry;
    }
    m_mainChannelDirectoryFD = std::move(place->directory);

    if (!m_nanomsgMainFD.open(protocol == NanomsgProtocol::PubSub ? NN_SUB : NN_PULL))
    {
        const int error = errno;
        LOG4CPLUS_ERROR(logger, "Could not create nanomsg SP socket: " << ErrnoText{error});
        return ConnectionRetval::Failed;
    }

    if (protocol == NanomsgProtocol::PubSub)
    {
        if (!m_nanomsgMainFD.subscribeToEverything())
        {
            const int error = errno;
            LOG4CPLUS_ERROR(logger, "Could not set SP socket subscription: " << ErrnoText{error});
            return ConnectionRetval::Failed;
        }
        if (!m_nanomsgMainFD.attach(place->uri, false))
        {
            const int error = errno;
            LOG4CPLUS_ERROR(logger, "Could not connect the nanomsg SP socket: " << ErrnoText{error});
            return ConnectionRetval::Failed;
        }
    }
    else
    {
        // Pipeline: the receiver binds, so only one receiver can hold the address.
        if (!m_nanomsgMainFD.attach(place->uri, true))
        {
            const int error = errno;
            LOG4CPLUS_ERROR(logger, "Could not connect the nanomsg SP socket: " << ErrnoText{error});
            return ConnectionRetval::Failed;
        }
        // The sender connects: as many as the access policy allows may, and no one else.
        LOG4CPLUS_INFO(logger, "Changing the permissions of socket " << uri << " to " << std::oct
                                                                     << detail::socketMode(m_accessPolicy));
        if (!detail::openUpSocket(m_mainChannelDirectoryFD, place->name, m_accessPolicy))
        {
            const int error = errno;
            LOG4CPLUS_ERROR(logger,
                            "Could not change the permissions of socket " << uri << ": " << ErrnoText{error});
        }
    }

    // Hold as little as possible ahead of the reader, and drop a message larger than the
    // application takes (nanomsg would otherwise allocate whatever a peer announces).
    m_nanomsgMainFD.setOption(NN_RCVBUF, 1);
    m_nanomsgMainFD.setOption(NN_RCVMAXSIZE, static_cast<int>(m_largestMessageSize));

    if (!m_nanomsgMainFD.fetchWatchFD(NN_RCVFD))
    {
        const int error = errno;
        LOG4CPLUS_ERROR(logger, "Could not retrieve the nanosmg watch FD: " << ErrnoText{error});
        return ConnectionRetval::Failed;
    }
    LOG4CPLUS_DEBUG(logger, "Nanomsg watch FD: " << m_nanomsgMainFD.watchFD());
    guard.dismiss();
    return ConnectionRetval::Success;
}

void Receiver::disconnectNanomsgMainChannel()
{
    if (!m_nanomsgMainFD.close())
    {
        const int error = errno;
        LOG4CPLUS_ERROR(logger, "Error while closing SP socket: " << ErrnoText{error});
    }
    m_mainChannelDirectoryFD.reset();
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
    pollfd pollFDs[3] = {{m_wakeupPipe.readFD(), POLLIN, 0},
                         {m_nanomsgMainFD.watchFD(), POLLIN, 0},
                         {m_sideChannelSocketFD, POLLIN, 0}};
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
            LOG_CONNECTION_FAILURE("Could not poll for side channel activity to get initial info: " +
                                   toString(ErrnoText{error}));
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

    // A stop wins over packets that wait.
    if ((pollFDs[Wakeup].revents & POLLIN) != 0)
        return takeWakeup();
    // The main channel forgives: a packet it cannot use costs that packet, or that stream.
    if ((pollFDs[Nanomsg].revents & POLLIN) != 0 && !takeMainChannelPacket())
        return false;
    // The sidechannel does not: what it cannot use ends the connection.
    if ((pollFDs[Sidechannel].revents & POLLIN) != 0)
        return takeSidechannelMessage();
    // A hang-up or an error alone would be reported again at once: a sidechannel is lost as if
    // closed, and anything else of the kind ends the connection rather than spin on it.
    if (pollFDs[Sidechannel].revents != 0)
    {
        disconnectSidechannel();
        m_connectingState = ConnectingState::ConnectingSidechannel;
    }
    if (((pollFDs[Wakeup].revents | pollFDs[Nanomsg].revents) & ~POLLIN) != 0)
    {
        LOG_CONNECTION_FAILURE(
            "The wakeup pipe or the nanomsg watch FD reported an error; restarting connection");
        return false;
    }
    return true;
}

bool Receiver::takeWakeup()
{
    if (!m_wakeupPipe.drain())
    {
        const int error = errno;
        LOG_CONNECTION_FAILURE("Error while receiving wakeup call over control pipe: " +
                               toString(ErrnoText{error}));
        return false;
    }
    if (isStopRequested())
    {
        // The loop ends at its next pass.
        LOG4CPLUS_TRACE(logger, "Loop wakup activity; aborting wait for input");
        return true;
    }
    if (takeEvent(ClockStateChanged))
        reportReceiverIsReady();
    return true;
}

bool Receiver::takeMainChannelPacket()
{
    LOG4CPLUS_TRACE(logger, "Nanomsg activity");
    void* message = nullptr;
    const int size = nn_recv(m_nanomsgMainFD, &message, NN_MSG, NN_DONTWAIT);
    if (size < 0)
    {
        const int error = errno;
        LOG_CONNECTION_FAILURE("Error while trying to receive data through nanomsg: " +
                               toString(ErrnoText{error}));
        return false;
    }
    // Freed on every way out, also when a callback throws.
    const auto freeMessage = miscUtils::makeScopeGuard([message] { nn_freemsg(message); });
    const ByteSpan packet(static_cast<const unsigned char*>(message), static_cast<std::size_t>(size));

    // The first frames may overtake the greeting's SequenceInfo, which then still waits on the
    // sidechannel: it is taken first, so that they are judged by the sequence it announces.
    if (isFrameOfANewerSequence(packet) && !takeWaitingSidechannelMessages())
        return false;
    if (!shouldPacketBeKept(packet))
    {
        LOG4CPLUS_TRACE(logger, "Dropping received nanomsg VRX packet with " << size << " byte(s)");
        // A newer sequence whose announcement this receiver missed: a new connection's
        // greeting brings it.
        if (!isFrameOfANewerSequence(packet) || sidechannelHoldsMore())
            return true;
        LOG4CPLUS_WARN(logger, "Missed the SequenceInfo packet of sequence nr "
                                   << parsePacketSequenceNr(packet)
                                   << "; reconnecting to be greeted with it");
        return false;
    }

    const DepayloaderList::ConsumePacketRetcode result = m_depayloaderList.consumePacket(packet);
    if (result != DepayloaderList::ConsumePacketRetcode::Ok &&
        m_depayloaderList.getCurrentPacketType() == PacketType::SequenceInfo)
        m_sequenceDepayloader = nullptr; // the current sequence has none now
    switch (result)
    {
    case DepayloaderList::ConsumePacketRetcode::NoMatchingDepayloader:
        LOG4CPLUS_WARN(logger,
                       "Could not select an VRX depayloader for this stream; its packets will be skipped");
        return true;
    case DepayloaderList::ConsumePacketRetcode::NoDepayloaderSelected:
        LOG4CPLUS_WARN(logger, "Dropping received nanomsg VRX Frame packet because no matching VRX "
                               "depayloader was previously found");
        return true;
    case DepayloaderList::ConsumePacketRetcode::Error:
        LOG_CONNECTION_FAILURE("Error while consuming VRX packet");
        return false;
    case DepayloaderList::ConsumePacketRetcode::Ok: break;
    }
    const PacketType packetType = m_depayloaderList.getCurrentPacketType();
    LOG4CPLUS_TRACE(logger, "Received nanomsg VRX packet with "
                                << size << " byte(s); type: " << toString(packetType));
    if (packetType == PacketType::SequenceInfo)
        return handleSequenceInfoPacket();
    if (packetType == PacketType::Frame)
        handleFramePacket();
    return true;
}

bool Receiver::takeSidechannelMessage()
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
    const DepayloaderList::ConsumePacketRetcode result = m_depayloaderList.consumePacket(packet);
    const PacketType packetType = m_depayloaderList.getCurrentPacketType();
    LOG4CPLUS_TRACE(logger, "Received sidechannel VRX packet with "
                                << packet.size() << " byte(s); type: " << toString(packetType));
    switch (result)
    {
    case DepayloaderList::ConsumePacketRetcode::NoMatchingDepayloader:
        LOG_CONNECTION_FAILURE("Got a SequenceInfo packet, but no matching payloader was found");
        return false;
    case DepayloaderList::ConsumePacketRetcode::NoDepayloaderSelected:
        LOG_CONNECTION_FAILURE("Got a Frame packet, but no payloader is present");
        return false;
    case DepayloaderList::ConsumePacketRetcode::Error:
        LOG_CONNECTION_FAILURE("Error while consuming VRX packet");
        return false;
    case DepayloaderList::ConsumePacketRetcode::Ok: break;
    }
    if (packetType == PacketType::SequenceInfo)
        return handleSequenceInfoPacket();
    if (packetType == PacketType::Frame)
    {
        LOG4CPLUS_ERROR(logger, "Got a Frame packet over the sidechannel; this is not supposed to happen!");
        handleFramePacket();
    }
    return true;
}

bool Receiver::takeWaitingSidechannelMessages()
{
    unsigned char byte;
    while (m_sideChannelSocketFD >= 0 && recv(m_sideChannelSocketFD, &byte, 1, MSG_PEEK | MSG_DONTWAIT) > 0)
        if (!takeSidechannelMessage())
            return false;
    return true;
}

bool Receiver::sidechannelHoldsMore() const
{
    if (m_sideChannelSocketFD < 0)
        return false;
    // A message half read, or bytes that wait.
    unsigned char byte;
    return m_sidechannelMessageSize != readingLengthPrefix || m_sidechannelBytesRead > 0 ||
           recv(m_sideChannelSocketFD, &byte, 1, MSG_PEEK | MSG_DONTWAIT) > 0;
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

bool Receiver::isSequenceNrTooOld(unsigned short sequenceNr) const
{
    // Late packets from just before the sender's counter wrapped. There is no allowance the
    // other way round: after a wrap from a high number, new small numbers count as too old.
    if (sequenceNr >= 0xFFF0 && m_currentSequenceNr <= 14)
        return true;
    return sequenceNr < m_currentSequenceNr;
}

bool Receiver::isFrameOfANewerSequence(const ByteSpan& packet) const
{
    const std::uint16_t sequenceNr = parsePacketSequenceNr(packet);
    return parsePacketType(packet) == PacketType::Frame && sequenceNr != m_currentSequenceNr &&
           !isSequenceNrTooOld(sequenceNr);
}

bool Receiver::handleSequenceInfoPacket()
{
    Depayloader* depayloader = m_depayloaderList.getCurrentDepayloader();
    if (depayloader == nullptr)
    {
        LOG_CONNECTION_FAILURE("No suitable VRX depayloader available; check that the PCM depayloader was "
                               "added to the depayloader list");
        return false;
    }
    m_sequenceDepayloader = depayloader;
    connectionIsHealthy();
    if (m_newSequenceCallback)
        m_newSequenceCallback(*depayloader);
    reportReceiverIsReady();
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
                                          miscUtils::SyncedNetClock::DefaultPollIntervalMs,
                                          miscUtils::SyncedNetClock::DefaultMaxRoundTripNs,
                                          [this] { onClockSyncStateChange(); });
}

Receiver::StreamClockType Receiver::getStreamClockType() const
{
    StreamClockType clockType;
    {
        std::lock_guard lock(m_mutex);
        clockType = streamClockType();
    }
    if (clockType == StreamClockType::Undetermined)
        LOG4CPLUS_ERROR(
            logger, "Cannot query synced net clock availability unless the receiver is in the Running state");
    return clockType;
}

Receiver::StreamClockType Receiver::streamClockType() const
{
    if (m_state != State::Running)
        return StreamClockType::Undetermined;
    if (m_initialInfo.timeSyncProtocol == TimeSyncProtocol::MonotonicSystemClock)
        return StreamClockType::MonotonicSystemClock;
    return m_initialInfo.timeSyncPort != 0 ? StreamClockType::SyncedNetClock : StreamClockType::NoClock;
}

miscUtils::TimeValue Receiver::getCurrentStreamTime() const
{
    TimeSyncProtocol protocol;
    {
        std::lock_guard lock(m_mutex);
        protocol = m_initialInfo.timeSyncProtocol;
    }
    // Read without the lock: the network clock's read retries while its estimate changes.
    if (protocol == TimeSyncProtocol::MonotonicSystemClock)
        return miscUtils::getMonotonicSysclockTime();
    return m_syncedNetClock.getSynchronizedTime();
}

void Receiver::reportReceiverIsReady()
{
    MISCUTILS_ASSERT(m_state == State::Running);
    if (m_receiverIsReadyReported)
        return;
    Depayloader* depayloader = m_sequenceDepayloader;
    if (depayloader == nullptr)
    {
        LOG4CPLUS_DEBUG(logger, "VRX payloader not available yet; cannot report stream as ready");
        return;
    }
    const StreamClockType clockType = streamClockType();
    switch (clockType)
    {
    case StreamClockType::NoClock:
    case StreamClockType::MonotonicSystemClock: break;
    case StreamClockType::SyncedNetClock:
        // Not yet: the clock's notification brings the report once it has synchronised.
        if (!m_syncedNetClock.isSynchronized())
            return;
        break;
    case StreamClockType::Undetermined: MISCUTILS_ASSERT(false);
    }
    m_receiverIsReadyReported = true;
    if (m_receiverIsReadyCallback)
        m_receiverIsReadyCallback(*depayloader, clockType);
}

void Receiver::onClockSyncStateChange()
{
    // On the clock's thread: the receiver thread reports, between its other callbacks.
    postEvent(ClockStateChanged);
}

// ---- Directory monitor ---------------------------------------------------------------------

void Receiver::startFsMonitorThread()
{
    LOG4CPLUS_DEBUG(logger, "void vrx::Receiver::startFsMonitorThread()");
    // The watch comes before the scan, so that a sender appearing meanwhile is not missed.
    m_inotifyFD.reset(inotify_init1(IN_CLOEXEC | IN_NONBLOCK));
    const std::string directory = getSenderParentDirectory();
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
                postEvent(SenderAppeared);
                break;
            }
        }
        closedir(listing);
    }

    // Without it a stop waits out the monitor's 5 s poll; it works all the same.
    if (!m_fsMonitorWakeupPipe.open())
    {
        const int error = errno;
        LOG4CPLUS_WARN(logger, "Cannot create the directory monitor's wakeup pipe: " << ErrnoText{error});
    }
    m_fsMonitorThread = std::thread(&Receiver::fsMonitorThreadLoop, this);
}

void Receiver::fsMonitorThreadLoop()
{
    LOG4CPLUS_DEBUG(logger, "void vrx::Receiver::fsMonitorThreadLoop()");
    pollfd pollFDs[2] = {{m_inotifyFD, POLLIN, 0}, {m_fsMonitorWakeupPipe.readFD(), POLLIN, 0}};
    for (;;)
    {
        const int ready = poll(pollFDs, 2, fsMonitorPollMs);
        {
            std::lock_guard lock(m_mutex);
            if (!m_threadRunning)
                return;
        }
        // Only a stop writes the wake-up byte.
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
        postEvent(SenderAppeared);
    }
}

void Receiver::stopFsMonitorThread()
{
    LOG4CPLUS_DEBUG(logger, "void vrx::Receiver::stopFsMonitorThread()");
    if (m_fsMonitorWakeupPipe.isOpen() && !m_fsMonitorWakeupPipe.notify())
        LOG4CPLUS_ERROR(logger, "Failed to write stop flag");
    if (m_fsMonitorThread.joinable())
        m_fsMonitorThread.join();
    if (m_inotifyFD >= 0)
        inotify_rm_watch(m_inotifyFD, m_inotifyWatchDescriptor);
    m_inotifyFD.reset();
    m_inotifyWatchDescriptor = -1;
    m_fsMonitorWakeupPipe.close();
}

} // namespace vrx
