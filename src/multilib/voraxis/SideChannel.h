#pragma once

#include <miscutils/Export.h>

#include <array>
#include <cstdint>
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

/// Every sidechannel message is preceded by its payload length as 4 little-endian bytes.
using SidechannelMessageSize = std::array<unsigned char, 4>;

VRX_EXPORT SidechannelMessageSize produceSidechannelMessageSize(std::uint32_t payloadSize);
VRX_EXPORT std::uint32_t parseSidechannelMessageSize(const SidechannelMessageSize& sizeBytes);

} // namespace vrx
