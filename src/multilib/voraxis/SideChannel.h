#pragma once

#include <miscutils/Export.h>

#include <sys/socket.h>
#include <sys/un.h>

#include <array>
#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <vector>

namespace vrx {

/// Growable byte buffer: every packet is produced into one.
using Buffer = std::vector<unsigned char>;

/// Read-only view of contiguous bytes; a Buffer converts to it implicitly.
using ByteSpan = std::span<const unsigned char>;

/// How receivers obtain the clock on which the sender stamps its frames.
enum class TimeSyncProtocol : std::uint32_t
{
    Unknown = 0,
    GstNetClock = 1,          ///< network clock served at the announced address and port
    MonotonicSystemClock = 2, ///< CLOCK_MONOTONIC, shared by all processes on the host
};

/// Scalability protocol of the main (nanomsg) channel.
enum class NanomsgProtocol : std::uint32_t
{
    Unknown = 0,
    Pipeline = 1, ///< receiver binds a PULL socket, sender connects a PUSH socket
    PubSub = 2,   ///< sender binds a PUB socket, any number of receivers subscribe
};

/// "unknown", "gstnetclock" or "sysclock"; any other value gives "unknown".
VRX_EXPORT const char* toString(TimeSyncProtocol protocol);
/// "unknown", "pipeline" or "pubsub"; any other value gives "unknown".
VRX_EXPORT const char* toString(NanomsgProtocol protocol);
/// Exact, case-sensitive inverse of toString; anything unrecognised gives Unknown.
VRX_EXPORT TimeSyncProtocol toTimeSyncProtocol(const std::string& text);
/// Exact, case-sensitive inverse of toString; anything unrecognised gives Unknown.
VRX_EXPORT NanomsgProtocol toNanomsgProtocol(const std::string& text);

/// The greeting a sender gives every receiver on the sidechannel.
struct InitialInfo
{
    std::uint16_t version = 0;      ///< protocol version; senders fill in 1
    std::string timeSyncIPAddress;  ///< time server address, may be empty
    std::uint16_t timeSyncPort = 0; ///< 0: no time synchronisation
    TimeSyncProtocol timeSyncProtocol = TimeSyncProtocol::Unknown;
    NanomsgProtocol nanomsgProtocol = NanomsgProtocol::Unknown;
    std::string nanomsgUri; ///< "ipc://" address of the main channel

    bool operator==(const InitialInfo&) const = default;
};

/// Serialises an InitialInfo (without sidechannel framing). Strings must not contain 0 bytes.
VRX_EXPORT Buffer produceInitialInfoPacket(const InitialInfo& initialInfo);

/// Parses the payload of one sidechannel message. A malformed packet is a broken invariant
/// (the peer is a sender of another protocol) and stops the process.
VRX_EXPORT InitialInfo parseInitialInfoPacket(const ByteSpan& packetData);

/// Parses like parseInitialInfoPacket, but a malformed packet gives nullopt: for programs that
/// ask whatever answers at an address whether it is a sender at all.
VRX_EXPORT std::optional<InitialInfo> tryParseInitialInfoPacket(const ByteSpan& packetData);

/// Every sidechannel message is preceded by its payload length as 4 little-endian bytes.
using SidechannelMessageSize = std::array<unsigned char, 4>;

VRX_EXPORT SidechannelMessageSize produceSidechannelMessageSize(std::uint32_t payloadSize);
VRX_EXPORT std::uint32_t parseSidechannelMessageSize(const SidechannelMessageSize& sizeBytes);

/// Where a receiver finds its sender: senders make their directories in this one and receivers
/// watch it. $TMPDIR when it is set (an empty value too, as given), else "/tmp/vrx"; the
/// environment is read at each call.
VRX_EXPORT std::string getSenderParentDirectory();

/// A sender that runs now, as the record in its directory tells: every sender keeps one up to
/// date while it runs (only those whose directories the caller may read are found).
struct LiveSender
{
    std::string address;     ///< the sidechannel address it is bound to (maybe its alternative)
    unsigned int pid = 0;    ///< its process
    unsigned int uid = 0;    ///< its user
    std::string directory;   ///< its directory
    InitialInfo initialInfo; ///< the greeting it gives
    Buffer sequenceInfo;     ///< the SequenceInfo packet of its sequence; empty before the first
    unsigned int receivers = 0; ///< receivers connected to its sidechannel
};

/// The senders that run now in `parent` (by default getSenderParentDirectory()), in the order of
/// their addresses. A record that a killed sender left behind is recognised (its process has
/// gone, or is another one by now) and skipped.
VRX_EXPORT std::vector<LiveSender> findLiveSenders(const std::string& parent = getSenderParentDirectory());

/// What makeSenderParentDirectory found, or did.
enum class SenderParentDirectory : std::uint32_t
{
    Existing = 0,      ///< a directory was there already
    Created = 1,       ///< this call made it
    NotADirectory = 2, ///< something else is there
    Failed = 3,        ///< it cannot be made (errno tells why; ENOENT for an empty TMPDIR)
};

/// Makes getSenderParentDirectory() when it is missing, with mode 1777 like /tmp, so that the
/// senders and receivers of every user can meet there (what each may do there is for their
/// access policies to say). The mode is set on the directory made, never through a link.
VRX_EXPORT SenderParentDirectory makeSenderParentDirectory();

/// Longest sidechannel address in bytes (107): an abstract Unix socket name fills sun_path
/// behind its leading 0 byte. Sender and receiver use the first this many bytes of a longer one.
inline constexpr std::size_t MaxSocketAddressLength = sizeof(sockaddr_un::sun_path) - 1;

/// Fills `address` with the abstract Unix socket address of the sidechannel address `name`
/// (a 0 byte, then at most MaxSocketAddressLength bytes of the name, without terminator) and
/// returns the length to give bind() or connect().
VRX_EXPORT socklen_t makeAbstractSocketAddress(const std::string& name, sockaddr_un& address);

} // namespace vrx
