#pragma once

#include <voraxis/SideChannel.h>
#include <voraxis/VrxPayload.h>

#include <miscutils/Export.h>
#include <miscutils/MiscUtils.h>
#include <miscutils/SyncedNetClock.h>

#include <array>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <mutex>
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
/// sender runs a thread of its own, on which the ready callback may run too.
///
/// Callbacks run without any lock held and may call getState, getStreamClockType and
/// getCurrentStreamTime. They must not call shutdownReceiver or initializeReceiver, nor destroy
/// the receiver: those join the receiver thread. Set callbacks and depayloaders before
/// initializeReceiver (or while the receiver is Idle); they are read without a lock.
///
/// Where this receiver takes the safe side:
/// - Shut-down is prompt: a stop wakes the directory monitor at once (it otherwise polls every
///   5 s), so shutdownReceiver returns within milliseconds in every state.
/// - A clock notification never aborts: the network clock can report "synchronised" before the
///   main channel is connected; such notifications are ignored while the receiver is not
///   Running, and readiness then follows from the first SequenceInfo.
/// - Initialising again after a connect step failed for good is safe: the loop has ended by
///   then but its threads are still to be joined; initializeReceiver joins them and starts
///   afresh.
/// - A sender creates its directory a moment before it listens on its socket; after a sender
///   appeared, failed attempts are retried every 2 ms for 100 ms before the 400 ms period
///   resumes, so that the receiver connects within milliseconds of the sender. A sender that
///   appears between an attempt and the following wait is not missed either.
/// - A missed announcement is recovered: a sender publishes a new sequence's SequenceInfo once,
///   on the main channel, which drops it for a receiver that is not subscribed yet (it connected
///   just before the sequence started) or whose pipe is full. Frames of a newer sequence than
///   the current one are then dropped as always, and the receiver reconnects, since the greeting
///   of a new connection carries the current sequence.
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

    /// The stream is playable: `depayloader` was selected by a SequenceInfo and the clock is
    /// usable. Once per connection, on the receiver thread or on the network clock's thread.
    using ReceiverIsReadyCallback = std::function<void(Depayloader& depayloader, StreamClockType clockType)>;
    using StateChangedCallback = std::function<void(State newState)>;
    /// A connect step failed for good (no socket could be made, or the main channel could not be
    /// opened, e.g. a second pipeline receiver for one sender): the receiver is Idle and stays so.
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

    /// Registers a depayloader under its FourCC. The receiver does not own it; it must outlive
    /// the receiver.
    void addDepayloader(Depayloader& depayloader);

    /// Starts following the sender whose sidechannel socket has `socketAddress` (an abstract
    /// Unix socket name; at most 107 bytes are used). The state becomes Connecting (the state
    /// callback runs on this thread) and the receiver thread connects as soon as the sender is
    /// there. Returns true, also when the receiver already was Connecting or Running (the
    /// address is then not changed); false when the wake-up pipe cannot be created. A failure
    /// to start a thread throws std::system_error.
    bool initializeReceiver(std::string socketAddress);

    /// Stops both threads and returns when they have ended; the receiver is Idle afterwards.
    /// Harmless on a receiver that is not initialised.
    void shutdownReceiver();

    State getState() const;

    /// Current time on the stream's clock: the monotonic clock for "sysclock" streams, else the
    /// network clock's reading (local monotonic time while it has never synchronised).
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

    // Thread loop and state machine.
    void startThread();
    void stopThread();
    void stopThreads();
    void threadLoop();
    bool iterate();
    void setState(State state, bool force);
    void setReceiverToIdle();
    void resetConnectionStates(); // m_mutex held

    // Connecting: sidechannel and greeting.
    bool handleConnectingState();
    void waitBeforeRetry();
    ConnectionRetval connectSidechannel();
    void disconnectSidechannel();
    bool readSomeFromSidechannel(unsigned char* buffer, std::size_t count, std::size_t& bytesRead);
    SidechannelReadRetval readSidechannelMessage();
    InitialInfoRetval listenForInitialInfo();

    // Main channel.
    ConnectionRetval connectNanomsgMainChannel();
    void disconnectNanomsgMainChannel();

    // Running.
    bool listenForInput();
    bool shouldPacketBeKept(const ByteSpan& packet);
    bool isSequenceNrTooOld(unsigned short sequenceNr) const;
    bool missedSequenceInfo(const ByteSpan& droppedPacket) const;
    bool handleSequenceInfoPacket();
    void handleFramePacket();

    // Stream clock and readiness.
    enum class ReadinessReporter
    {
        ReceiverThread, ///< a SequenceInfo selected a depayloader
        Clock,          ///< the network clock's synchronisation state changed
    };
    void startTimeSynchronization();
    StreamClockType streamClockType() const; // m_mutex held
    void reportReceiverIsReady(ReadinessReporter reporter);
    void onClockSyncStateChange();

    // Directory monitor.
    void startFsMonitorThread();
    void fsMonitorThreadLoop();
    void stopFsMonitorThread();

    std::string m_socketAddress;
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
    std::condition_variable m_conditionVariable;
    // Set by the directory monitor without the lock, taken by the receiver thread's retry wait.
    std::atomic<bool> m_senderAppeared{false};
    // End of the quick retries after a sender appeared; receiver thread only.
    std::chrono::steady_clock::time_point m_quickRetriesUntil{};
    std::thread m_fsMonitorThread;
    // Readiness is claimed under m_mutex: the receiver thread and the clock's thread both report.
    bool m_receiverIsReadyReported = false;
    // The depayloader of the latest sequence the application was told of; m_mutex.
    Depayloader* m_announcedDepayloader = nullptr;
    ReceiverIsReadyCallback m_receiverIsReadyCallback;
    StateChangedCallback m_stateChangedCallback;
    ConnectionAttemptFailedCallback m_connectionAttemptFailedCallback;
    MediaDataCallback m_mediaDataCallback;
    NewSequenceCallback m_newSequenceCallback;
    // Sidechannel reader: the size is all ones while the 4-byte length prefix is read.
    std::size_t m_sidechannelMessageSize = static_cast<std::size_t>(-1);
    std::size_t m_sidechannelBytesRead = 0;
    Buffer m_sidechannelMessage;
    int m_sideChannelSocketFD = -1;
    int m_nanomsgMainFD = -1;
    int m_nanomsgWatchFD = -1; // owned by the nanomsg socket, never closed here
    std::array<int, 2> m_wakeupPipe{-1, -1};
    int m_nanomsgEndpointID = -1;
    miscUtils::SyncedNetClock m_syncedNetClock;
    int m_inotifyFD = -1;
    int m_inotifyWatchDescriptor = -1;
    // Wakes the directory monitor out of its 5 s poll when the receiver stops.
    int m_fsMonitorWakeupFD = -1;
};

/// "idle", "connecting", "running"; "unknown" for any other value.
VRX_EXPORT const char* toString(Receiver::State state);
/// "undetermined", "no clock", "monotonic system clock", "synced net clock"; "unknown" otherwise.
VRX_EXPORT const char* toString(Receiver::StreamClockType clockType);

} // namespace vrx
