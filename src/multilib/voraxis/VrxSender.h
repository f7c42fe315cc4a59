#pragma once

#include <voraxis/AccessPolicy.h>
#include <voraxis/SideChannel.h>
#include <voraxis/VrxPayload.h>

#include <voraxis/NanomsgSocket.h>

#include <miscutils/Descriptors.h>
#include <miscutils/Export.h>
#include <miscutils/MiscUtils.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <vector>

// The listener's poll set; declared here so that users of the sender need not see <poll.h>.
struct pollfd;

namespace vrx {

/// The producing end of a stream. It greets every local receiver on a Unix-domain socket in
/// the abstract namespace and sends SequenceInfo and Frame packets over a nanomsg socket on an
/// ipc:// path inside a private temporary directory (under $TMPDIR, default "/tmp/vrx").
///
/// Access: the sender greets only receivers that its access policy allows (its own user and
/// root by default), and its directory and main channel socket let in no one else; see
/// AccessPolicy. Where the sender takes the safe side:
/// - Its parent directory must be owned by its user or root, and sticky when others may write
///   it; no mode change follows a link (modes are set on descriptors), and the main channel is
///   bound through the open directory, so that nothing can be swapped in between.
/// - At most 256 receivers are connected at once; further connections are closed at once, and
///   said so once until there is room again. Out of descriptors, the listener leaves waiting
///   receivers in its backlog for 100 ms at a time instead of spinning on them.
///
/// One producer thread calls setCurrentPayloader, startNewSequence and sendMediaData;
/// disableSend may be called from any thread. Sends never queue. Over publish/subscribe a send
/// never waits: a frame that a receiver's pipe cannot take at once is dropped for that
/// receiver. Over pipeline a send waits, as nanomsg's push socket does, until the one receiver
/// takes the frame, also while none is connected; disableSend(true) releases it. A receiver
/// that goes away while it is greeted never raises SIGPIPE in the producer.
class VRX_EXPORT Sender
{
public:
    Sender();
    /// Shuts the sender down if it is still initialised.
    ~Sender();

    Sender(const Sender&) = delete;
    Sender& operator=(const Sender&) = delete;

    /// Who may receive the stream, from the next initializeSender on; without a call, the
    /// environment variable VRX_ALLOW decides (AccessPolicy::fromEnvironment).
    void setAccessPolicy(const AccessPolicy& policy);

    /// Brings the sender up: temporary directory, sidechannel listener on `socketAddress` (or
    /// on `alternativeSocketAddress` when the first cannot be bound), nanomsg main channel and
    /// listener thread. The time-sync fields are announced to receivers unchanged (the port in
    /// its low 16 bits). True when the sender runs afterwards, also when it already ran (the
    /// new arguments are then ignored). A failed call leaves what it created in place.
    bool initializeSender(std::string socketAddress, std::string alternativeSocketAddress,
                          std::string timeSyncIPAddress, unsigned int timeSyncPort,
                          TimeSyncProtocol timeSyncProtocol, NanomsgProtocol nanomsgProtocol);

    /// Stops the listener thread, closes all connections and sockets and removes the IPC file
    /// and the temporary directory. Does nothing when the sender is not initialised. Must not
    /// be called concurrently with itself.
    void shutdownSender();

    /// Selects the payload format of the next sequence. The payloader must outlive its use.
    void setCurrentPayloader(Payloader& payloader);

    /// Opens a new sequence (numbers 1 to 65535, then 1 again) with the current payloader's
    /// FourCC and codec header: connected receivers get its SequenceInfo packet over the main
    /// channel, later ones in their greeting.
    void startNewSequence();

    /// Sends one frame of the current sequence; timestamp and duration travel unchanged.
    void sendMediaData(miscUtils::TimeValue timestamp, miscUtils::TimeValue duration,
                       const ByteSpan& mediaData);

    /// Switches sending over the main channel off (true) or on (false); switching it off wakes
    /// a send that waits for the channel. A successful initializeSender switches it on again.
    /// Safe from any thread at any time, also while the sender is initialised or shut down.
    void disableSend(bool disable);

    /// True while at least one receiver is connected to the sidechannel.
    bool areThereClientConnections() const;

    /// The sidechannel address the sender is bound to: the one asked for, or the alternative
    /// when another sender holds the first; empty while the sender is not initialised.
    std::string getBoundSocketAddress() const;

    /// True while the main channel of at least one receiver is attached, so that a frame sent
    /// now reaches it. A receiver attaches its main channel a moment after its sidechannel
    /// connected: a producer that must not lose a new receiver's first frame waits for both.
    bool areThereMainChannelConnections() const;

    /// Sends one framed sidechannel message to every entry of the listener's poll set, in
    /// order: the wake-up pipe and the listening socket come first and fail (each failure is
    /// logged), then every connected receiver.
    void sendDataOverAllClientConnections(const ByteSpan& data);

private:
    // Called with m_mutex held, except listenerThreadLoop (the listener thread's body) and
    // sendDataOverNanomsg (called with no lock held; it never waits under a lock).
    void prepareInitialInfoPacket();
    bool setupListener();
    void listenerThreadLoop();
    void greetClientConnection(int fd);
    void closeClientConnection(std::size_t index);
    void shutdownListener();
    void sendDataOverClientConnection(int fd, const ByteSpan& data);
    // The listener leaves its listening socket alone for a while when it runs out of descriptors.
    void pauseAccepting(int error);
    int acceptPauseLeftMs();
    bool setupNanomsgMainChannel();
    void shutdownNanomsgMainChannel();
    void sendDataOverNanomsg(const ByteSpan& packet);
    // Who may use the main channel: see "Send switch" in VrxSender.cpp.
    bool enterSend();
    void leaveSend();
    bool waitForChannel();
    void waitUntilNoSendUsesTheChannel();
    std::size_t clientConnectionCount() const;
    bool makeTemporaryDirectory();
    /// Brings the record that findLiveSenders reads up to date.
    void updateRecord();
    /// Removes the IPC file and the temporary directory, where there are any.
    void removeTemporaryDirectory();

    std::string m_socketAddress;
    std::string m_alternativeSocketAddress;
    std::string m_boundSocketAddress; // one of the two, while the listener is bound
    std::string m_timeSyncIPAddress;
    std::uint32_t m_timeSyncPort = 0;
    TimeSyncProtocol m_timeSyncProtocol = TimeSyncProtocol::Unknown;
    std::string m_nanomsgUri;
    NanomsgProtocol m_nanomsgProtocol = NanomsgProtocol::Unknown;
    Payloader* m_payloader = nullptr;
    Buffer m_initialInfoPacket;
    Buffer m_sequenceInfoPacket;
    Buffer m_framePacket;
    std::uint16_t m_sequenceNr = 0;
    std::thread m_listenerThread;
    mutable std::mutex m_mutex;
    std::mutex m_nanomsgMutex;
    bool m_initialized = false;
    bool m_listenerThreadRunning = false;
    miscUtils::FileDescriptor m_listenerSocketFD;
    // The SP socket with its endpoint and send watch descriptor.
    detail::NanomsgSocket m_nanomsgMainFD;
    // Both created and closed under m_mutex.
    miscUtils::WakeupPipe m_listenerWakeupPipe;
    miscUtils::WakeupPipe m_nanomsgWakeupPipe;
    // Written by shutdownSender under m_mutex and by disableSend under m_nanomsgMutex, read by
    // a send under m_nanomsgMutex: atomic, since the two locks never meet.
    std::atomic<bool> m_sendDisabled{false};
    // Sends that passed the switch and still use the channel; shutdownSender waits for 0 before
    // it closes it. Both under m_nanomsgMutex.
    unsigned int m_sendsInProgress = 0;
    std::condition_variable m_sendsFinished;
    std::string m_tempDirectory;
    std::string m_nanomsgIpcFilePath;
    // The parent of the temporary directory and the directory itself, open while it exists.
    miscUtils::FileDescriptor m_parentDirectoryFD;
    miscUtils::FileDescriptor m_tempDirectoryFD;
    bool m_recordFailed = false; // said once
    Buffer m_recordedFormat;     // what the record says of the sequence: FourCC and codec header
    std::optional<AccessPolicy> m_chosenAccessPolicy; // the application's
    AccessPolicy m_accessPolicy;                      // in force since initializeSender
    // Listener thread only: users refused so far (said once each), and receivers refused for
    // want of room since there was room last.
    std::vector<unsigned int> m_refusedUsers;
    unsigned long m_refusedForRoom = 0;
    std::unique_ptr<std::vector<pollfd>> m_listenerPollFDs;
    // Listener thread only: when accepting resumes, and how many accepts failed for want of
    // descriptors since the last one that succeeded.
    std::chrono::steady_clock::time_point m_acceptResumesAt{};
    unsigned long m_acceptFailures = 0;
};

} // namespace vrx
