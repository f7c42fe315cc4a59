#pragma once

#include <voraxis/AccessPolicy.h>
#include <voraxis/SideChannel.h>
#include <voraxis/VrxPayload.h>

#include <voraxis/NanomsgSocket.h>

#include <miscutils/Descriptors.h>
#include <miscutils/Export.h>
#include <miscutils/MiscUtils.h>
#include <miscutils/SyncedNetClock.h>

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <vector>

namespace vrx {

/// The consuming end of a stream. A receiver follows the sender whose sidechannel socket has
/// the address given to initializeReceiver: it connects, takes the sender's greeting, opens
/// the main channel it names, and then hands every frame to the application. When the
/// connection is lost it reconnects by itself, without limit.
///
/// Threads: initializeReceiver starts a receiver thread (the state machine, the sockets and
/// every callback below except the first Connecting one) and a directory monitor thread, which
/// watches $TMPDIR (default "/tmp/vrx") for senders appearing so that a waiting receiver
/// connects at once instead of at its next 400 ms retry. A network clock announced by the
/// sender runs a thread of its own, which only wakes the receiver thread.
///
/// Callbacks run on the receiver thread, one at a time and in order, without any lock held;
/// they may call getState, getStreamClockType and getCurrentStreamTime. They must not call
/// shutdownReceiver or initializeReceiver, nor destroy the receiver: those join the receiver
/// thread. An exception that leaves a callback on the receiver thread ends the process
/// (std::terminate), as one that leaves any thread does; one that leaves the Connecting
/// callback reaches the caller of initializeReceiver. Set callbacks and depayloaders before
/// initializeReceiver or while getState() reads Idle; they are read without a lock. Depayloaders
/// are called on the receiver thread only, never under the receiver's lock, so they may call
/// these queries too.
///
/// Access: the receiver follows only a sender that its access policy allows (its own user and
/// root by default; see AccessPolicy); another is a failed attempt, and the receiver waits on.
///
/// Where this receiver takes the safe side:
/// - A greeting cannot point anywhere: the main channel is bound or connected only at a socket
///   inside a sender's directory ("VrxSender-...") of the sender's user that nobody outside the
///   policy can write (a pipeline's socket may not exist yet), reached through the directory
///   held open; a regular file, a directory, a network address or someone else's directory is
///   refused with an ERROR line, as a failed attempt. A pipeline receiver's socket gets the mode
///   the policy needs, set without following a link.
/// - Inputs have bounds: a sidechannel message longer than 64 KiB ends the connection (a
///   greeting is tens of bytes) and its buffer goes with it; nanomsg drops main channel messages
///   larger than setLargestMessageSize (16 MiB) instead of allocating what a peer announces.
/// - Shut-down is prompt: a stop wakes the directory monitor at once (it otherwise polls every
///   5 s), and the sidechannel is connected without blocking, so that a sender whose backlog is
///   full (or any listener that never accepts) cannot hold the receiver thread; shutdownReceiver
///   returns within milliseconds in every state.
/// - A clock notification never aborts, and readiness is reported on the receiver thread: the
///   network clock's thread only wakes the receiver thread, which reports readiness when it is
///   Running (a notification that comes earlier is taken up there), for the depayloader that
///   took the current sequence and never for one of an earlier sequence.
/// - getState() reads Idle only once the receiver thread will make no more callbacks (the Idle
///   state change and a failed-attempt report come before), so that callbacks may be set then.
/// - initializeReceiver is all or nothing: when the Connecting callback throws, or a thread
///   cannot be started, the receiver is Idle again with nothing left open, and the exception
///   reaches the caller. Initialising again after a connect step failed for good is safe: the
///   loop has ended by then but its threads are still to be joined; initializeReceiver joins
///   them and starts afresh.
/// - A sender that appears is never noticed late: the directory monitor wakes the retry wait
///   through the same pipe that a stop uses, so its notification cannot be lost. A sender creates
///   its directory a moment before it listens on its socket; after a sender appeared, failed
///   attempts are retried every 2 ms for 100 ms before the 400 ms period resumes, so that the
///   receiver connects within milliseconds of the sender.
/// - No reconnect storms: a connection that fails before it is healthy (before a sequence was
///   taken: the greeting is cut short or names a format or a main channel that cannot be used,
///   or its peer accepts and closes at once) is a failed attempt. The first is retried at once,
///   the next ones after 10 ms, 20 ms, ... up to 400 ms; an error that repeats is logged once,
///   with the number of repeats when its run ends (and at every power of ten while it lasts).
///   Only the failures that cannot heal by retrying (no socket, a pipeline address that another
///   receiver holds) end the loop with a failed-attempt report.
/// - A missed announcement is recovered, and a healthy start is never taken for one: a sender
///   publishes a new sequence's SequenceInfo once, on the main channel, which drops it for a
///   receiver that is not subscribed yet or whose pipe is full. Frames of a newer sequence than
///   the current one then make the receiver reconnect, since the greeting of a new connection
///   carries the current sequence; but first it takes whatever the sidechannel holds, since the
///   greeting's own SequenceInfo may still wait there when the first frames arrive.
class VRX_EXPORT Receiver
{
public:
    enum class State : std::uint32_t
    {
        Idle = 0,       ///< not following a sender
        Connecting = 1, ///< connecting the sidechannel, taking the greeting, opening the main channel
        Running = 2,    ///< receiving; frames reach the media data callback
    };

    /// Which clock a stream's timestamps are on; known while the receiver is Running.
    enum class StreamClockType : std::uint32_t
    {
        Undetermined = 0,         ///< not Running
        NoClock = 1,              ///< the sender names no clock the receiver can follow
        MonotonicSystemClock = 2, ///< CLOCK_MONOTONIC, shared with the sender on this host
        SyncedNetClock = 3,       ///< the network clock served by the sender's time server
    };

    /// The stream is playable: `depayloader` took the current sequence and the clock is usable.
    /// Once per connection.
    using ReceiverIsReadyCallback = std::function<void(Depayloader& depayloader, StreamClockType clockType)>;
    using StateChangedCallback = std::function<void(State newState)>;
    /// A connect step failed for good (no socket could be made, or the main channel could not be
    /// opened, e.g. a second pipeline receiver for one sender): the receiver goes Idle and stays so.
    using ConnectionAttemptFailedCallback = std::function<void()>;
    /// One frame; `mediaData` is valid during the call only.
    using MediaDataCallback = std::function<void(unsigned long long timestamp, unsigned long long duration,
                                                 const std::vector<unsigned char>& mediaData)>;
    /// A sequence started with the format `depayloader` now holds.
    using NewSequenceCallback = std::function<void(Depayloader& depayloader)>;

    Receiver();
    /// Shuts the receiver down.
    ~Receiver();

    Receiver(const Receiver&) = delete;
    Receiver& operator=(const Receiver&) = delete;

    /// Which senders the receiver follows, from the next initializeReceiver on; without a call,
    /// the environment variable VRX_ALLOW decides (AccessPolicy::fromEnvironment).
    void setAccessPolicy(const AccessPolicy& policy);

    /// The largest main channel message taken (16 MiB unless set); nanomsg drops a larger one
    /// instead of allocating what a peer announces. Set it like the callbacks, before
    /// initializeReceiver or while the receiver is Idle.
    void setLargestMessageSize(std::size_t bytes);

    /// Registers a depayloader under its FourCC. The receiver does not own it; it must outlive
    /// the receiver.
    void addDepayloader(Depayloader& depayloader);

    /// Starts following the sender whose sidechannel socket has `socketAddress` (an abstract
    /// Unix socket name; at most 107 bytes are used). The state becomes Connecting (the state
    /// callback runs on this thread) and the receiver thread connects as soon as the sender is
    /// there. Returns true, also when the receiver already was Connecting or Running (the
    /// address is then not changed); false when the wake-up pipe cannot be created. A failure
    /// to start a thread throws std::system_error, and so does whatever the Connecting callback
    /// throws; the receiver is Idle again then, with nothing left open.
    bool initializeReceiver(std::string socketAddress);

    /// Stops both threads and returns when they have ended; the receiver is Idle afterwards.
    /// Harmless on a receiver that is not initialised.
    void shutdownReceiver();

    State getState() const;

    /// Current time on the stream's clock: the monotonic clock for "sysclock" streams, else the
    /// network clock's reading (local monotonic time while it has never synchronised). Any
    /// thread; it never waits for the receiver thread.
    miscUtils::TimeValue getCurrentStreamTime() const;

    /// The stream's clock while Running; Undetermined (with an error logged) otherwise.
    StreamClockType getStreamClockType() const;

    void setReceiverIsReadyCallback(ReceiverIsReadyCallback callback);
    void setStateChangedCallback(StateChangedCallback callback);
    void setConnectionAttemptFailedCallback(ConnectionAttemptFailedCallback callback);
    void setMediaDataCallback(MediaDataCallback callback);
    void setNewSequenceCallback(NewSequenceCallback callback);

private:
    enum class ConnectingState : std::uint32_t
    {
        NotConnecting = 0,
        ConnectingSidechannel = 1,
        WaitingForInitialInfo = 2,
        ConnectingNanomsgMainChannel = 3,
        Connected = 4, ///< Running
    };
    enum class ConnectionRetval : std::uint32_t
    {
        Success = 0,
        Retry = 1,
        Failed = 2,
    };
    enum class InitialInfoRetval : std::uint32_t
    {
        NotYet = 0,
        Success = 1,
        Aborted = 2,
        Error = 3,
    };
    enum class SidechannelReadRetval : std::uint32_t
    {
        Incomplete = 0,
        MessageComplete = 1,
        Error = 2,
    };

    // What other threads tell the receiver thread, with a byte on m_wakeupPipe.
    enum Event : unsigned int
    {
        SenderAppeared = 1,    ///< the directory monitor saw a sender's directory
        ClockStateChanged = 2, ///< the network clock synchronised or lost it
    };

    // Thread loop and state machine.
    void startThread();
    void stopThread();
    void stopThreads();
    void abandonInitialization();
    void threadLoop();
    bool iterate();
    void setState(State state, bool force);
    void setReceiverToIdle();
    void resetConnectionStates();
    void postEvent(Event event);
    bool takeEvent(Event event);
    bool isStopRequested() const;
    bool waitForWakeup(std::chrono::milliseconds timeout);

    // Connecting: sidechannel and greeting.
    bool handleConnectingState();
    void scheduleRetry();
    bool waitForNextAttempt();
    ConnectionRetval connectSidechannel();
    bool isSenderAllowed();
    void disconnectSidechannel();
    bool readSomeFromSidechannel(unsigned char* buffer, std::size_t count, std::size_t& bytesRead);
    SidechannelReadRetval readSidechannelMessage();
    InitialInfoRetval listenForInitialInfo();

    // Failed attempts: back-off and a log without repeats.
    void restartConnection();
    void logConnectionFailure(const std::string& text, const char* file, int line, const char* function);
    void connectionIsHealthy();
    void endFailureRun();

    // Main channel.
    ConnectionRetval connectNanomsgMainChannel();
    void disconnectNanomsgMainChannel();

    // Running.
    bool listenForInput();
    bool takeWakeup();
    bool takeMainChannelPacket();
    bool takeSidechannelMessage();
    bool takeWaitingSidechannelMessages();
    bool sidechannelHoldsMore() const;
    bool shouldPacketBeKept(const ByteSpan& packet);
    bool isSequenceNrTooOld(unsigned short sequenceNr) const;
    bool isFrameOfANewerSequence(const ByteSpan& packet) const;
    bool handleSequenceInfoPacket();
    void handleFramePacket();

    // Stream clock and readiness.
    void startTimeSynchronization();
    StreamClockType streamClockType() const; // m_mutex held, or on the receiver thread
    void reportReceiverIsReady();
    void onClockSyncStateChange();

    // Directory monitor.
    void startFsMonitorThread();
    void fsMonitorThreadLoop();
    void stopFsMonitorThread();

    std::string m_socketAddress;
    std::optional<AccessPolicy> m_chosenAccessPolicy; // the application's
    AccessPolicy m_accessPolicy;                      // in force since initializeReceiver
    std::size_t m_largestMessageSize = 16 * 1024 * 1024;
    DepayloaderList m_depayloaderList;
    // Written by the receiver thread under m_mutex; read under it by other threads.
    InitialInfo m_initialInfo;
    std::uint16_t m_currentSequenceNr = 0;
    // Written under m_mutex; the receiver thread, its only writer while it runs, reads it freely.
    State m_state = State::Idle;
    ConnectingState m_connectingState = ConnectingState::NotConnecting;
    bool m_connectionAttemptFailed = false;
    bool m_threadRunning = false; // m_mutex
    mutable std::mutex m_mutex;
    std::thread m_thread;
    // Events posted and not yet taken; m_mutex.
    unsigned int m_pendingEvents = 0;
    std::thread m_fsMonitorThread;
    // The receiver thread's own, like everything below up to the descriptors.
    bool m_receiverIsReadyReported = false;
    // The depayloader that took the current sequence; none while it was refused.
    Depayloader* m_sequenceDepayloader = nullptr;
    ReceiverIsReadyCallback m_receiverIsReadyCallback;
    StateChangedCallback m_stateChangedCallback;
    ConnectionAttemptFailedCallback m_connectionAttemptFailedCallback;
    MediaDataCallback m_mediaDataCallback;
    NewSequenceCallback m_newSequenceCallback;
    // Sidechannel reader: the size is all ones while the 4-byte length prefix is read.
    std::size_t m_sidechannelMessageSize = static_cast<std::size_t>(-1);
    std::size_t m_sidechannelBytesRead = 0;
    Buffer m_sidechannelMessage;
    // When the next attempt may start, and until when attempts are retried quickly after a
    // sender appeared.
    std::chrono::steady_clock::time_point m_nextAttemptAt{};
    std::chrono::steady_clock::time_point m_quickRetriesUntil{};
    // Failed attempts since the last healthy connection.
    unsigned int m_failedAttempts = 0;
    // The error of the last failure, and how many times in a row it came.
    std::string m_repeatedFailure;
    unsigned long m_failureRepeats = 0;
    miscUtils::FileDescriptor m_sideChannelSocketFD;
    unsigned int m_senderUid = 0; // of the sender on the other end, by its credentials
    // The directory of the main channel's socket, open while the channel is.
    miscUtils::FileDescriptor m_mainChannelDirectoryFD;
    // The SP socket with its endpoint and receive watch descriptor.
    detail::NanomsgSocket m_nanomsgMainFD;
    // Opened and closed under m_mutex; written by stops and by posted events.
    miscUtils::WakeupPipe m_wakeupPipe;
    miscUtils::SyncedNetClock m_syncedNetClock;
    miscUtils::FileDescriptor m_inotifyFD;
    int m_inotifyWatchDescriptor = -1;
    // Wakes the directory monitor out of its 5 s poll when the receiver stops.
    miscUtils::WakeupPipe m_fsMonitorWakeupPipe;
};

/// "idle", "connecting", "running"; "unknown" for any other value.
VRX_EXPORT const char* toString(Receiver::State state);
/// "undetermined", "no clock", "monotonic system clock", "synced net clock"; "unknown" otherwise.
VRX_EXPORT const char* toString(Receiver::StreamClockType clockType);

} // namespace vrx
