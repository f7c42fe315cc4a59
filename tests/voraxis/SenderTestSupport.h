#pragma once

// What the sender tests need to look at a vrx::Sender from the outside: a private TMPDIR, a
// sidechannel client, raw nanomsg sockets, the expected packet bytes, and the process's open
// descriptors and threads.

#include <voraxis/SideChannel.h>
#include <voraxis/VrxSender.h>

#include "LogCapture.h"
#include "TestHelpers.h"

#include <chrono>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <vector>

namespace vrx::test {

using namespace std::chrono_literals;

/// Waits until the log holds a record with exactly this message.
bool waitForLog(const LogCapture& log, const std::string& message);

/// A directory under /tmp, removed with its content at the end. A death test's child runs
/// its test again from the start and dies without cleaning up; it finds the parent's
/// directory in the environment and works there, so that the parent removes what it leaves.
class ScratchDirectory
{
public:
    ScratchDirectory();
    ~ScratchDirectory();

    ScratchDirectory(const ScratchDirectory&) = delete;
    ScratchDirectory& operator=(const ScratchDirectory&) = delete;

    const std::string& path() const { return m_path; }

private:
    std::string m_path;
    bool m_owned;
};

/// Sets (or, with nullopt, unsets) an environment variable and restores it at the end.
class ScopedEnvironmentVariable
{
public:
    ScopedEnvironmentVariable(std::string name, const std::optional<std::string>& value);
    ~ScopedEnvironmentVariable();

    ScopedEnvironmentVariable(const ScopedEnvironmentVariable&) = delete;
    ScopedEnvironmentVariable& operator=(const ScopedEnvironmentVariable&) = delete;

private:
    std::string m_name;
    std::optional<std::string> m_previous;
};

/// An abstract socket address that no other test process uses.
std::string uniqueSocketAddress(const std::string& tag);

/// The sender directories ("VrxSender-" plus six characters) in `parent`, sorted.
std::vector<std::string> senderDirectories(const std::string& parent);

/// "ipc://" URI of the main channel of the sender whose directory is `senderDirectory`.
std::string nanomsgUriOf(const std::string& senderDirectory);

/// A receiver's end of the sidechannel: a plain Unix-domain stream client.
class SidechannelClient
{
public:
    /// Connects to the abstract address; check connected().
    explicit SidechannelClient(const std::string& address);
    ~SidechannelClient();

    SidechannelClient(const SidechannelClient&) = delete;
    SidechannelClient& operator=(const SidechannelClient&) = delete;

    bool connected() const { return m_fd >= 0; }
    int connectError() const { return m_connectError; }

    /// One whole sidechannel message as it came over the wire: 4 length bytes, then the
    /// payload. Nothing when the deadline passes or the sender closes the connection first.
    std::optional<Buffer> readMessage();

    /// True when the sender closes its end (end of stream) before the deadline; whatever
    /// arrives before that is discarded.
    bool waitForClose();

    void close();

private:
    bool readExactly(unsigned char* data, std::size_t size);

    int m_fd = -1;
    int m_connectError = 0;
};

/// A raw nanomsg socket (NN_SUB subscribed to everything, or NN_PULL) as a receiver would use.
class NanomsgSocket
{
public:
    enum class Kind
    {
        Subscriber, ///< NN_SUB connected to the URI
        Puller,     ///< NN_PULL bound to the URI
    };

    NanomsgSocket(Kind kind, const std::string& uri);
    ~NanomsgSocket();

    NanomsgSocket(const NanomsgSocket&) = delete;
    NanomsgSocket& operator=(const NanomsgSocket&) = delete;

    bool attached() const { return m_endpoint >= 0; }

    /// One message, or nothing when none arrives within `timeout`.
    std::optional<Buffer> receive(std::chrono::milliseconds timeout = conditionDeadline);

private:
    int m_fd = -1;
    int m_endpoint = -1;
};

/// A PUB socket drops what a subscriber's pipe cannot take at once, so one send may be lost:
/// repeats `send` until a packet that `accept` takes arrives (others are skipped) or the
/// deadline passes.
std::optional<Buffer> sendUntilReceived(NanomsgSocket& socket, const std::function<void()>& send,
                                        const std::function<bool(const Buffer&)>& accept);

/// The payload framed as the sender puts it on the sidechannel.
Buffer framed(const Buffer& payload);

/// An InitialInfo packet written out byte by byte.
Buffer expectedInitialInfo(const std::string& timeSyncIPAddress, std::uint16_t timeSyncPort,
                           TimeSyncProtocol timeSyncProtocol, NanomsgProtocol nanomsgProtocol,
                           const std::string& nanomsgUri);

/// A SequenceInfo packet of FourCC "PCMA" with the codec header of 48 kHz stereo S16LE.
Buffer expectedPcmSequenceInfo(std::uint16_t sequenceNr);

/// A Frame packet written out byte by byte.
Buffer expectedFrame(std::uint16_t sequenceNr, std::uint64_t timestamp, std::uint64_t duration,
                     const Buffer& media);

/// 1920 bytes (10 ms of 48 kHz stereo S16LE) of a recognisable pattern.
Buffer mediaFrame(unsigned char seed);

/// Packet type byte and sequence number of a stream packet, for picking packets out of a stream.
bool isSequenceInfo(const Buffer& packet);
bool isFrameWithTimestamp(const Buffer& packet, std::uint64_t timestamp);
std::uint16_t sequenceNrOf(const Buffer& packet);

/// The sender's log lines about new sidechannel connections give the descriptors it uses.
std::vector<int> acceptedClientDescriptors(const LogCapture& log);

/// Common ground of the sender suites: a private TMPDIR, a socket address of this process,
/// a PCM payloader (48 kHz stereo S16LE) and the sender under test, destroyed first.
class SenderTest : public LogCaptureTest
{
protected:
    SenderTest();

    /// initializeSender on m_sender with m_address and the monotonic system clock.
    bool initialize(NanomsgProtocol protocol, const std::string& alternativeAddress = "");

    /// The one sender directory in TMPDIR (empty when there is not exactly one).
    std::string senderDirectory() const;

    ScratchDirectory m_scratch;
    ScopedEnvironmentVariable m_tmpdir{"TMPDIR", m_scratch.path()};
    std::string m_address = uniqueSocketAddress("main");
    PcmPayloader m_payloader;
    Sender m_sender;
};

} // namespace vrx::test
